// Content-defined chunking: content is cut where the digest of the last 64 bytes has a certain form. Equal
// runs of bytes are so cut alike wherever they are, and stored once. Repositories differ in the polynomial of
// the digest, so that the lengths of chunks do not betray known content.
#pragma once

#include "agent/Repository/Bytes.h"
#include "agent/Repository/Polynomial.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Agent::Repo {

/// What chunking by a polynomial needs, computed once. Any number of threads may use it at once.
class ChunkerTables
{
public:
    /// The polynomial is that of a repository: irreducible, of the degree ChunkerDegree.
    explicit ChunkerTables(Polynomial polynomial);

private:
    friend class Chunker;

    static constexpr std::size_t WindowSize = 64; // bytes that the digest is of

    using Table = std::array<std::uint64_t, 256>; // by a byte

    // What a byte adds to the digest in the step with which it leaves the window.
    Table m_out;
    // What the uppermost byte of the digest adds to it in a step, and the bits that it leaves above.
    Table m_top;
};

/// Finds the ends of chunks. One thread at a time.
class Chunker
{
public:
    static constexpr std::size_t MinSize = 512 << 10; ///< bytes of a chunk, but for the last one of a file
    static constexpr std::size_t MaxSize = 8 << 20;   ///< bytes of a chunk

    /// The tables outlive the chunker.
    explicit Chunker(const ChunkerTables& tables) : m_tables(tables) {}

    /// Begins with the first chunk of another file.
    void Reset();
    /// Looks for the end of the current chunk in bytes that continue it. Returns the number of bytes of
    /// `data` that belong to the chunk. `isCut` becomes true if the chunk ends with them, and the next call
    /// begins the next chunk; otherwise all of `data` belongs to the chunk. What a file has after the last
    /// cut is its last chunk.
    std::size_t Feed(ByteView data, bool& isCut);

private:
    static constexpr std::size_t WindowSize = ChunkerTables::WindowSize;

    std::uint64_t Step(std::uint64_t digest, unsigned char out, unsigned char in) const;
    std::uint64_t DigestAt(const unsigned char* end) const;
    std::size_t FindEnd(const unsigned char* data, std::size_t begin, std::size_t end,
                        std::uint64_t& digest) const;
    std::size_t FindEndInStrip(const unsigned char* data) const;
    std::size_t Slide(ByteView data, bool& isCut);

    const ChunkerTables& m_tables;
    std::size_t m_length = 0;   // bytes of the chunk so far
    std::uint64_t m_digest = 0; // of the window
    // The last bytes of the chunk, each at its offset in the chunk modulo the size. What is not hashed, at
    // the beginning of a chunk, counts as zeros.
    std::array<unsigned char, WindowSize> m_window{};
};

} // namespace Agent::Repo
