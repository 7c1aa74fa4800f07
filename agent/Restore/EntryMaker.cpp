#include "agent/Restore/EntryMaker.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/TemporaryName.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YScope.h"
#include "Krt/Util/YUnxHandle.h"

#include <cerrno>
#include <sys/statvfs.h>

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;

namespace {

// Of a name that serves the whole run: each entry is created under it and then renamed.
constexpr const char* Prefix = ".kbagent-restore-";

// A file system that is mounted below the target may be read-only on its own.
bool IsReadOnly(const YDirectory& directory)
{
    struct statvfs status
    {};
    return fstatvfs(directory.GetHandle().Get(), &status) == 0 && (status.f_flag & ST_RDONLY) != 0;
}

YString Joined(const std::vector<YString>& reasons)
{
    std::string text;
    for (const YString& reason : reasons)
        text += (text.empty() ? "" : "; ") + reason.Bytes();
    return YString(std::move(text));
}

} // namespace

EntryMaker::EntryMaker(YDirectory target, Report& report)
    : m_report(report),
      m_tree(std::move(target), TemporaryName(Prefix),
             [this](const TargetLocation& directory, bool hasRecord, const std::vector<YString>& refused) {
                 m_report.EntryFailed(PathOf(directory), Joined(refused));
                 if (hasRecord)
                     --m_restored;
             }),
      m_temporary(TemporaryName(Prefix))
{}

std::optional<FileId> EntryMaker::Make(const NewEntry& entry)
{
    const YDirectory& parent = m_tree.ParentOf(entry.location);
    const YDirectory* workplace = &parent;
    bool isMoved = false;
    const Krt::Util::YScope cleanUp([&] {
        if (!isMoved)
            workplace->RemoveFile(m_temporary);
    });
    std::optional<FileId> made;
    const bool isLinked = MakeHardLink(entry.first, entry.location);
    if (!isLinked && entry.recorded.type == S_IFREG) {
        MakeFile(entry, parent, made);
    } else if (!isLinked) {
        const Staging& staging = m_tree.StagingFor(entry.location);
        workplace = &staging.GetDirectory();
        MakeOther(entry, staging);
        if (entry.hasOtherNames)
            made = FileId(workplace->Stat(m_temporary));
    }
    workplace->Rename(m_temporary, parent, entry.location.back()); // a directory is not replaced
    isMoved = true;
    if (isLinked)
        RemoveTemporary(parent);
    return made;
}

void EntryMaker::Count(const YString& path)
{
    if (m_refused.empty())
        ++m_restored;
    else
        m_report.EntryFailed(path, WithoutTemporary(path, Joined(m_refused)));
}

void EntryMaker::Failed(const YString& path, const Krt::Exception::YError& error)
{
    KRT_RAISE_UNLESS(!IsInterrupted(), ErrorCode::InvalidState,
                     "Interrupted; what was restored so far stays");
    // All further entries would fail in the same way. Attributes without space do not come here.
    const int number = error.GetOsError();
    const YString reason = WithoutTemporary(path, ReasonOf(error));
    if (number == ENOSPC || number == EDQUOT)
        throw TargetFull("The target is full: " + path.Bytes() + ": " + reason.Bytes() + "; " +
                         std::to_string(m_restored) + " entries were restored before and stay");
    if (number == EROFS && IsReadOnly(m_tree.GetRoot()))
        throw TargetFull("The target is read-only: " + path.Bytes() + ": " + reason.Bytes());
    m_report.EntryFailed(path, reason);
}

// Replaces the temporary name by that of the entry.
YString EntryMaker::WithoutTemporary(const YString& path, const YString& reason) const
{
    std::string text = reason.Bytes();
    if (const std::size_t position = text.find(m_temporary.Bytes()); position != std::string::npos)
        text.replace(position, m_temporary.Bytes().size(), path.Bytes().substr(path.Bytes().rfind('/') + 1));
    return YString(std::move(text));
}

// rename does nothing if both names are hard links to one file, so the temporary one may still exist.
void EntryMaker::RemoveTemporary(const YDirectory& parent)
{
    try {
        parent.RemoveFile(m_temporary);
    } catch (const Krt::Exception::YError& error) {
        m_refused.push_back(YString("temporary name not removed: ") + ReasonOf(error));
    }
}

// Creates a hard link to the first name of the file, if that was restored and is still the same file.
// Returns false if the caller has to create a separate file.
bool EntryMaker::MakeHardLink(const LinkedFile* first, const TargetLocation& location)
{
    if (first == nullptr)
        return false;
    const YDirectory& parent = m_tree.ParentOf(location);
    try {
        m_tree.MakeHardLink(first->location, location, m_temporary);
        if (FileId(parent.Stat(m_temporary)) == first->file)
            return true;
        m_refused.emplace_back(
            "restored as a file of its own, since another entry took its first name's place");
    } catch (const Krt::Exception::YError& error) {
        m_refused.push_back(YString("restored as a file of its own, since it could not be linked: ") +
                            ReasonOf(error));
    }
    parent.RemoveFile(m_temporary); // the separate file needs this name
    return false;
}

void EntryMaker::MakeFile(const NewEntry& entry, const YDirectory& parent, std::optional<FileId>& made)
{
    Krt::Util::YUnxHandle file = parent.CreateFile(m_temporary);
    entry.writeContent(file);
    Apply(entry.recorded.attributes, file, m_refused);
    if (entry.hasOtherNames)
        made = FileId(Krt::File::Stat(file));
    Krt::Util::CloseWritten(file);
}

void EntryMaker::MakeOther(const NewEntry& entry, const Staging& staging)
{
    const YDirectory& directory = staging.GetDirectory();
    const RecordedEntry& recorded = entry.recorded;
    switch (recorded.type) {
    case S_IFLNK:
        directory.MakeSymbolicLink(m_temporary, entry.linkTarget);
        break;
    case S_IFIFO:
        directory.MakeFifo(m_temporary, 0600);
        break;
    case S_IFCHR:
    case S_IFBLK:
        KRT_RAISE_UNLESS(entry.device.has_value(), ErrorCode::InvalidState,
                         "The snapshot has no device numbers");
        directory.MakeDevice(m_temporary, recorded.type | 0600, *entry.device);
        break;
    default:
        KRT_RAISE(ErrorCode::NotSupported, "An entry of this kind is not restored");
    }
    if (staging.IsPrivate())
        Apply(recorded.attributes, directory, m_temporary, recorded.type == S_IFLNK, m_refused);
    else
        m_refused.emplace_back("attributes not restored, since others may enter the temporary directory");
}

} // namespace Agent
