// RestoreRun: makes the entries of a snapshot anew below a target. Each is made under a temporary name and
// takes its place once it is whole, so a failure leaves what stood there. An entry that fails, or that the
// system does not let have all its attributes, is reported and the run goes on.
#pragma once

#include "agent/Cli/Report.h"
#include "agent/Restore/TargetTree.h"
#include "agent/Store/ObjectReader.h"
#include "agent/Store/SnapshotReader.h"

#include <map>

namespace Agent {

/// What a run made, for its summary.
struct RestoreCounts
{
    unsigned long long files = 0;
    unsigned long long directories = 0;
    unsigned long long links = 0;
    unsigned long long others = 0;
    unsigned long long bytes = 0; ///< of contents
    unsigned long long Entries() const { return files + directories + links + others; }
};

class RestoreRun
{
public:
    /// Store and report outlive the run; `target` is open. Only entries at or below one of `paths` are
    /// restored, or all of them if there is none.
    RestoreRun(const Store& store, Krt::File::YDirectory target, std::vector<Krt::File::YPath> paths,
               Report& report);

    /// Restores one entry, if it is wanted.
    void Restore(const SnapshotEntry& entry);
    /// Ends the directories. Paths that nothing in the snapshot matched are reported as failed.
    void Finish();
    const RestoreCounts& GetCounts() const { return m_counts; }

private:
    // The first name of a file that was made with further ones to come.
    struct LinkedFile
    {
        Place place;
        dev_t device;
        ino_t inode;
    };
    using Metadata = Backup::File::YUnixFileMetadata;

    bool IsWanted(const Krt::File::YPath& path);
    void Make(const SnapshotEntry& entry, const Metadata& metadata, const Place& place);
    bool MakeHardLink(const SnapshotEntry& entry, const Place& place, const Krt::YString& temporary);
    void MakeFile(const SnapshotEntry& entry, const Metadata& metadata, const Krt::File::YDirectory& parent,
                  const Krt::YString& name);
    void MakeOther(const SnapshotEntry& entry, const Metadata& metadata, const Krt::File::YDirectory& parent,
                   const Krt::YString& name);
    void WriteContent(const SnapshotEntry& entry, const Metadata& metadata,
                      const Krt::Util::YUnxHandle& file);
    void Remember(const SnapshotEntry& entry, const Place& place);
    void Count(unsigned int mode);

    TargetTree m_tree;
    Report& m_report;
    ObjectReader m_objects;
    std::vector<std::pair<Krt::File::YPath, bool>> m_paths; // and whether something matched
    std::map<unsigned long long, LinkedFile> m_linked;      // by hard link group
    std::vector<Krt::YString> m_refused;                    // of the current entry
    Krt::YString m_temporary;
    RestoreCounts m_counts;
};

} // namespace Agent
