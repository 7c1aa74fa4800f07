// BlobReader: the content of files, read ahead and decrypted by several threads.
#pragma once

#include "agent/Repository/Repository.h"

#include "Krt/Thread/ThreadSafety.h"

#include <condition_variable>
#include <exception>
#include <functional>
#include <thread>
#include <vector>

namespace Agent {

class BlobReader
{
public:
    /// The repository outlives the reader. Its index is loaded. Memory is bounded by two blobs for each
    /// thread. Of blobs above LargeBlobSize, which the calling thread reads, there is one.
    BlobReader(const Repo::Repository& repository, unsigned int threads);
    ~BlobReader();
    BlobReader(const BlobReader&) = delete;
    BlobReader& operator=(const BlobReader&) = delete;

    /// Calls `take` on this thread for each data blob, in order. Raises what the first blob that can't be
    /// loaded raises, after `take` was called for those before it. What `take` raises passes through.
    void Read(const std::vector<Repo::Id>& ids, const std::function<void(Repo::ByteView)>& take);

private:
    struct Slot
    {
        Repo::Bytes content;
        std::exception_ptr failure;
        bool isLoaded = false;
        bool isLarge = false; // it was not loaded
    };

    void Work();
    void EndThreads();
    bool HasWork() const KRT_REQUIRES(m_mutex);
    void Stop();
    void ReadAlone(const Repo::Id& id, const std::function<void(Repo::ByteView)>& take);

    const Repo::Repository& m_repository;
    std::vector<Slot> m_slots; // blob i is in slot i modulo their number
    Repo::Bytes m_content;     // of a blob that the calling thread reads
    Krt::Thread::AnnotatedMutex m_mutex;
    std::condition_variable m_wanted;
    std::condition_variable m_loaded;
    const std::vector<Repo::Id>* m_ids KRT_GUARDED_BY(m_mutex) = nullptr; // those of the call of Read
    std::size_t m_next KRT_GUARDED_BY(m_mutex) = 0;                       // to be loaded
    std::size_t m_taken KRT_GUARDED_BY(m_mutex) = 0;
    unsigned int m_active KRT_GUARDED_BY(m_mutex) = 0; // slots that are being loaded
    bool m_isEnding KRT_GUARDED_BY(m_mutex) = false;
    std::vector<std::thread> m_threads;
};

} // namespace Agent
