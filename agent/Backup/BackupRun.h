// BackupRun: stores what a walk selects in a snapshot: a record of each entry, and deduplicated contents. An
// entry that fails is reported and the run continues; a store that fails ends the run with a StoreError.
#pragma once

#include "agent/Backup/HardLinks.h"
#include "agent/Run/Report.h"
#include "agent/Store/ObjectWriter.h"
#include "agent/Store/SnapshotWriter.h"
#include "agent/Walk/Walker.h"

#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YUnixFileMetadata.h"

#include <vector>

namespace Agent {

/// What a run did, for its summary.
struct BackupCounts : EntryCounts
{
    unsigned long long excluded = 0;
};

class BackupRun : public IWalkVisitor
{
public:
    /// All arguments must outlive the run. `verbose` reports each excluded path.
    BackupRun(StoreSession& session, SnapshotWriter& snapshot, Report& report, bool verbose);

    bool OnSelected(const WalkedEntry& entry) override;
    void OnExcluded(const Krt::File::YPath& path) override;
    void OnMountNotEntered(const Krt::File::YPath& path) override;
    void OnMountEntered(const Krt::File::YPath& path) override;
    void OnLinkTaken(const Krt::File::YPath& path) override;
    void OnStoreSkipped(const Krt::File::YPath& path) override;
    void OnFailed(const Krt::File::YPath& path, const Krt::YString& reason) override;
    bool IsCancelled() override;

    const BackupCounts& GetCounts() const { return m_counts; }

private:
    struct stat Open(const WalkedEntry& entry);
    void Capture(const WalkedEntry& entry, const struct stat& status,
                 const Backup::File::YUnixFileMetadata& metadata);
    void ReadContent(const WalkedEntry& entry, EntryFacts& facts);

    SnapshotWriter& m_snapshot;
    Report& m_report;
    bool m_verbose;
    ObjectWriter m_objects;
    HardLinks m_hardLinks;
    Backup::File::YFile m_file;
    std::vector<unsigned char> m_buffer;
    std::string m_record; // kept for its capacity
    BackupCounts m_counts;
};

} // namespace Agent
