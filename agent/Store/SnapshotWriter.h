// SnapshotWriter: writes one snapshot, an entry after the other, in constant memory. Nothing of it shows in
// the store before Finish.
#pragma once

#include "agent/Store/Snapshot.h"
#include "agent/Store/StoreSession.h"
#include "agent/Store/ZstdWriter.h"

namespace Agent {

class SnapshotWriter
{
public:
    /// The session outlives the writer.
    SnapshotWriter(StoreSession& session, const SnapshotHeader& header);
    ~SnapshotWriter();

    /// `record` is the text that StringifyTo gives. Raises InvalidArgument, with nothing written, if the
    /// entry is larger than a reader takes; a StoreError, as Finish does, if the store can't be written.
    void Add(std::string_view record, const EntryFacts& facts);
    /// Ends the snapshot with its counts, puts it and all objects of the session on disk, and gives it its
    /// name: the id. The last call.
    std::string Finish(unsigned long long bytes, unsigned long long failed);

private:
    void AppendLine();

    StoreSession& m_session;
    ZstdWriter m_compressor;
    Sha256 m_hash;
    std::string m_id;
    std::string m_line;
    unsigned long long m_entries = 0;
    bool m_finished = false;
    StoreSession::Temporary m_file; // made last, since nobody removes it if a later member fails
};

} // namespace Agent
