// RestoreRun: restores the entries of a snapshot below a target. Each is created under a temporary name and
// renamed once it is complete, so a failure leaves the entry that it was to replace. An entry that fails, or
// that does not get all its attributes, is reported and counted as failed, and the run continues.
#pragma once

#include "agent/Restore/RecordedEntry.h"
#include "agent/Restore/TargetTree.h"
#include "agent/Restore/VolumeNames.h"
#include "agent/Run/Report.h"
#include "agent/Store/ObjectReader.h"
#include "agent/Store/SnapshotReader.h"

#include "Krt/File/Unix/Status.h"

#include <map>
#include <stdexcept>

namespace Agent {

/// The target has no space left, which ends a restore. It is not a YError, so that it is not handled as the
/// failure of one entry.
class TargetFull : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

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
    const EntryCounts& GetCounts() const { return m_counts; }

private:
    // The first hard link of a file, when others may follow.
    struct LinkedFile
    {
        TargetLocation location;
        Krt::File::FileId file;
    };

    void RestorePath(const SnapshotEntry& entry, Backup::File::YMetadataBase& metadata, unsigned long index);
    bool IsWanted(const Krt::File::YPath& path);
    void Make(const SnapshotEntry& entry, const RecordedEntry& recorded, const TargetLocation& location,
              const Krt::YString& otherVolume);
    void RemoveTemporary(const Krt::File::YDirectory& parent);
    void CheckExisting(const Krt::File::YDirectory& parent, const Krt::YString& name,
                       const Krt::YString& otherVolume) const;
    const LinkedFile* FirstNameOf(const SnapshotEntry& entry) const;
    bool MakeHardLink(const LinkedFile* first, const TargetLocation& location, const Krt::YString& temporary);
    void MakeFile(const SnapshotEntry& entry, const RecordedEntry& recorded,
                  const Krt::File::YDirectory& parent, Krt::File::FileId* made);
    void MakeOther(const SnapshotEntry& entry, const RecordedEntry& recorded, const Staging& staging);
    void WriteContent(const SnapshotEntry& entry, const RecordedEntry& recorded,
                      const Krt::Util::YUnxHandle& file);
    void Remember(const SnapshotEntry& entry, const TargetLocation& location, const Krt::File::FileId& made);
    void Failed(const Krt::YString& path, const Krt::Exception::YError& error);

    Report& m_report;
    EntryCounts m_counts; // of completely restored entries; a directory counts until it is refused attributes
    TargetTree m_tree;    // reports refused attributes also from its destructor
    VolumeNames m_volumes;
    ObjectReader m_objects;
    std::vector<std::pair<Krt::File::YPath, bool>> m_paths; // true if an entry matched
    std::map<unsigned long long, LinkedFile> m_linked;      // by hard link group
    bool m_hasSeveralPaths = false;                         // of the current entry's record
    std::optional<LinkedFile> m_first;                      // the first of those paths that was restored
    std::vector<Krt::YString> m_refused;                    // reasons for what the current entry did not get
    Krt::YString m_temporary;                               // the name of an entry until it is complete
    unsigned long long m_number = 0;                        // of the current entry
};

} // namespace Agent
