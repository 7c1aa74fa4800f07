// Blobs of a pack, read in the order of their positions, and copied to new packs.
#pragma once

#include "agent/Repository/BlobSaver.h"

#include <functional>
#include <vector>

namespace Agent {

/// Which blobs are compressed again, instead of being copied as they are.
enum class Recompress
{
    Trees, ///< trees that are not compressed
    All    ///< all that is not compressed
};

/// Called for a blob that was read and verified, with its bytes as they are sealed, and decrypted.
using GoodBlob =
    std::function<void(const Repo::PackedBlob& blob, Repo::ByteView sealed, const Repo::Bytes& plaintext)>;
/// Called for a blob that can't be read at its place.
using BadBlob = std::function<void(const Repo::PackedBlob& blob, const Repo::RepositoryError& error)>;

/// Reads and verifies blobs of a pack. Neighbouring ones are read at once, in parts of up to 16 MiB. Any
/// thread. Raises InvalidState if the user interrupts, and what the calls raise.
void ReadBlobs(const Repo::Repository& repository, const Repo::Id& pack, std::vector<Repo::PackedBlob> blobs,
               const GoodBlob& onGood, const BadBlob& onBad);

/// Does ReadBlobs, and gives the blobs to the saver.
void CopyBlobs(const Repo::Repository& repository, const Repo::Id& pack, std::vector<Repo::PackedBlob> blobs,
               Recompress recompress, Repo::BlobSaver& saver, const BadBlob& onBad);

} // namespace Agent
