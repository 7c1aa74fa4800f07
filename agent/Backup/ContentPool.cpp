#include "agent/Backup/ContentPool.h"

#include "agent/Backup/Unix/Holes.h"
#include "agent/Repository/Pages.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/File/Unix/Status.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <optional>

namespace Agent {

using Krt::Thread::AnnotatedLock;
using Repo::BlobType;
using Repo::ByteView;
using Repo::Chunker;

namespace {

// A chunk is longer, so what is left of a block after a cut contains no other cut.
constexpr std::size_t BlockSize = Chunker::MinSize;

bool IsSameTime(const timespec& a, const timespec& b)
{
    return a.tv_sec == b.tv_sec && a.tv_nsec == b.tv_nsec;
}

bool HasChanged(const struct stat& before, const struct stat& after)
{
    return before.st_size != after.st_size ||
           !IsSameTime(Krt::File::WriteTime(before), Krt::File::WriteTime(after)) ||
           !IsSameTime(Krt::File::ChangeTime(before), Krt::File::ChangeTime(after));
}

// Memory for a chunk. Only the part that is used costs anything.
class Buffer
{
public:
    unsigned char* Data() const { return m_pages.Data(); }
    // Ends the use. The memory of a long chunk is returned.
    void Clear()
    {
        if (size > KeptSize)
            m_pages.Release(KeptSize);
        size = 0;
    }

    std::size_t size = 0; // that is used

private:
    static constexpr std::size_t KeptSize = 2 << 20; // more than most chunks have

    Repo::Pages m_pages{Chunker::MaxSize + BlockSize};
};

} // namespace

// What becomes of a file. The thread that reads adds chunks, all threads store them.
class ContentPool::FileState
{
public:
    explicit FileState(std::function<void(const StoredContent&)> onDone) : m_onDone(std::move(onDone)) {}

    std::size_t Begin(std::size_t size)
    {
        const AnnotatedLock lock(m_mutex);
        ++m_open;
        content.size += size;
        content.blobs.emplace_back();
        return content.blobs.size() - 1;
    }
    // Returns true if the file is done.
    bool End(std::size_t index, const StoredBlob& blob)
    {
        const AnnotatedLock lock(m_mutex);
        content.blobs[index] = blob.id;
        Count(blob);
        return --m_open == 0;
    }
    void Add(std::size_t size, const StoredBlob& blob, std::size_t count = 1)
    {
        const AnnotatedLock lock(m_mutex);
        content.size += count * size;
        content.blobs.insert(content.blobs.end(), count, blob.id);
        Count(blob);
    }
    bool EndReading()
    {
        const AnnotatedLock lock(m_mutex);
        return --m_open == 0;
    }
    void Report() const { m_onDone(content); }

    StoredContent content;

private:
    void Count(const StoredBlob& blob) KRT_REQUIRES(m_mutex)
    {
        content.added += blob.added;
        content.packed += blob.packed;
    }

    Krt::Thread::AnnotatedMutex m_mutex; // also for the blobs and the numbers of bytes in `content`
    std::size_t m_open KRT_GUARDED_BY(m_mutex) = 1; // chunks that are not stored, and the reading
    std::function<void(const StoredContent&)> m_onDone;
};

struct ContentPool::Chunk
{
    Buffer buffer;
    std::shared_ptr<FileState> file;
    std::size_t index = 0; // in the file
};

// Reads files, one at a time. Each thread has one.
class ContentPool::Reader
{
public:
    explicit Reader(ContentPool& pool) : m_pool(pool), m_chunker(pool.m_tables) {}

