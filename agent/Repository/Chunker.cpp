#include "agent/Repository/Chunker.h"

#include <algorithm>
#include <cstddef>
#include <utility>

namespace Agent::Repo {

namespace {

constexpr std::uint64_t CutMask = (1 << 20) - 1; // the bits of the digest that are 0 at a cut
constexpr int TopShift = ChunkerDegree - 8;      // from the digest to its uppermost byte
// A step waits for the table's value of the step before, so that several lanes of data, whose steps do not
// wait for each other, take hardly longer than one.
constexpr std::size_t Lanes = 6;
constexpr std::size_t LaneSize = 8 << 10; // bytes; those beyond a cut are looked at in vain
constexpr std::size_t StripSize = Lanes * LaneSize;

bool IsEnd(std::uint64_t digest)
{
    return (digest & CutMask) == 0;
}

} // namespace

ChunkerTables::ChunkerTables(Polynomial polynomial)
{
    constexpr int BitsOfWindow = 8 * WindowSize;
    const auto powerOf = [polynomial](int exponent) {
        Polynomial power = 1;
        for (int i = 0; i < exponent; ++i)
            power = Modulo(power << 1, polynomial);
        return power;
    };
    const auto fill = [&](Table& table, int exponent) {
        const Polynomial power = powerOf(exponent);
        for (Polynomial byte = 0; byte < table.size(); ++byte)
            table[byte] = MultiplyModulo(byte, power, polynomial);
    };
    fill(m_out, BitsOfWindow);
    fill(m_top, ChunkerDegree);
    for (std::uint64_t byte = 0; byte < m_top.size(); ++byte)
        m_top[byte] ^= byte << ChunkerDegree;
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

// A step takes in a byte: the digest is multiplied by x^8, and the byte is added that comes, and the one that
// leaves.
inline std::uint64_t Chunker::Step(std::uint64_t digest, unsigned char out, unsigned char in) const
{
    return (digest << 8) ^ m_tables.m_top[digest >> TopShift] ^ m_tables.m_out[out] ^ in;
}

// The digest of the window that ends there.
std::uint64_t Chunker::DigestAt(const unsigned char* end) const
{
    std::uint64_t digest = 0;
    for (const unsigned char* byte = end - WindowSize; byte != end; ++byte)
        digest = Step(digest, 0, *byte);
    return digest;
}

// Returns the position after the first byte from `begin` on with which a chunk ends; 0 if none before `end`
// does. The window before `begin` is in `data`, and `digest` is its digest, which then becomes that of the
// last byte.
std::size_t Chunker::FindEnd(const unsigned char* data, std::size_t begin, std::size_t end,
                             std::uint64_t& digest) const
{
    for (std::size_t at = begin; at < end; ++at) {
        const unsigned char* const in = data + at;
        digest = Step(digest, *(in - WindowSize), *in);
        if (IsEnd(digest))
            return at + 1;
    }
    return 0;
}

// FindEnd of a strip, before which a window is in `data`.
std::size_t Chunker::FindEndInStrip(const unsigned char* data) const
{
    std::array<std::uint64_t, Lanes> digests;
    for (std::size_t lane = 0; lane < Lanes; ++lane)
        digests[lane] = DigestAt(data + lane * LaneSize);
    // Not a loop, so that the digests stay in registers.
    const auto step = [&]<std::size_t... Lane>(std::size_t at, std::index_sequence<Lane...>)
    {
        ((digests[Lane] = Step(digests[Lane],
                               data[static_cast<std::ptrdiff_t>(Lane * LaneSize + at) -
                                    static_cast<std::ptrdiff_t>(WindowSize)],
                               data[Lane * LaneSize + at])),
         ...);
        return (IsEnd(digests[Lane]) || ...);
    };
    for (std::size_t at = 0; at < LaneSize; ++at) {
        if (!step(at, std::make_index_sequence<Lanes>()))
            continue;
        // In the lanes before it, there may be an end at a later position of the lane.
        for (std::size_t lane = 0; lane < Lanes; ++lane) {
            const std::size_t begin = lane * LaneSize + at + 1;
            if (IsEnd(digests[lane]))
                return begin;
            if (const std::size_t found = FindEnd(data, begin, (lane + 1) * LaneSize, digests[lane]))
                return found;
        }
    }
    return 0;
}

// Feeds bytes that are in or after the first window that counts. Those of earlier calls that are still in the
// window come from m_window, those of this call from `data`.
std::size_t Chunker::Slide(ByteView data, bool& isCut)
{
    const std::size_t limit = std::min(data.size(), MaxSize - m_length);
    std::uint64_t digest = m_digest;
    std::size_t at = 0;
    bool isAtEnd = false;
    // The window is not full of this call's bytes yet, and the chunk may be below its least size.
    while (at < std::min(limit, WindowSize) && !isAtEnd) {
        digest = Step(digest, m_window[(m_length + at) % WindowSize], data[at]);
        ++at;
        isAtEnd = m_length + at >= MinSize && IsEnd(digest);
    }
    // If there are more bytes, the window is full of this call's, and the chunk has its least size.
    const bool hasStrips = !isAtEnd && limit - at >= StripSize;
    while (!isAtEnd && limit - at >= StripSize) {
        const std::size_t found = FindEndInStrip(&data[at]);
        isAtEnd = found != 0;
        at += isAtEnd ? found : StripSize;
    }
    if (!isAtEnd) {
        if (hasStrips)
            digest = DigestAt(data.data() + at);
        const std::size_t found = FindEnd(data.data(), at, limit, digest);
        isAtEnd = found != 0;
        at = isAtEnd ? found : limit;
    }
    m_digest = digest;
    m_length += at;
    isCut = isAtEnd || m_length == MaxSize;
    for (std::size_t i = at - std::min(at, WindowSize); i < at; ++i)
        m_window[(m_length - at + i) % WindowSize] = data[i];
    return at;
}

} // namespace Agent::Repo
