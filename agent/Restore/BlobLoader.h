// BlobLoader: loads the data blobs that a part of a restore needs. They are sorted by pack and offset, and
// neighbouring ones are read at once; threads verify and decompress them.
#pragma once

#include "agent/Repository/Repository.h"

#include <exception>
#include <future>
#include <unordered_map>
#include <vector>

namespace Agent {

/// A blob, or why it can't be loaded.
struct LoadedBlob
{
    Repo::Bytes content;
    std::exception_ptr failure; ///< a RepositoryError
};

using LoadedBlobs = std::unordered_map<Repo::Id, LoadedBlob, Repo::IdHash>;

class BlobLoader
{
public:
    /// The repository outlives the loader. Its index is loaded.
    BlobLoader(const Repo::Repository& repository, unsigned int threads)
        : m_repository(repository), m_threads(threads)
    {}

    /// Loads each of the blobs once. Raises what is not a RepositoryError, such as an interrupt.
    LoadedBlobs Load(const std::vector<Repo::Id>& ids) const;
    /// Load on another thread. The loader outlives the result, whose destructor waits.
    std::future<LoadedBlobs> Start(std::vector<Repo::Id> ids) const;

private:
    struct Wanted
    {
        Repo::IndexedBlob place;
        LoadedBlob* blob;
    };
    using Range = std::span<const Wanted>;

    std::vector<Range> Join(std::span<const Wanted> wanted) const;
    void LoadRange(Range range, Repo::Bytes& sealed) const;
    void LoadAlone(const Wanted& wanted) const;

    const Repo::Repository& m_repository;
    unsigned int m_threads;
};

} // namespace Agent