    void Read(FileToRead& file)
    {
        m_endBefore.reset();
        // A large file is read once, so that a change before the reading would be reported as one during it.
        if (file.status && file.status->st_size > static_cast<off_t>(RereadLimit))
            file.status.reset();
        for (int attempt = 0;; ++attempt) {
            const auto state = std::make_shared<FileState>(file.onDone);
            m_state = state;
            const bool isLast = attempt == RereadTimes;
            if (!TryRead(file, isLast))
                continue;
            m_state.reset();
            file.file.reset();
            if (state->EndReading())
                m_pool.Done(*state);
            return;
        }
    }

private:
    // Returns false if the file is to be read again.
    bool TryRead(FileToRead& file, bool isLast)
    {
        StoredContent& content = m_state->content;
        m_handle = file.file.get();
        m_isStream = file.isStream;
        try {
            if (!m_isStream)
                content.status = file.status ? *file.status : Krt::File::Stat(*m_handle);
            file.status.reset();
        } catch (const Krt::Exception::YError& error) {
            content.failure = ReasonOf(error).Bytes();
            return true;
        }
        const auto size = static_cast<std::uint64_t>(content.status.st_size);
        m_chunker.Reset();
        m_offset = 0;
        m_buffer.size = 0;
        while (ReadBlock(size)) {
        }
        if (!content.failure.empty())
            return true;
        if (m_buffer.size != 0)
            EndChunk(0);
        if (m_isStream)
            return true;
        struct stat after = {};
        try {
            after = Krt::File::Stat(*m_handle);
        } catch (const Krt::Exception::YError& error) {
            content.failure = ReasonOf(error).Bytes();
            return true;
        }
        // Files of the kernel have the size 0 or that of a page, whatever they contain.
        const bool isOtherSize = size != 0 && m_offset != size && m_endBefore != m_offset;
        m_endBefore = m_offset;
        content.isChanged = HasChanged(content.status, after) || isOtherSize;
        return !content.isChanged || isLast || m_offset > RereadLimit;
    }

    // Reads and cuts a block. Returns false at the end.
    bool ReadBlock(std::uint64_t size)
    {
        RaiseIfInterrupted();
        if (m_pool.IsEnding())
            KRT_RAISE(Krt::ErrorCode::InvalidState, "The run has ended");
        if (m_buffer.size == 0)
            SkipHole(size);
        // A file may grow for ever, so the end is where it was.
        if (size != 0 && m_offset >= size)
            return false;
        const std::size_t wanted =
            size == 0 ? BlockSize
                      : static_cast<std::size_t>(std::min<std::uint64_t>(BlockSize, size - m_offset));
        unsigned char* const block = m_buffer.Data() + m_buffer.size;
        std::size_t count = 0;
        try {
            count =
                m_isStream ? ReadStream(wanted, block) : Krt::File::Read(*m_handle, m_offset, wanted, block);
        } catch (const Krt::Exception::YError& error) {
            if (m_isStream && (IsInterrupted() || m_pool.IsEnding()))
                throw;
            m_state->content.failure = ReasonOf(error).Bytes();
            return false;
        }
        m_offset += count;
        m_pool.m_readBytes += count;
        bool isCut = false;
        const std::size_t used = m_chunker.Feed({block, count}, isCut);
        m_buffer.size += used;
        if (isCut)
            EndChunk(count - used);
        return count == wanted && (size != 0 || m_isStream || m_offset <= RereadLimit || IsWithoutSize());
    }

    // Returns less than `wanted` at the end only.
    std::size_t ReadStream(std::size_t wanted, unsigned char* block)
    {
        constexpr int MillisecondsBetweenLooks = 100;
        std::size_t size = 0;
        while (size < wanted) {
            pollfd waited{m_handle->Get(), POLLIN, 0};
            while (poll(&waited, 1, MillisecondsBetweenLooks) <= 0)
                KRT_RAISE_UNLESS(!IsInterrupted() && !m_pool.IsEnding(), Krt::ErrorCode::InvalidState,
                                 "Interrupted");
            const auto count = KRT_SYSCALL(read(m_handle->Get(), block + size, wanted - size),
                                           "Failed to read standard input");
            if (count == 0)
                break;
            size += static_cast<std::size_t>(count);
        }
        return size;
    }

    // A file that had the size 0 and has another one now grows, perhaps for ever.
    bool IsWithoutSize()
    {
        try {
            return Krt::File::Stat(*m_handle).st_size == 0;
        } catch (const Krt::Exception::YError& error) {
            m_state->content.failure = ReasonOf(error).Bytes();
            return false;
        }
    }

