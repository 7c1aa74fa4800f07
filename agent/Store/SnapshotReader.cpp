#include "agent/Store/SnapshotReader.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"

#include <algorithm>

namespace Agent {

using Krt::YString;

// What reading a line raises gets the file and the line.
template <class Content>
Content SnapshotReader::Checked(Content (*read)(std::string_view), std::string_view line) const
{
    try {
        return read(line);
    } catch (const Krt::Exception::YError& error) {
        RaiseDamaged(error.GetMessage());
    }
}

SnapshotReader::SnapshotReader(const Store& store, const std::string& id)
    : m_name(("Snapshot " + id).c_str()), m_file(store.GetSnapshots().OpenFile(YString(id.c_str())))
{
    Rewind();
}

SnapshotTrailer SnapshotReader::PeekTrailer() const
{
    const auto size = static_cast<unsigned long long>(Krt::File::Stat(m_file).st_size);
    TrailerLocator locator{};
    std::optional<unsigned long long> offset;
    if (size >= locator.size()) {
        Krt::File::Read(m_file, size - locator.size(), locator.size(), locator.data());
        offset = ReadTrailerLocator(locator);
    }
    KRT_RAISE_UNLESS(offset && *offset < size, Krt::ErrorCode::InvalidState,
                     m_name << " is damaged: its end is missing");
    ZstdReader reader;
    reader.Begin(m_file, m_name, *offset);
    const auto block = reader.Next();
    const std::string_view text(reinterpret_cast<const char*>(block.data()), block.size());
    KRT_RAISE_UNLESS(IsTrailer(text), Krt::ErrorCode::InvalidState,
                     m_name << " is damaged: its end is missing");
    return ReadTrailer(text.substr(0, text.find('\n')));
}

SnapshotTrailer SnapshotReader::Verify()
{
    Rewind();
    std::string_view line;
    while (NextLine(line)) {
    }
    const SnapshotTrailer trailer = m_trailer;
    Rewind();
    return trailer;
}

bool SnapshotReader::Next(SnapshotEntry& entry)
{
    std::string_view line;
    if (!NextLine(line))
        return false;
    entry = Checked(ReadEntry, line);
    return true;
}

bool SnapshotReader::NextLine(std::string_view& line)
{
    if (m_ended)
        return false;
    if (!ReadLine(line))
        RaiseDamaged("the file ends before the snapshot does");
    if (IsTrailer(line)) {
        CheckEnd(line);
        return false;
    }
    m_hash.Add(line.data(), line.size() + 1);
    ++m_entries;
    return true;
}

void SnapshotReader::Rewind()
{
    m_reader.Begin(m_file, m_name);
    m_hash.Begin();
    m_block = {};
    m_line = 0;
    m_entries = 0;
    m_ended = false;
    std::string_view line;
    if (!ReadLine(line))
        RaiseDamaged("the file is empty");
    m_header = Checked(ReadHeader, line);
    m_hash.Add(line.data(), line.size() + 1);
}

// A line end stands behind the line that this gives.
bool SnapshotReader::ReadLine(std::string_view& line)
{
    ++m_line;
    m_long.clear();
    for (;;) {
        const std::size_t end = m_block.find('\n');
        if (m_long.size() + std::min(end, m_block.size()) >= SnapshotLineLimit)
            RaiseDamaged("the line is too long");
        if (end != std::string_view::npos && m_long.empty()) {
            line = m_block.substr(0, end);
            m_block.remove_prefix(end + 1);
            return true;
        }
        if (end != std::string_view::npos) {
            m_long.append(m_block, 0, end + 1);
            m_block.remove_prefix(end + 1);
            line = std::string_view(m_long).substr(0, m_long.size() - 1);
            return true;
        }
        m_long.append(m_block);
        const auto block = m_reader.Next();
        m_block = std::string_view(reinterpret_cast<const char*>(block.data()), block.size());
        if (m_block.empty() && !m_long.empty())
            RaiseDamaged("the line is cut off");
        if (m_block.empty())
            return false;
    }
}

void SnapshotReader::CheckEnd(std::string_view trailer)
{
    m_trailer = Checked(ReadTrailer, trailer);
    if (m_trailer.entries != m_entries)
        RaiseDamaged("the number of entries is another than the snapshot tells");
    if (m_trailer.digest != m_hash.End())
        RaiseDamaged("the lines before have another digest than the snapshot tells");
    std::string_view more;
    if (ReadLine(more))
        RaiseDamaged("the file goes on behind the snapshot's end");
    m_ended = true;
}

void SnapshotReader::RaiseDamaged(const YString& reason) const
{
    KRT_RAISE(Krt::ErrorCode::InvalidState, m_name << " is damaged at line " << m_line << ": " << reason);
}

} // namespace Agent
