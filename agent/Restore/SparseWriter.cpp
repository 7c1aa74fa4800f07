#include "agent/Restore/SparseWriter.h"

#include "Krt/File/File.h"

#include <algorithm>
#include <cstring>

namespace Agent {

namespace {

// The unit that is either written or left out. A smaller hole would hardly save blocks of a file system.
constexpr std::size_t Piece = 64 * 1024;

bool IsZero(std::span<const unsigned char> data)
{
    // The first byte is zero, and each byte equals the next one. memcmp is the fastest loop.
    return data.empty() || (data[0] == 0 && std::memcmp(data.data(), data.data() + 1, data.size() - 1) == 0);
}

} // namespace

void SparseWriter::Append(std::span<const unsigned char> data)
{
    std::size_t begin = 0; // of the data to be written
    std::size_t at = 0;
    while (at < data.size()) {
        const std::size_t size = std::min(Piece, data.size() - at);
        if (size == Piece && IsZero(data.subspan(at, size))) {
            Write(data.subspan(begin, at - begin), m_size + begin);
            begin = at + size;
        }
        at += size;
    }
    Write(data.subspan(begin), m_size + begin);
    m_size += data.size();
    if (begin != data.size())
        m_written = m_size;
}

void SparseWriter::Write(std::span<const unsigned char> data, unsigned long long offset) const
{
    if (!data.empty())
        Krt::File::Write(m_file, offset, data.size(), data.data());
}

void SparseWriter::Finish()
{
    if (m_written != m_size)
        Krt::File::SetSize(m_file, m_size);
}

} // namespace Agent
