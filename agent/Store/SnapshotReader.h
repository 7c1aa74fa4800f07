// SnapshotReader: reads one snapshot, an entry after the other, in constant memory. Damage raises
// InvalidState or InvalidArgument with the file and the line. A snapshot is proved only by its end, so a
// restore calls Verify before it believes an entry.
#pragma once

#include "agent/Store/Snapshot.h"
#include "agent/Store/Store.h"
#include "agent/Store/ZstdReader.h"

namespace Agent {

class SnapshotReader
{
public:
    /// `id` is one that Store::FindSnapshot gave; the store outlives the reader.
    SnapshotReader(const Store& store, const std::string& id);

    const SnapshotHeader& GetHeader() const { return m_header; }
    /// The trailer, found from the end of the file without reading what is before it. Proves nothing.
    SnapshotTrailer PeekTrailer() const;

    /// Reads the whole snapshot and checks digest and counts, without looking into the entries. Next then
    /// gives the first entry again.
    SnapshotTrailer Verify();
    /// The next entry; false at the end, which is checked as Verify does.
    bool Next(SnapshotEntry& entry);
    /// The same for the entry's line, without its end; valid until the next call.
    bool NextLine(std::string_view& line);
    /// From the first entry on again.
    void Rewind();

private:
    bool ReadLine(std::string_view& line);
    void CheckEnd(std::string_view trailer);
    template <class Content>
    Content Checked(Content (*read)(std::string_view), std::string_view line) const;
    [[noreturn]] void RaiseDamaged(const Krt::YString& reason) const;

    Krt::YString m_name; // of the file, for messages
    Krt::Util::YUnxHandle m_file;
    ZstdReader m_reader;
    Sha256 m_hash;
    std::string_view m_block; // what was decompressed and not yet taken
    std::string m_long;       // a line that reaches over the end of a block
    unsigned long long m_line = 0;
    unsigned long long m_entries = 0;
    SnapshotHeader m_header;
    SnapshotTrailer m_trailer; // once the end was reached
    bool m_ended = false;
};

} // namespace Agent