    // A hole is cut into the shortest chunks, because the digest of zeros is 0.
    void SkipHole(std::uint64_t size)
    {
        if (size - std::min(size, m_offset) < Chunker::MinSize)
            return;
        const std::uint64_t hole = std::min(size, EndOfHole(*m_handle, m_offset)) - m_offset;
        const std::uint64_t chunks = hole / Chunker::MinSize;
        if (chunks == 0)
            return;
        m_state->Add(Chunker::MinSize, m_pool.m_store(BlobType::Data, m_pool.m_zeros), chunks);
        m_offset += chunks * Chunker::MinSize;
        m_pool.m_readBytes += chunks * Chunker::MinSize;
    }

    // Stores the chunk in the buffer, or lets another thread do so. The bytes after it begin the next one.
    void EndChunk(std::size_t bytesAfter)
    {
        const auto size = static_cast<std::uint64_t>(m_state->content.status.st_size);
        const bool isOnly = bytesAfter == 0 && m_offset >= size && m_offset == m_buffer.size;
        if (isOnly) {
            m_state->Add(m_buffer.size, m_pool.m_store(BlobType::Data, {m_buffer.Data(), m_buffer.size}));
            m_buffer.Clear();
            return;
        }
        std::unique_ptr<Chunk> chunk = m_pool.TakeChunk();
        std::swap(chunk->buffer, m_buffer);
        chunk->file = m_state;
        chunk->index = m_state->Begin(chunk->buffer.size);
        if (bytesAfter != 0) {
            const unsigned char* const after = chunk->buffer.Data() + chunk->buffer.size;
            std::memcpy(m_buffer.Data(), after, bytesAfter);
            bool isCut = false;
            m_buffer.size = m_chunker.Feed({m_buffer.Data(), bytesAfter}, isCut);
        }
        if (!m_pool.TryOffer(chunk))
            m_pool.StoreChunk(std::move(chunk));
    }

