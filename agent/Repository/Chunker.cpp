#include "agent/Repository/Chunker.h"

#include <algorithm>

namespace Agent::Repo {

namespace {

constexpr std::uint64_t CutMask = (1 << 20) - 1; // the bits of the digest that are 0 at a cut
constexpr int TopShift = ChunkerDegree - 8;      // from the digest to its uppermost 8 bits

} // namespace

ChunkerTables::ChunkerTables(Polynomial polynomial)
{
    constexpr int BitsBehind = 8 * (64 - 1); // of the window, after its oldest byte
    Polynomial power = 1;
    for (int i = 0; i < BitsBehind; ++i)
        power = Modulo(power << 1, polynomial);
    for (Polynomial byte = 0; byte < m_out.size(); ++byte) {
        const Polynomial top = byte << ChunkerDegree;
        m_out[byte] = MultiplyModulo(byte, power, polynomial);
        m_mod[byte] = Modulo(top, polynomial) ^ top;
    }
}

void Chunker::Reset()
{
    m_length = 0;
    m_digest = 0;
    m_window.fill(0);
}

std::size_t Chunker::Feed(ByteView data, bool& isCut)
{
    constexpr std::size_t Unhashed = MinSize - WindowSize;
    isCut = false;
    std::size_t used = 0;
    if (m_length < Unhashed) {
        used = std::min(Unhashed - m_length, data.size());
        m_length += used;
    }
    used += Slide(data.subspan(used), isCut);
    if (isCut)
        Reset();
    return used;
}

// Feeds bytes that are in or after the first window that counts. Those of earlier calls that are still in the
// window come from m_window, those of this call from `data`.
std::size_t Chunker::Slide(ByteView data, bool& isCut)
{
    const std::size_t limit = std::min(data.size(), MaxSize - m_length);
    const std::uint64_t* const out = m_tables.m_out.data();
    const std::uint64_t* const mod = m_tables.m_mod.data();
    std::uint64_t digest = m_digest;
    std::size_t length = m_length;
    std::size_t at = 0;
    bool isAtEnd = false;
    const auto slide = [&](unsigned char old) {
        digest ^= out[old];
        digest = (digest << 8 | data[at++]) ^ mod[digest >> TopShift];
        ++length;
    };
    // The window is not full of this call's bytes yet.
    while (at < std::min(limit, WindowSize) && !isAtEnd) {
        slide(m_window[length % WindowSize]);
        isAtEnd = length >= MinSize && (digest & CutMask) == 0;
    }
    // By now the chunk has its least length.
    while (at < limit && !isAtEnd) {
        slide(data[at - WindowSize]);
        isAtEnd = (digest & CutMask) == 0;
    }
    isCut = isAtEnd || length == MaxSize;
    m_digest = digest;
    m_length = length;
    const std::size_t kept = std::min(at, WindowSize);
    for (std::size_t i = at - kept; i < at; ++i)
        m_window[(length - at + i) % WindowSize] = data[i];
    return at;
}

} // namespace Agent::Repo
