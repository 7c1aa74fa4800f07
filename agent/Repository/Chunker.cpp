#include "agent/Repository/Chunker.h"

#include <algorithm>

namespace Agent::Repo {

namespace {

constexpr std::uint64_t CutMask = (1 << 20) - 1; // the bits of the digest that are 0 at a cut
constexpr std::uint64_t DigestMask = (std::uint64_t(1) << ChunkerDegree) - 1;
constexpr int TopShift = ChunkerDegree - 8; // from the digest to its uppermost byte

} // namespace

ChunkerTables::ChunkerTables(Polynomial polynomial)
{
    constexpr int BitsOfWindow = 8 * 64;
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
    fill(m_outOne, BitsOfWindow);
    fill(m_outTwo, BitsOfWindow + 8);
    fill(m_topOne, ChunkerDegree);
    fill(m_topTwo, ChunkerDegree + 8);
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
//
// A step takes in a byte: the digest is multiplied by x^8, and the byte is added that comes, and the one that
// leaves. Each step waits for the table's value of the step before. So two steps are one where that is
// possible, by the tables of two steps; the digest between them is only looked at.
std::size_t Chunker::Slide(ByteView data, bool& isCut)
{
    const std::size_t limit = std::min(data.size(), MaxSize - m_length);
    const ChunkerTables& tables = m_tables;
    std::uint64_t digest = m_digest;
    std::size_t at = 0;
    bool isAtEnd = false;
    const auto step = [&](unsigned char old) {
        return (digest << 8 & DigestMask) ^ tables.m_topOne[digest >> TopShift] ^ tables.m_outOne[old] ^
               data[at];
    };
    const auto isEnd = [](std::uint64_t candidate) {
        return (candidate & CutMask) == 0;
    };
    // The window is not full of this call's bytes yet.
    while (at < std::min(limit, WindowSize) && !isAtEnd) {
        digest = step(m_window[(m_length + at) % WindowSize]);
        ++at;
        isAtEnd = m_length + at >= MinSize && isEnd(digest);
    }
    // By now the chunk has its least length.
    while (at + 1 < limit && !isAtEnd) {
        const unsigned char* const old = &data[at - WindowSize];
        const std::uint64_t between = step(old[0]);
        if (isEnd(between)) {
            ++at;
            isAtEnd = true;
            break;
        }
        digest = (digest << 16 & DigestMask) ^ tables.m_topTwo[digest >> TopShift] ^
                 tables.m_topOne[digest >> (TopShift - 8) & 0xFF] ^ tables.m_outTwo[old[0]] ^
                 tables.m_outOne[old[1]] ^ (std::uint64_t(data[at]) << 8) ^ data[at + 1];
        at += 2;
        isAtEnd = isEnd(digest);
    }
    if (at < limit && !isAtEnd) {
        digest = step(data[at - WindowSize]);
        ++at;
        isAtEnd = isEnd(digest);
    }
    m_digest = digest;
    m_length += at;
    isCut = isAtEnd || m_length == MaxSize;
    for (std::size_t i = at - std::min(at, WindowSize); i < at; ++i)
        m_window[(m_length - at + i) % WindowSize] = data[i];
    return at;
}

} // namespace Agent::Repo