    ContentPool& m_pool;
    Chunker m_chunker;
    std::shared_ptr<FileState> m_state;
    const Krt::Util::YUnxHandle* m_handle = nullptr;
    bool m_isStream = false;
    std::uint64_t m_offset = 0;
    std::optional<std::uint64_t> m_endBefore; // where the attempt before ended
    Buffer m_buffer;                          // the chunk that is being read
};

ContentPool::ContentPool(Repo::Polynomial polynomial, BlobStore store, PoolOptions options)
    : m_tables(polynomial), m_store(std::move(store)), m_options(std::move(options)),
      m_zeros(Chunker::MinSize)
{
    try {
        for (unsigned int i = 0; i < m_options.threads; ++i)
            m_threads.emplace_back([this] { Work(); });
    } catch (...) {
        EndThreads();
        throw;
    }
}

ContentPool::~ContentPool()
{
    EndThreads();
}

void ContentPool::EndThreads()
{
    {
        const AnnotatedLock lock(m_mutex);
        m_isEnding = true;
    }
    m_work.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

void ContentPool::Add(FileToRead file)
{
    bool isFull = false;
    bool wakes = false;
    {
        const AnnotatedLock lock(m_mutex);
        isFull = m_pending >= MostFiles;
    }
    if (isFull)
        WaitUntilAtMost(MostFiles / 2);
    {
        const AnnotatedLock lock(m_mutex);
        ++m_pending;
        m_newBytes += file.status ? static_cast<std::uint64_t>(file.status->st_size) : GroupBytes;
        m_files.push_back(std::move(file));
        wakes = m_idle != 0 && (m_files.size() >= GroupFiles || m_newBytes >= GroupBytes);
        if (wakes)
            m_newBytes = 0;
    }
    if (wakes)
        m_work.notify_one();
}

void ContentPool::Wake()
{
    bool wakes = false;
    {
        const AnnotatedLock lock(m_mutex);
        wakes = m_idle != 0 && !m_files.empty();
    }
    if (wakes)
        m_work.notify_one();
}

void ContentPool::Finish()
{
    WaitUntilAtMost(0);
}

void ContentPool::RaiseFailure()
{
    if (!m_isEnding)
        return;
    const AnnotatedLock lock(m_mutex);
    if (m_failure)
        std::rethrow_exception(m_failure);
}

std::vector<std::string> ContentPool::GetReading() const
{
    const AnnotatedLock lock(m_mutex);
    return {m_reading.begin(), m_reading.end()};
}

void ContentPool::WaitUntilAtMost(std::size_t pending)
{
    constexpr std::chrono::milliseconds BetweenReports{100};
    m_work.notify_all();
    const auto isOver = [&] {
        m_mutex.AssertHeld();
        return m_failure || m_pending <= pending;
    };
    AnnotatedLock lock(m_mutex);
    m_wantedPending = pending;
    while (!lock.WaitUntil(m_room, std::chrono::steady_clock::now() + BetweenReports, isOver)) {
        lock.Unlock();
        m_options.onWait();
        lock.Lock();
    }
    m_wantedPending.reset();
    if (m_failure)
        std::rethrow_exception(m_failure);
}

void ContentPool::Work()
{
    try {
        std::unique_ptr<Reader> reader;
        AnnotatedLock lock(m_mutex);
        const auto mayRead = [this] {
            m_mutex.AssertHeld();
            return !m_files.empty() && m_reading.size() < m_options.readers;
        };
        for (;;) {
            ++m_idle;
            lock.Wait(m_work, [&] {
                m_mutex.AssertHeld();
                return m_isEnding || !m_chunks.empty() || mayRead();
            });
            --m_idle;
            if (m_isEnding)
                return;
            if (!m_chunks.empty()) {
                std::unique_ptr<Chunk> chunk = std::move(m_chunks.front());
                m_chunks.pop_front();
                const bool mayOtherRead = m_idle != 0 && mayRead();
                lock.Unlock();
                if (mayOtherRead)
                    m_work.notify_one();
                StoreChunk(std::move(chunk));
            } else {
                FileToRead file = std::move(m_files.front());
                m_files.pop_front();
                const auto reading = m_reading.insert(m_reading.end(), std::move(file.path));
                lock.Unlock();
                if (!reader)
                    reader = std::make_unique<Reader>(*this);
                reader->Read(file);
                lock.Lock();
                m_reading.erase(reading);
                continue;
            }
            lock.Lock();
        }
    } catch (...) {
        Fail();
    }
}

void ContentPool::Fail()
{
    {
        const AnnotatedLock lock(m_mutex);
        if (!m_failure)
            m_failure = std::current_exception();
        m_isEnding = true;
    }
    m_work.notify_all();
    m_room.notify_all();
}

// Returns false if the other threads have enough to do.
bool ContentPool::TryOffer(std::unique_ptr<Chunk>& chunk)
{
    {
        const AnnotatedLock lock(m_mutex);
        if (m_chunks.size() >= m_threads.size() || (m_idle == 0 && !m_chunks.empty()))
            return false;
        m_chunks.push_back(std::move(chunk));
    }
    m_work.notify_one();
    return true;
}

// Returns a chunk without content.
std::unique_ptr<ContentPool::Chunk> ContentPool::TakeChunk()
{
    {
        const AnnotatedLock lock(m_mutex);
        if (!m_freeChunks.empty()) {
            std::unique_ptr<Chunk> chunk = std::move(m_freeChunks.back());
            m_freeChunks.pop_back();
            return chunk;
        }
    }
    return std::make_unique<Chunk>();
}

void ContentPool::StoreChunk(std::unique_ptr<Chunk> chunk)
{
    const StoredBlob blob = m_store(BlobType::Data, {chunk->buffer.Data(), chunk->buffer.size});
    const std::shared_ptr<FileState> file = std::move(chunk->file);
    const std::size_t index = chunk->index;
    chunk->buffer.Clear();
    {
        const AnnotatedLock lock(m_mutex);
        m_freeChunks.push_back(std::move(chunk));
    }
    if (file->End(index, blob))
        Done(*file);
}

void ContentPool::Done(FileState& state)
{
    state.Report();
    bool isReached = false;
    {
        const AnnotatedLock lock(m_mutex);
        --m_pending;
        isReached = m_wantedPending && m_pending <= *m_wantedPending;
    }
    if (isReached)
        m_room.notify_all();
}

} // namespace Agent
