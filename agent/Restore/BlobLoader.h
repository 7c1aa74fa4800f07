// BlobLoader: loads the data blobs that parts of a restore need. A part goes through these states:
//   1 started: it is known which blobs were started for parts before it, and where the others are. Those are
//     sorted by pack and offset, and neighbouring ones are a range, which is read at once
//   2 loading: threads read, verify and decompress its ranges. They begin those of the next part when all of
//     this one are taken
//   3 taken: the caller has its blobs
// Invariants:
//   - parts are taken in the order in which they were started, so blobs that a part has in common with those
//     before it are loaded when it is taken
//   - a range is loaded by one thread, which alone writes its blobs; a part is taken when no thread loads one
//   - the blobs that were used last are known: as many bytes as the parts that are not taken load, and
//     a constant number more
#pragma once

#include "agent/Repository/Repository.h"

#include "Krt/Thread/ThreadSafety.h"

#include <condition_variable>
#include <deque>
#include <exception>
#include <list>
#include <memory>
#include <thread>
#include <unordered_map>
#include <vector>

namespace Agent {

/// Bytes of content in a part of a restore, about.
constexpr std::uint64_t LoadedBytes = 16 << 20;

/// A blob, or why it can't be loaded.
struct LoadedBlob
{
    std::shared_ptr<const void> memory; ///< of the content; null unless it was loaded
    Repo::ByteView content;
    std::exception_ptr failure;
};

using LoadedBlobs = std::unordered_map<Repo::Id, std::shared_ptr<const LoadedBlob>, Repo::IdHash>;

/// Used by one thread.
class BlobLoader
{
public:
    /// The repository outlives the loader. Its index is loaded. There is one thread at least. Of the blobs of
    /// parts that were taken, `keptBytes` are kept.
    BlobLoader(const Repo::Repository& repository, unsigned int threads, std::uint64_t keptBytes)
        : m_repository(repository), m_threadCount(threads), m_keptLimit(keptBytes)
    {}
    ~BlobLoader();
    BlobLoader(const BlobLoader&) = delete;
    BlobLoader& operator=(const BlobLoader&) = delete;

    /// Begins to load a part: each of the blobs once, without those above LargeBlobSize.
    void Start(const std::vector<Repo::Id>& ids);
    /// Waits for the first part that was started and not taken, of which there is one, and returns its blobs.
    /// Raises what is not a RepositoryError, such as an interrupt. What is not a YError either, such as
    /// ServerLost, ends all parts, also later ones.
    LoadedBlobs Take();
    /// Drops the parts that were started and not taken. Waits for the ranges that are being loaded.
    void Drop();

    /// How many parts load at once so that all threads have work: most have two ranges or more.
    unsigned int PartsAtOnce() const { return (m_threadCount + 1) / 2; }

private:
    struct Wanted
    {
        Repo::IndexedBlob copy;
        LoadedBlob* blob;
    };
    using Range = std::span<const Wanted>;

    struct Part
    {
        LoadedBlobs blobs;
        std::vector<Wanted> wanted; // what was not known at the start
        std::vector<Range> ranges;  // of `wanted`
        std::uint64_t bytes = 0;    // of content, of `wanted`
        // These change after the start.
        std::size_t next = 0;       // range for a thread
        unsigned int active = 0;    // ranges that threads are loading
        std::exception_ptr failure; // not a RepositoryError; the other ranges are left out

        bool IsDone() const { return next == ranges.size() && active == 0; }
    };

    struct Known
    {
        std::shared_ptr<const LoadedBlob> blob;
        std::uint64_t bytes;
        std::list<Repo::Id>::iterator position; // in m_order
    };

    Part Choose(const std::vector<Repo::Id>& ids);
    void Remember(const Repo::Id& id, const std::shared_ptr<const LoadedBlob>& blob, std::uint64_t bytes);
    void Forget(const Part& part);
    void Evict();
    static std::vector<Range> Join(std::span<const Wanted> wanted);
    void Work();
    Part* PartWithWork() KRT_REQUIRES(m_mutex);
    static void Fail(Part& part, const std::exception_ptr& failure);
    void LoadRange(Range range, Repo::Bytes& sealed) const;
    void LoadAlone(const Repo::BlobHandle& handle, LoadedBlob& blob) const;

    const Repo::Repository& m_repository;
    const unsigned int m_threadCount;

    const std::uint64_t m_keptLimit;
    std::uint64_t m_startedBytes = 0; // of content that parts which are not taken load
    std::uint64_t m_knownBytes = 0;
    std::list<Repo::Id> m_order; // the blob that was used last comes first
    std::unordered_map<Repo::Id, Known, Repo::IdHash> m_known;

    Krt::Thread::AnnotatedMutex m_mutex;
    std::condition_variable m_wanted;
    std::condition_variable m_loaded;
    std::deque<Part> m_parts KRT_GUARDED_BY(m_mutex);     // started and not taken
    std::exception_ptr m_failure KRT_GUARDED_BY(m_mutex); // not a YError; it ends all parts
    bool m_isEnding KRT_GUARDED_BY(m_mutex) = false;
    std::vector<std::thread> m_threads; // empty before the first range
};

} // namespace Agent
