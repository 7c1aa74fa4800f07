// Blobs: the parts of which snapshots are made, many in a pack file.
#pragma once

#include "agent/Repository/Id.h"
#include "agent/Repository/Sealing.h"

#include "Krt/String/YString.h"

#include <algorithm>
#include <cstdint>

namespace Agent::Repo {

/// What a blob is.
enum class BlobType : unsigned char
{
    Data, ///< a part of a file's content
    Tree  ///< the entries of a directory
};

/// Bytes of a longer blob are in the memory of one thread at a time.
constexpr std::uint32_t LargeBlobSize = 64u << 20;
/// Bytes that a blob has at most, sealed or not. Chunks of files have 8 MiB at most.
constexpr std::uint32_t BlobSizeLimit(BlobType type)
{
    return type == BlobType::Tree ? 2u << 30 : 256u << 20;
}

/// Names a blob. Blobs of different types are different even if their ids are equal.
struct BlobHandle
{
    BlobType type = BlobType::Data;
    Id id;

    /// "data ID" or "tree ID", for messages.
    Krt::YString ToText() const
    {
        return Krt::YString(std::string_view((type == BlobType::Tree ? "tree " : "data ") + id.ToHex()));
    }

    friend auto operator<=>(const BlobHandle&, const BlobHandle&) = default;
};

/// For hash tables.
struct BlobHandleHash
{
    std::size_t operator()(const BlobHandle& handle) const
    {
        return IdHash()(handle.id) ^ static_cast<std::size_t>(handle.type);
    }
};

/// A blob in a pack.
struct PackedBlob
{
    BlobHandle handle;
    std::uint32_t offset = 0;      ///< of the sealed blob in the pack, bytes
    std::uint32_t length = 0;      ///< of the sealed blob, bytes, SealOverhead at least
    std::uint32_t plainLength = 0; ///< of the plaintext, bytes
    bool isCompressed = false;     ///< otherwise plainLength is length - SealOverhead

    /// Returns true if no writer makes such a blob, so that no memory is taken for it.
    bool IsTooLong() const { return std::max(length, plainLength) > BlobSizeLimit(handle.type); }

    friend bool operator==(const PackedBlob&, const PackedBlob&) = default;
};

} // namespace Agent::Repo
