// RestoreRun: restores the entries of a snapshot of a store below a target. An entry that fails, or that does
// not get all its attributes, is reported and counted as failed, and the run continues.
#pragma once

#include "agent/Restore/EntryMaker.h"
#include "agent/Restore/VolumeNames.h"
#include "agent/Store/ObjectReader.h"
#include "agent/Store/SnapshotReader.h"

#include <map>

namespace Agent {

class RestoreRun
{
public:
    /// Store and report outlive the run; `target` is open. Only entries at or below one of `paths` are
    /// restored, or all of them if there is none.
    RestoreRun(const Store& store, Krt::File::YDirectory target, std::vector<Krt::File::YPath> paths,
               Report& report);
    RestoreRun(const RestoreRun&) = delete;
    RestoreRun& operator=(const RestoreRun&) = delete;

    /// Restores one entry, if it is selected. If its record has several paths, the first selected one gets
    /// the content and the others become hard links to it. Raises TargetFull; entries that were restored
    /// before stay.
    void Restore(const SnapshotEntry& entry);
    /// Gives the directories their attributes, and reports paths that matched no entry as failed. Returns
    /// once all restored data is durable. Raises the operating system's error if it cannot be made durable.
    void Finish();
    /// The entries that were restored with all their attributes, and the bytes that were written.
    const EntryCounts& GetCounts() const { return m_maker.GetCounts(); }

private:
    void RestorePath(const SnapshotEntry& entry, Backup::File::YMetadataBase& metadata, unsigned long index);
    bool IsWanted(const Krt::File::YPath& path);
    void Make(const SnapshotEntry& entry, const RecordedEntry& recorded, const TargetLocation& location,
              const Krt::YString& otherVolume);
    void CheckExisting(const struct stat& existing, const Krt::YString& otherVolume) const;
    const LinkedFile* FirstNameOf(const SnapshotEntry& entry) const;
    void WriteContent(const SnapshotEntry& entry, const RecordedEntry& recorded,
                      const Krt::Util::YUnxHandle& file);
    void Remember(const SnapshotEntry& entry, const TargetLocation& location, const Krt::File::FileId& made);

    Report& m_report;
    EntryMaker m_maker;
    VolumeNames m_volumes;
    ObjectReader m_objects;
    std::vector<std::pair<Krt::File::YPath, bool>> m_paths; // true if an entry matched
    std::map<unsigned long long, LinkedFile> m_linked;      // by hard link group
    bool m_hasSeveralPaths = false;                         // of the current entry's record
    std::optional<LinkedFile> m_first;                      // the first of those paths that was restored
    unsigned long long m_number = 0;                        // of the current entry
};

} // namespace Agent
