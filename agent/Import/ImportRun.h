// ImportRun: turns records that were kept elsewhere into a snapshot, with contents that lie in a folder. A
// record that fails is reported and the run goes on; a store that fails ends it by a StoreError.
#pragma once

#include "agent/Import/ContentFolder.h"
#include "agent/Restore/RecordedEntry.h"
#include "agent/Run/EntryCounts.h"
#include "agent/Run/Report.h"
#include "agent/Store/ObjectWriter.h"
#include "agent/Store/SnapshotWriter.h"

#include <vector>

namespace Agent {

class ImportRun
{
public:
    /// Session, snapshot and report outlive the run.
    ImportRun(StoreSession& session, SnapshotWriter& snapshot, ContentFolder contents, Report& report);

    /// Stores one record, with its content if it is one of a file. Without that, it is reported and not
    /// stored; a content of another size than the record's is reported and stored. `line` is where the record
    /// comes from, for one that has no path. Raises if the user interrupts the program.
    void Import(Backup::File::YMetadataBase& metadata, unsigned long long line);
    const EntryCounts& GetCounts() const { return m_counts; }

private:
    RecordedEntry Complete(Backup::File::YMetadataBase& metadata, EntryFacts& facts);
    bool ReadContent(const Krt::Util::YUnxHandle& file, unsigned long long recordedSize, EntryFacts& facts);

    SnapshotWriter& m_snapshot;
    ContentFolder m_contents;
    Report& m_report;
    ObjectWriter m_objects;
    std::vector<unsigned char> m_buffer;
    std::string m_record; // kept for its memory
    EntryCounts m_counts;
};

} // namespace Agent
