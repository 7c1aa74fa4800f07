#include "agent/Restore/RestoreRun.h"

#include "agent/Restore/SparseWriter.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"
#include "agent/Store/Hex.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Status.h"
#include "Krt/Util/YScope.h"
#include "Krt/Util/YUnxHandle.h"

#include <cerrno>

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;
using Krt::File::YPath;

namespace {

// One name serves the whole run: each entry is created under it and then renamed.
YString TemporaryName()
{
    return YString(".kbagent-restore-" + RandomHex(8));
}

// For an entry without a path. The command list counts in the same way.
YString NumberedEntry(unsigned long long number)
{
    return YString("Entry " + std::to_string(number));
}

YString Joined(const std::vector<YString>& reasons)
{
    std::string text;
    for (const YString& reason : reasons)
        text += (text.empty() ? "" : "; ") + reason.Bytes();
    return YString(std::move(text));
}

} // namespace

RestoreRun::RestoreRun(const Store& store, YDirectory target, std::vector<YPath> paths, Report& report)
    : m_report(report),
      m_tree(std::move(target), TemporaryName(),
             [this](const TargetLocation& directory, bool hasRecord, const std::vector<YString>& refused) {
                 m_report.EntryFailed(PathOf(directory), Joined(refused));
                 if (hasRecord)
                     --m_counts.directories;
             }),
      m_objects(store), m_temporary(TemporaryName())
{
    for (YPath& path : paths)
        m_paths.emplace_back(std::move(path), false);
}

void RestoreRun::Restore(const SnapshotEntry& entry)
{
    ++m_number;
    try {
        const auto metadata = Backup::File::YMetadataBase::ConstructFromJson(entry.record);
        CheckHasPath(*metadata);
        const unsigned long count = metadata->GetFilePathCount();
        m_hasSeveralPaths = count > 1;
        m_first.reset();
        for (unsigned long i = 0; i < count; ++i)
            RestorePath(entry, *metadata, i);
    } catch (const Krt::Exception::YError& error) {
        Failed(NumberedEntry(m_number), error);
    }
    m_report.Progress(m_counts.Entries(), m_counts.bytes);
}

void RestoreRun::RestorePath(const SnapshotEntry& entry, Backup::File::YMetadataBase& metadata,
                             unsigned long index)
{
    const Backup::YJobPath original = metadata.GetFilePath(index);
    YString shown = original.GetComponentCount() != 0 ? original.GetDisplayPath() : NumberedEntry(m_number);
    try {
        const TargetLocation location = TargetLocationOf(metadata, index);
        const YPath path = PathOf(location);
        shown = path;
        if (!IsWanted(path))
            return;
        m_refused.clear();
        const RecordedEntry recorded = RecordedEntryOf(metadata);
        Make(entry, recorded, location, m_volumes.FindOther(original, location));
        if (entry.readSize)
            m_refused.emplace_back("restored as it was read, with another size than in its record");
        if (m_refused.empty())
            m_counts.Add(recorded.type);
        else
            m_report.EntryFailed(path, Joined(m_refused));
    } catch (const Krt::Exception::YError& error) {
        Failed(shown, error);
    }
}

void RestoreRun::Failed(const YString& path, const Krt::Exception::YError& error)
{
    KRT_RAISE_UNLESS(!IsInterrupted(), ErrorCode::InvalidState,
                     "Interrupted; what was restored so far stays");
    // All further entries would fail in the same way. Attributes without space do not come here.
    const int number = error.GetOsError();
    if (number == ENOSPC || number == EDQUOT)
        throw TargetFull("The target is full: " + path.Bytes() + ": " + ReasonOf(error).Bytes() + "; " +
                         std::to_string(m_counts.Entries()) + " entries were restored before and stay");
    m_report.EntryFailed(path, ReasonOf(error));
}

void RestoreRun::Finish()
{
    m_tree.Finish();
    for (const auto& [path, matched] : m_paths) {
        if (!matched)
            m_report.EntryFailed(path, "The snapshot has no such entry");
    }
    m_tree.Sync();
}

bool RestoreRun::IsWanted(const YPath& path)
{
    bool wanted = m_paths.empty();
    for (auto& [root, matched] : m_paths) {
        if (path.IsChildOf(root, true))
            wanted = matched = true;
    }
    return wanted;
}

void RestoreRun::Make(const SnapshotEntry& entry, const RecordedEntry& recorded,
                      const TargetLocation& location, const YString& otherVolume)
{
    KRT_RAISE_UNLESS(
        !recorded.isReparsePoint || entry.content.has_value(), ErrorCode::NotSupported,
        "A reparse point without content is not restored: its record does not contain its target");
    if (recorded.type == S_IFDIR) {
        m_tree.MakeDirectory(location, recorded.attributes);
        return;
    }
    const YDirectory& parent = m_tree.ParentOf(location);
    CheckExisting(parent, location.back(), otherVolume);
    const YDirectory* workplace = &parent;
    bool isMoved = false;
    const Krt::Util::YScope cleanUp([&] {
        if (!isMoved)
            workplace->RemoveFile(m_temporary);
    });
    const bool isLinked = MakeHardLink(FirstNameOf(entry), location, m_temporary);
    const bool isFirst = !isLinked && (entry.hardLinkGroup != 0 || m_hasSeveralPaths);
    FileId made;
    if (!isLinked && recorded.type == S_IFREG) {
        MakeFile(entry, recorded, parent, isFirst ? &made : nullptr);
    } else if (!isLinked) {
        const Staging& staging = m_tree.StagingFor(location);
        workplace = &staging.GetDirectory();
        MakeOther(entry, recorded, staging);
        if (isFirst)
            made = FileId(workplace->Stat(m_temporary));
    }
    workplace->Rename(m_temporary, parent, location.back());
    isMoved = true;
    if (isLinked)
        RemoveTemporary(parent);
    if (isFirst)
        Remember(entry, location, made);
}

