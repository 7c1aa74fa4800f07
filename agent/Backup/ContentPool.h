// ContentPool: the threads that read files and store their contents as data blobs. A file that is one chunk
// is read, hashed, compressed and sealed by one thread. The chunks of a larger file are offered to the other
// threads. If these are busy, the thread that reads stores the chunk itself, so it never waits for them.
//
//   a file:  waiting (m_files) -> read by a thread -> its chunks are stored, in any order -> done
//   a chunk: free (m_freeChunks) -> being read -> waiting (m_chunks) -> stored -> free
//   a pool:  working -> ending (Finish, the destructor, or a failure)
//
// Invariants:
//   - A thread that waits is woken for a chunk, and for files when a group of them is waiting, or a large
//   one,
//     or by Wake, Finish or an Add that waits. A call for each small file takes longer than a small file.
//   - A thread takes a chunk first, so chunks do not pile up: m_chunks has at most as many as there are
//     threads.
//   - At most m_options.readers threads read.
//   - A file is done when it was read and all of its chunks are stored, unless the pool failed.
#pragma once

#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/Chunker.h"

#include "Krt/Thread/ThreadSafety.h"
#include "Krt/Util/YUnxHandle.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

namespace Agent {

/// A blob that the repository has.
struct StoredBlob
{
    Repo::Id id;
    std::uint64_t added = 0;  ///< bytes of its plaintext; 0 if it was not new
    std::uint64_t packed = 0; ///< bytes that its pack grew by
};

/// Stores a blob. Any thread. Raises what storing raises, which ends the run.
using BlobStore = std::function<StoredBlob(Repo::BlobType type, Repo::ByteView plaintext)>;

/// The content of a file as it was stored.
struct StoredContent
{
    std::vector<Repo::Id> blobs;
    std::uint64_t size = 0;   ///< bytes of all blobs
    std::uint64_t added = 0;  ///< bytes of the new ones
    std::uint64_t packed = 0; ///< bytes that packs grew by
    std::chrono::steady_clock::time_point begin = std::chrono::steady_clock::now(); ///< of the reading
    struct stat status = {}; ///< of the file, before the content was read
    bool isChanged = false;  ///< the file changed while it was read
    std::string failure;     ///< why the file could not be read; then nothing else is set
};

/// A file to be read.
struct FileToRead
{
    std::shared_ptr<const Krt::Util::YUnxHandle> file; ///< open for reading; released once it was read
    std::string path;                                  ///< for GetReading
    /// Called once with the outcome by any thread, but not if the pool fails.
    std::function<void(const StoredContent& content)> onDone;
    bool isStream = false; ///< read once to its end, as from a pipe; the status is not set
    /// The status of the open file, read not long ago. If the file has changed since, it is read again.
    std::optional<struct stat> status = {};
};

struct PoolOptions
{
    unsigned int threads = 2; ///< at least 1
    unsigned int readers = 2; ///< threads that read at the same time, at least 1
    /// Called about 10 times a second while Add or Finish waits. What it raises ends the pool.
    std::function<void()> onWait = [] {
    };
};

class ContentPool
{
public:
    /// Files that are open at the same time, at most.
    static constexpr std::size_t MostFiles = 128;
    /// Files that make a group, for which a thread is woken.
    static constexpr std::size_t GroupFiles = 16;
    static constexpr std::uint64_t GroupBytes = 256 << 10;
    /// A smaller file that changes while it is read is read again, at most RereadTimes.
    static constexpr std::uint64_t RereadLimit = 64 << 20;
    static constexpr int RereadTimes = 3;

    /// What `store` uses outlives the pool.
    ContentPool(Repo::Polynomial polynomial, BlobStore store, PoolOptions options);
    /// Without Finish, ends the threads as soon as possible.
    ~ContentPool();
    ContentPool(const ContentPool&) = delete;
    ContentPool& operator=(const ContentPool&) = delete;

    /// Adds a file. If MostFiles are not done, waits until half of them are. Raises what storing a blob
    /// raised on any thread.
    void Add(FileToRead file);
    /// Wakes a thread for files that wait for others to make a group. To be called now and then.
    void Wake();
    /// Waits until all files are done. Raises what storing a blob raised.
    void Finish();
    /// Raises what storing a blob raised.
    void RaiseFailure();

    /// Bytes that were read so far. Any thread.
    std::uint64_t GetReadBytes() const { return m_readBytes; }
    /// The paths of the files that are being read. Any thread.
    std::vector<std::string> GetReading() const;

private:
    class FileState;
    struct Chunk;
    class Reader;

    void Work();
    void EndThreads();
    void WaitUntilAtMost(std::size_t pending);
    void Fail();
    bool IsEnding() const { return m_isEnding; }
    bool TryOffer(std::unique_ptr<Chunk>& chunk);
    std::unique_ptr<Chunk> TakeChunk();
    void StoreChunk(std::unique_ptr<Chunk> chunk);
    void Done(FileState& state);

    const Repo::ChunkerTables m_tables;
    const BlobStore m_store;
    const PoolOptions m_options;
    std::vector<unsigned char> m_zeros; // a chunk of a hole
    std::atomic<std::uint64_t> m_readBytes{0};
    std::atomic<bool> m_isEnding{false};

    mutable Krt::Thread::AnnotatedMutex m_mutex;
    std::condition_variable m_work; // for the threads
    std::condition_variable m_room; // for the caller of Add or Finish
    std::deque<FileToRead> m_files KRT_GUARDED_BY(m_mutex);
    std::uint64_t m_newBytes KRT_GUARDED_BY(m_mutex) = 0; // of files since a thread was woken for files
    std::optional<std::size_t> m_wantedPending KRT_GUARDED_BY(m_mutex); // what the caller waits for
    std::deque<std::unique_ptr<Chunk>> m_chunks KRT_GUARDED_BY(m_mutex);
    // Not in use; at most as many as were in use at once.
    std::vector<std::unique_ptr<Chunk>> m_freeChunks KRT_GUARDED_BY(m_mutex);
    std::size_t m_pending KRT_GUARDED_BY(m_mutex) = 0;        // files that are not done
    std::list<std::string> m_reading KRT_GUARDED_BY(m_mutex); // paths
    unsigned int m_idle KRT_GUARDED_BY(m_mutex) = 0;          // threads that wait for work
    std::exception_ptr m_failure KRT_GUARDED_BY(m_mutex);

    std::vector<std::thread> m_threads;
};

} // namespace Agent
