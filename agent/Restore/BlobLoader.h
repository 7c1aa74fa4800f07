// BlobLoader: loads the data blobs that a part of a restore needs. They are sorted by pack and offset, and
// neighbouring ones are read at once; threads verify and decompress them. Blobs that were used last are kept,
// since parts of a restore that follow each other often have some in common.
#pragma once

#include "agent/Repository/Repository.h"

#include <exception>
#include <future>
#include <list>
#include <memory>
#include <unordered_map>
#include <vector>

namespace Agent {

/// Bytes of content that a restore loads at once, about.
constexpr std::uint64_t LoadedBytes = 16 << 20;

/// A blob, or why it can't be loaded.
struct LoadedBlob
{
    std::shared_ptr<const void> memory; ///< of the content; null after a failure
    Repo::ByteView content;             ///< valid as long as the memory
    std::exception_ptr failure;         ///< a RepositoryError
};

using LoadedBlobs = std::unordered_map<Repo::Id, LoadedBlob, Repo::IdHash>;

class BlobLoader
{
public:
    /// The repository outlives the loader. Its index is loaded. There is one thread at least. Of the blobs
    /// that were loaded last, `keptBytes` are kept.
    BlobLoader(const Repo::Repository& repository, unsigned int threads, std::uint64_t keptBytes)
        : m_repository(repository), m_sealed(threads), m_keptLimit(keptBytes)
    {}

    /// Loads each of the blobs once, on another thread, without those above LargeBlobSize. Getting the result
    /// raises what is not a RepositoryError, such as an interrupt and ServerLost. The loader outlives the
    /// result, whose destructor waits. The next call comes after the result was fetched.
    std::future<LoadedBlobs> Start(std::vector<Repo::Id> ids);

private:
    struct Wanted
    {
        Repo::IndexedBlob copy;
        LoadedBlob* blob;
    };
    using Range = std::span<const Wanted>;

    struct Kept
    {
        LoadedBlob blob;
        std::list<Repo::Id>::iterator position; // in m_order
    };

    LoadedBlobs Load(const std::vector<Repo::Id>& ids);
    void LoadRanges(const std::vector<Range>& ranges);
    void Keep(const LoadedBlobs& blobs);
    std::vector<Range> Join(std::span<const Wanted> wanted) const;
    void LoadRange(Range range, Repo::Bytes& sealed) const;
    void LoadAlone(const Wanted& wanted) const;

    const Repo::Repository& m_repository;
    std::vector<Repo::Bytes> m_sealed; // what a thread reads, for each of them
    std::uint64_t m_keptLimit;
    std::uint64_t m_keptBytes = 0;
    std::list<Repo::Id> m_order; // the blob that was used last comes first
    std::unordered_map<Repo::Id, Kept, Repo::IdHash> m_kept;
};

} // namespace Agent
