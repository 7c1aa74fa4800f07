// RestoreRun: makes the entries of a snapshot anew below a target. Each is made under a temporary name and
// takes its place once it is whole, so a failure leaves what stood there. An entry that fails, or that the
// system does not let have all its attributes, is reported and the run goes on.
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

/// The target has no space left, which ends a restore. Not a YError, so that it is not taken for the failure
/// of one entry.
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

    /// Restores one entry, if it is wanted. Of several paths in its record, the first wanted one gets the
    /// content and the others become further names of that file. Raises TargetFull; what was restored before
    /// stays.
    void Restore(const SnapshotEntry& entry);
    /// Ends the directories. Paths that nothing in the snapshot matched are reported as failed. Returns once
    /// all that was restored is on the medium, and raises the operating system's error if it can't get there.
    void Finish();
    const EntryCounts& GetCounts() const { return m_counts; }

private:
    // The first name of a file that was made with further ones to come.
    struct LinkedFile
    {
        Place place;
        Krt::File::FileId file;
    };

    void RestorePath(const SnapshotEntry& entry, Backup::File::YMetadataBase& metadata, unsigned long index);
    bool IsWanted(const Krt::File::YPath& path);
    void Make(const SnapshotEntry& entry, const RecordedEntry& recorded, const Place& place,
              const Krt::YString& otherVolume);
    void RemoveTemporary(const Krt::File::YDirectory& parent);
    void CheckStanding(const Krt::File::YDirectory& parent, const Krt::YString& name,
                       const Krt::YString& otherVolume) const;
    const LinkedFile* FirstNameOf(const SnapshotEntry& entry) const;
    bool MakeHardLink(const LinkedFile* first, const Place& place, const Krt::YString& temporary);
    void MakeFile(const SnapshotEntry& entry, const RecordedEntry& recorded,
                  const Krt::File::YDirectory& parent, Krt::File::FileId* made);
    void MakeOther(const SnapshotEntry& entry, const RecordedEntry& recorded, const Staging& staging);
    void WriteContent(const SnapshotEntry& entry, const RecordedEntry& recorded,
                      const Krt::Util::YUnxHandle& file);
    void Remember(const SnapshotEntry& entry, const Place& place, const Krt::File::FileId& made);
    void Failed(const Krt::YString& path, const Krt::Exception::YError& error);

    TargetTree m_tree;
    VolumeNames m_volumes;
    Report& m_report;
    ObjectReader m_objects;
    std::vector<std::pair<Krt::File::YPath, bool>> m_paths; // and whether something matched
    std::map<unsigned long long, LinkedFile> m_linked;      // by hard link group
    bool m_hasSeveralPaths = false;                         // the record of the current entry
    std::optional<LinkedFile> m_first;                      // of those paths, the one that was made
    std::vector<Krt::YString> m_refused;                    // of the current entry
    Krt::YString m_temporary;        // what an entry is called until it takes its place
    unsigned long long m_number = 0; // of the current entry
    EntryCounts m_counts;
};

} // namespace Agent
