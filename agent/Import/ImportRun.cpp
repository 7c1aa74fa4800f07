#include "agent/Import/ImportRun.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Exception/YError.h"

#include <sys/stat.h>

#include <cerrno>

namespace Agent {

using Backup::File::YMetadataBase;
using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YDirectory;

namespace {

constexpr std::size_t BufferSize = 1 << 20;

} // namespace

Krt::Util::YUnxHandle ContentFolder::Open(Backup::File::YMetadataBase& metadata)
{
    const std::vector<Name> names = NamesOf(metadata);
    std::size_t common = 0;
    while (common < m_open.size() && common + 1 < names.size() && m_open[common].name == names[common])
        ++common;
    m_open.erase(m_open.begin() + static_cast<std::ptrdiff_t>(common), m_open.end());
    try {
        while (m_open.size() + 1 < names.size()) {
            const Name& name = names[m_open.size()];
            m_open.push_back({name, Top().OpenDirectory(Choose(Top(), name))});
        }
        return Top().OpenFile(Choose(Top(), names.back()));
    } catch (const Krt::Exception::YError& error) {
        // ELOOP and ENOTDIR mean that the path leads through a symlink, and ENXIO that the entry is a socket.
        const int code = error.GetType() == Krt::ExceptionType::OsError ? error.GetOsError() : 0;
        if (code != ENOENT && code != ENOTDIR && code != ELOOP && code != ENXIO)
            throw;
        return {};
    }
}

std::vector<ContentFolder::Name> ContentFolder::NamesOf(Backup::File::YMetadataBase& metadata)
{
    const Backup::YJobPath path = metadata.GetFilePath(0);
    std::vector<Name> names;
    for (YString& restored : TargetLocationOf(metadata, 0))
        names.push_back({path.GetComponent(names.size()).m_name, std::move(restored)});
    return names;
}

// A volume's own name may contain a slash, unlike the name of a file.
const YString& ContentFolder::Choose(const YDirectory& parent, const Name& name)
{
    struct stat ignored;
    const bool isUsable = name.own == name.restored || (name.own.Bytes().find('/') == std::string::npos &&
                                                        parent.StatIfPresent(name.own, ignored));
    return isUsable ? name.own : name.restored;
}

ImportRun::ImportRun(StoreSession& session, SnapshotWriter& snapshot, ContentFolder contents, Report& report)
    : m_snapshot(snapshot), m_contents(std::move(contents)), m_report(report), m_objects(session),
      m_buffer(BufferSize)
{}

void ImportRun::Import(YMetadataBase& metadata, unsigned long long line)
{
    YString shown("line " + std::to_string(line));
    try {
        CheckHasPath(metadata);
        static_cast<void>(RestoredPath(metadata, 0));
        shown = ShownPath(metadata.GetFilePath(0));
        m_record.clear();
        metadata.StringifyTo(m_record);
        EntryFacts facts;
        RecordedEntry recorded;
        // The record of an object other than a file is complete.
        if (metadata.GetMetadataType() != Backup::File::VAM_ODS_METADATA_TYPE)
            recorded = Complete(metadata, facts);
        m_snapshot.Add(m_record, facts);
        m_counts.Add(recorded.type);
        if (facts.readSize) {
            Krt::YStream reason{YString()};
            reason << "The content has " << *facts.readSize << " bytes instead of " << recorded.size;
            m_report.EntryFailed(shown, reason);
        }
    } catch (const Krt::Exception::YError& error) {
        KRT_RAISE_UNLESS(!IsInterrupted(), ErrorCode::InvalidState, "Interrupted; no snapshot was created");
        m_report.EntryFailed(shown, ReasonOf(error));
    }
    m_report.Progress(m_counts.Entries(), m_counts.bytes);
}

// Finds what a restore needs in addition to the record.
RecordedEntry ImportRun::Complete(YMetadataBase& metadata, EntryFacts& facts)
{
    const RecordedEntry recorded = RecordedEntryOf(metadata);
    // An entry that no restore can create is refused here, while its source is still available.
    static_cast<void>(TargetLocationOf(metadata, 0));
    switch (recorded.type) {
    case S_IFREG: {
        const Krt::Util::YUnxHandle file = m_contents.Open(metadata);
        // A reparse point without a size has no content: its record is worth keeping.
        const bool hasNone = recorded.isReparsePoint && recorded.size == 0;
        KRT_RAISE_UNLESS(ReadContent(file, recorded.size, facts) || hasNone, ErrorCode::NotFound,
                         "Not stored: the contents have no file for it (links are not followed)");
        break;
    }
    case S_IFDIR:
    case S_IFIFO:
        break;
    case S_IFLNK:
        KRT_RAISE_UNLESS(!recorded.linkTarget.IsEmpty(), ErrorCode::InvalidArgument,
                         "Not stored: the record has no target for the link");
        break;
    default:
        KRT_RAISE(ErrorCode::NotSupported,
                  "Not stored: a record of a device, a socket or an unknown type is not enough");
    }
    return recorded;
}

// Returns false if it is not a regular file.
bool ImportRun::ReadContent(const Krt::Util::YUnxHandle& file, unsigned long long recordedSize,
                            EntryFacts& facts)
{
    if (file.IsEmpty())
        return false;
    const struct stat status = Krt::File::Stat(file);
    if (!S_ISREG(status.st_mode))
        return false;
    const auto size = static_cast<unsigned long long>(status.st_size);
    m_objects.Begin();
    const auto total =
        CopyContent(size, BufferSize, m_counts, m_report, [this, &file](unsigned long long offset) {
            const unsigned long count = Krt::File::Read(file, offset, BufferSize, m_buffer.data());
            m_objects.Append(m_buffer.data(), count);
            return count;
        });
    facts.content = m_objects.Finish();
    if (total != recordedSize)
        facts.readSize = total;
    m_counts.bytes += total;
    return true;
}

} // namespace Agent
