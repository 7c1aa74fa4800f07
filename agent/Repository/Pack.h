// Pack files: sealed blobs without gaps, then their sealed header, then the length of that (4 bytes, little
// endian). The header has an entry for each blob, in the order of their positions.
#pragma once

#include "agent/Repository/Blob.h"
#include "agent/Repository/Pages.h"

#include <vector>

namespace Agent::Repo {

/// Bytes of the sealed header that are read at most.
constexpr std::uint32_t PackHeaderLimit = 16 << 20;
/// Bytes of the header's entry for a blob.
constexpr std::uint32_t PackEntrySize(bool isCompressed)
{
    return isCompressed ? 41 : 37;
}
/// Bytes of a pack that are neither blobs nor entries.
constexpr std::uint32_t PackOverhead = SealOverhead + 4;

/// Reads a header that was opened. `blobBytes` is the length of all sealed blobs: the place where the sealed
/// header begins. Raises Damaged with the offset in the header if an entry is cut off, has an unknown type
/// or an impossible length, or if the lengths do not add up to `blobBytes`.
std::vector<PackedBlob> ParsePackHeader(ByteView header, std::uint64_t blobBytes);

/// Where the sealed header of a pack is. `tail` is the last 4 bytes of the file or more, `size` the size of
/// the file in bytes. Returns the length of the sealed header in bytes. Raises Damaged if that is impossible.
std::uint32_t ReadPackHeaderLength(ByteView tail, std::uint64_t size);

/// Builds a pack in memory. One thread at a time.
class PackWriter
{
public:
    /// The key outlives the writer. A pack that has more than `expected` bytes may be copied as it grows.
    explicit PackWriter(const Key& key, std::size_t expected = 1 << 20) : m_key(key), m_expected(expected) {}

    /// Adds a blob, which it compresses and seals, and returns the number of bytes that the pack grew by.
    /// The caller has computed the id of the plaintext. Raises InvalidArgument if the pack would exceed the
    /// format's limits; the pack is unchanged then.
    std::uint32_t Add(const BlobHandle& handle, ByteView plaintext, bool compress = true);
    /// Adds a blob that was sealed before. Its offset and length are set here. See Add.
    std::uint32_t AddSealed(PackedBlob blob, ByteView sealed);
    /// Bytes of the blobs so far.
    std::uint64_t Size() const { return m_size; }
    /// Bytes of the pack if it was finished now.
    std::uint64_t FinishedSize() const { return m_size + m_headerSize + PackOverhead; }
    bool IsEmpty() const { return m_blobs.empty(); }
    const std::vector<PackedBlob>& GetBlobs() const { return m_blobs; }

    /// Appends the header, and returns the bytes of the file, whose id is their SHA-256. The writer has
    /// nothing more to give until Clear.
    ByteView Finish();
    /// Begins the next pack. Memory of `expected` bytes is kept.
    void Clear();

private:
    void Reserve(std::uint64_t size);

    const Key& m_key;
    const std::size_t m_expected;
    Pages m_bytes;
    std::uint64_t m_size = 0; // bytes that are used
    Bytes m_compressed;       // of one blob
    Bytes m_sealed;           // one blob
    std::vector<PackedBlob> m_blobs;
    std::uint64_t m_headerSize = 0;
};

} // namespace Agent::Repo
