#include "agent/Import/ImportRun.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

#include <sys/stat.h>

namespace Agent {

using Backup::File::YMetadataBase;
using Krt::ErrorCode;
using Krt::YString;

namespace {

constexpr std::size_t BufferSize = 1 << 20;

} // namespace

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
        shown = metadata.GetFilePath(0).GetDisplayPath();
        m_record.clear();
        metadata.StringifyTo(m_record);
        EntryFacts facts;
        RecordedEntry recorded;
        // What is no file is all in its record.
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
        KRT_RAISE_UNLESS(!IsInterrupted(), ErrorCode::InvalidState, "Interrupted; no snapshot was made");
        m_report.EntryFailed(shown, ReasonOf(error));
    }
    m_report.Progress(m_counts.Entries(), m_counts.bytes);
}

// Finds what the restore will need beside the record.
RecordedEntry ImportRun::Complete(YMetadataBase& metadata, EntryFacts& facts)
{
    const RecordedEntry recorded = RecordedEntryOf(metadata);
    // What no restore will make is refused here, where its source is still at hand.
    static_cast<void>(PlaceOf(metadata, 0));
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

// False for what is no regular file.
bool ImportRun::ReadContent(const Krt::Util::YUnxHandle& file, unsigned long long recordedSize,
                            EntryFacts& facts)
{
    if (file.IsEmpty())
        return false;
    const struct stat status = Krt::File::Stat(file);
    if (!S_ISREG(status.st_mode))
        return false;
    const auto size = static_cast<unsigned long long>(status.st_size);
    unsigned long long total = 0;
    unsigned long count = 0;
    m_objects.Begin();
    // A file that grows is followed no further than the buffer that shows it: it may grow for ever.
    do {
        count = Krt::File::Read(file, total, BufferSize, m_buffer.data());
        m_objects.Append(m_buffer.data(), count);
        total += count;
        m_report.Progress(m_counts.Entries(), m_counts.bytes + total);
        KRT_RAISE_UNLESS(!IsInterrupted(), ErrorCode::InvalidState, "Interrupted");
    } while (count == BufferSize && total <= size);
    facts.content = m_objects.Finish();
    if (total != recordedSize)
        facts.readSize = total;
    m_counts.bytes += total;
    return true;
}

} // namespace Agent
