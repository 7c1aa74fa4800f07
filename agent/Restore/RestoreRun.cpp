#include "agent/Restore/RestoreRun.h"

#include "agent/Restore/SparseWriter.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YUnxHandle.h"

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;
using Krt::File::YPath;

namespace {

// For an entry without a path. The command list counts in the same way.
YString NumberedEntry(unsigned long long number)
{
    return YString("Entry " + std::to_string(number));
}

} // namespace

RestoreRun::RestoreRun(const Store& store, YDirectory target, std::vector<YPath> paths, Report& report)
    : m_report(report), m_maker(std::move(target), report), m_objects(store)
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
        m_maker.Failed(NumberedEntry(m_number), error);
    }
    m_report.Progress(m_maker.GetCounts().Entries(), m_maker.GetCounts().bytes);
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
        m_maker.GetRefused().clear();
        const RecordedEntry recorded = RecordedEntryOf(metadata);
        Make(entry, recorded, location, m_volumes.FindOther(original, location));
        if (entry.readSize)
            m_maker.GetRefused().emplace_back(
                "restored as it was read, with another size than in its record");
        m_maker.Count(path, recorded.type);
    } catch (const Krt::Exception::YError& error) {
        m_maker.Failed(shown, error);
    }
}

void RestoreRun::Finish()
{
    m_maker.GetTree().Finish();
    for (const auto& [path, matched] : m_paths) {
        if (!matched)
            m_report.EntryFailed(path, "The snapshot has no such entry");
    }
    m_maker.GetTree().Sync();
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
        m_maker.GetTree().MakeDirectory(location, recorded.attributes);
        return;
    }
    NewEntry made{.recorded = recorded, .location = location};
    made.first = FirstNameOf(entry);
    made.linkTarget = entry.linkTarget.value_or(recorded.linkTarget);
    if (entry.device)
        made.device = makedev(entry.device->major, entry.device->minor);
    made.writeContent = [&](const Krt::Util::YUnxHandle& file) {
        WriteContent(entry, recorded, file);
    };
    made.checkExisting = [&](const struct stat& existing) {
        CheckExisting(existing, otherVolume);
    };
    const std::optional<FileId> file = m_maker.Make(made);
    if (file && (entry.hardLinkGroup != 0 || m_hasSeveralPaths))
        Remember(entry, location, *file);
}

// Raises if the current entry must not replace the existing one.
void RestoreRun::CheckExisting(const struct stat& existing, const YString& otherVolume) const
{
    const bool isOwn = m_first && m_first->file == FileId(existing);
    KRT_RAISE_UNLESS(otherVolume.IsEmpty() || isOwn, ErrorCode::InvalidState,
                     "Not restored: the existing entry may be from the volume "
                         << otherVolume << ", which is restored into the same directory");
}

// The hard link that the current file has already, by the paths of its record or by its group.
const LinkedFile* RestoreRun::FirstNameOf(const SnapshotEntry& entry) const
{
    if (m_first)
        return &*m_first;
    const auto found = entry.hardLinkGroup != 0 ? m_linked.find(entry.hardLinkGroup) : m_linked.end();
    return found != m_linked.end() ? &found->second : nullptr;
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
        m_report.Progress(m_maker.GetCounts().Entries(), m_maker.GetCounts().bytes + writer.GetSize());
        KRT_RAISE_UNLESS(!IsInterrupted(), ErrorCode::InvalidState, "Interrupted");
    }
    writer.Finish();
    m_maker.GetCounts().bytes += writer.GetSize();
}

void RestoreRun::Remember(const SnapshotEntry& entry, const TargetLocation& location, const FileId& made)
{
    m_first.emplace(LinkedFile{location, made});
    if (entry.hardLinkGroup != 0)
        m_linked.insert_or_assign(entry.hardLinkGroup, *m_first);
}

} // namespace Agent