// rename does nothing if both names are hard links to one file, so the temporary one may still exist.
void RestoreRun::RemoveTemporary(const YDirectory& parent)
{
    try {
        parent.RemoveFile(m_temporary);
    } catch (const Krt::Exception::YError& error) {
        m_refused.push_back(YString("temporary name not removed: ") + ReasonOf(error));
    }
}

// Raises if the current entry must not replace the existing one of this name.
void RestoreRun::CheckExisting(const YDirectory& parent, const YString& name,
                               const YString& otherVolume) const
{
    struct stat existing
    {};
    if (!parent.StatIfPresent(name, existing))
        return;
    KRT_RAISE_UNLESS(!S_ISDIR(existing.st_mode), ErrorCode::InvalidState, "There is a directory at its path");
    const bool isOwn = m_first && m_first->file == FileId(existing);
    KRT_RAISE_UNLESS(otherVolume.IsEmpty() || isOwn, ErrorCode::InvalidState,
                     "Not restored: the existing entry may be from the volume "
                         << otherVolume << ", which is restored into the same directory");
}

// The hard link that the current file has already, by the paths of its record or by its group.
const RestoreRun::LinkedFile* RestoreRun::FirstNameOf(const SnapshotEntry& entry) const
{
    if (m_first)
        return &*m_first;
    const auto found = entry.hardLinkGroup != 0 ? m_linked.find(entry.hardLinkGroup) : m_linked.end();
    return found != m_linked.end() ? &found->second : nullptr;
}

// Creates a hard link to the first name of the file, if that was restored and is still the same file.
// Returns false if the caller has to create a separate file.
bool RestoreRun::MakeHardLink(const LinkedFile* first, const TargetLocation& location,
                              const YString& temporary)
{
    if (first == nullptr)
        return false;
    const YDirectory& parent = m_tree.ParentOf(location);
    try {
        m_tree.MakeHardLink(first->location, location, temporary);
        if (FileId(parent.Stat(temporary)) == first->file)
            return true;
        m_refused.emplace_back(
            "restored as a file of its own, since another entry took its first name's place");
    } catch (const Krt::Exception::YError& error) {
        m_refused.push_back(YString("restored as a file of its own, since it could not be linked: ") +
                            ReasonOf(error));
    }
    parent.RemoveFile(temporary); // the separate file needs this name
    return false;
}

void RestoreRun::MakeFile(const SnapshotEntry& entry, const RecordedEntry& recorded, const YDirectory& parent,
                          FileId* made)
{
    Krt::Util::YUnxHandle file = parent.CreateFile(m_temporary);
    WriteContent(entry, recorded, file);
    Apply(recorded.attributes, file, m_refused);
    if (made != nullptr)
        *made = FileId(Krt::File::Stat(file));
    Krt::Util::CloseWritten(file);
}

void RestoreRun::WriteContent(const SnapshotEntry& entry, const RecordedEntry& recorded,
                              const Krt::Util::YUnxHandle& file)
{
    KRT_RAISE_UNLESS(entry.content.has_value(), ErrorCode::InvalidState,
                     "The snapshot has no content for the file");
    m_objects.Open(*entry.content, entry.readSize.value_or(recorded.size));
    SparseWriter writer(file);
    for (auto block = m_objects.Next(); !block.empty(); block = m_objects.Next()) {
        writer.Append(block);
        m_report.Progress(m_counts.Entries(), m_counts.bytes + writer.GetSize());
        KRT_RAISE_UNLESS(!IsInterrupted(), ErrorCode::InvalidState, "Interrupted");
    }
    writer.Finish();
    m_counts.bytes += writer.GetSize();
}

void RestoreRun::MakeOther(const SnapshotEntry& entry, const RecordedEntry& recorded, const Staging& staging)
{
    const YDirectory& directory = staging.GetDirectory();
    switch (recorded.type) {
    case S_IFLNK:
        directory.MakeSymbolicLink(m_temporary, entry.linkTarget.value_or(recorded.linkTarget));
        break;
    case S_IFIFO:
        directory.MakeFifo(m_temporary, 0600);
        break;
    case S_IFCHR:
    case S_IFBLK:
        KRT_RAISE_UNLESS(entry.device.has_value(), ErrorCode::InvalidState,
                         "The snapshot has no device numbers");
        directory.MakeDevice(m_temporary, recorded.type | 0600,
                             makedev(entry.device->major, entry.device->minor));
        break;
    default:
        KRT_RAISE(ErrorCode::NotSupported, "An entry of this kind is not restored");
    }
    if (staging.IsPrivate())
        Apply(recorded.attributes, directory, m_temporary, recorded.type == S_IFLNK, m_refused);
    else
        m_refused.emplace_back("attributes not restored, since others may enter the temporary directory");
}

void RestoreRun::Remember(const SnapshotEntry& entry, const TargetLocation& location, const FileId& made)
{
    m_first.emplace(LinkedFile{location, made});
    if (entry.hardLinkGroup != 0)
        m_linked.insert_or_assign(entry.hardLinkGroup, *m_first);
}

} // namespace Agent
