#include "agent/Repository/BlobSaver.h"

#include "agent/Repository/Zstd.h"

#include <algorithm>
#include <optional>
#include <utility>

namespace Agent::Repo {

using Krt::Thread::AnnotatedLock;

namespace {

using std::chrono::steady_clock;

constexpr std::size_t IndexBlobLimit = 50000;            // blobs after which an index file is full
constexpr auto IndexAgeLimit = std::chrono::minutes(10); // after which an index file is written in any case
constexpr auto BetweenCalls = std::chrono::milliseconds(100); // of onWait
constexpr std::size_t SmallScratch = 2 << 20;                 // bytes that are enough for most blobs
constexpr std::size_t ScratchLimit = 4 << 20;                 // bytes that a thread keeps
constexpr std::size_t PackExcess = 12 << 20; // bytes of the last blob of a pack and of a long header

constexpr int FastLevel = 1; // of zstd
constexpr int AutoLevel = 3;
constexpr int MaxLevel = 12;

// Returns true if the bytes of the blob are about equally frequent, as in what is compressed or encrypted.
bool IsFlat(ByteView content)
{
    constexpr std::size_t Pieces = 32;
    constexpr std::size_t PieceSize = 256;
    constexpr std::uint64_t Sampled = Pieces * PieceSize;
    constexpr std::uint64_t ExpectedSquares = Sampled + Sampled * (Sampled - 1) / 256;
    std::array<std::uint32_t, 256> counts{};
    const std::size_t step = (content.size() - PieceSize) / (Pieces - 1);
    for (std::size_t piece = 0; piece < Pieces; ++piece) {
        for (const unsigned char byte : content.subspan(piece * step, PieceSize))
            ++counts[byte];
    }
    std::uint64_t squares = 0;
    for (const std::uint64_t count : counts)
        squares += count * count;
    return squares < ExpectedSquares + ExpectedSquares / 16;
}

// Returns true if it is not worth the time to compress the content. `scratch` is overwritten.
bool LooksIncompressible(ByteView content, std::span<unsigned char> scratch)
{
    constexpr std::size_t SampleSize = 64 << 10;
    if (content.size() < 2 * SampleSize || !IsFlat(content))
        return false;
    const ByteView sample = content.subspan((content.size() - SampleSize) / 2, SampleSize);
    return CompressInto(sample, scratch, FastLevel).size() >= SampleSize - SampleSize / 64;
}

// Returns the compressed content, which begins the scratch memory; nothing if the blob is stored as it is.
std::optional<ByteView> CompressBlob(BlobType type, ByteView plaintext, Compression compression,
                                     std::span<unsigned char> scratch)
{
    if (plaintext.empty())
        return std::nullopt;
    const bool isTree = type == BlobType::Tree;
    if (!isTree && (compression == Compression::Off || LooksIncompressible(plaintext, scratch)))
        return std::nullopt;
    const ByteView compressed =
        CompressInto(plaintext, scratch, compression == Compression::Max ? MaxLevel : AutoLevel);
    if (!isTree && compressed.size() + PackEntrySize(true) >= plaintext.size() + PackEntrySize(false))
        return std::nullopt;
    return compressed;
}

} // namespace

BlobSaver::BlobSaver(const Repository& repository, const SaveOptions& options)
    : m_repository(repository), m_options(options)
{
    KRT_RAISE_UNLESS(repository.GetConfig().version >= 2, Krt::ErrorCode::InvalidArgument,
                     "Blobs are saved in version 2 of the format alone");
    const unsigned int writers = std::max(1u, options.writers);
    const std::size_t packs = m_open.size() + writers;
    for (std::size_t i = 0; i < packs; ++i)
        m_free.push_back(std::make_unique<PackWriter>(repository.GetKey(), options.packSize + PackExcess));
    try {
        for (unsigned int i = 0; i < writers; ++i)
            m_writers.emplace_back([this] { WritePacks(); });
    } catch (...) {
        EndWriters();
        throw;
    }
}

BlobSaver::~BlobSaver()
{
    EndWriters();
}

void BlobSaver::EndWriters()
{
    {
        const AnnotatedLock lock(m_mutex);
        m_isEnding = true;
    }
    m_change.notify_all();
    for (std::thread& writer : m_writers)
        writer.join();
}

bool BlobSaver::Has(const BlobHandle& handle) const
{
    if (!m_options.isRepacking && m_repository.HasBlob(handle))
        return true;
    const AnnotatedLock lock(m_knownMutex);
    return m_known.contains(handle);
}

// Returns true if the caller has to save the blob.
bool BlobSaver::Claim(const BlobHandle& handle)
{
    if (m_hasFailed) [[unlikely]]
        RaiseFailure();
    if (!m_options.isRepacking && m_repository.HasBlob(handle))
        return false;
    const AnnotatedLock lock(m_knownMutex);
    return m_known.insert(handle).second;
}

std::uint64_t BlobSaver::SaveSealed(const PackedBlob& blob, ByteView sealed)
{
    if (!Claim(blob.handle))
        return 0;
    try {
        return Append(blob, sealed);
    } catch (...) {
        const AnnotatedLock lock(m_mutex);
        Fail();
        throw;
    }
}

Id BlobSaver::SaveTree(std::string_view text)
{
    const BlobHandle handle{BlobType::Tree, Id::Of(AsBytes(text))};
    m_repository.IsReadable(handle); // otherwise it counts as lost
    Save(handle, AsBytes(text));
    return handle.id;
}

std::uint64_t BlobSaver::Save(const BlobHandle& handle, ByteView plaintext)
{
    if (!Claim(handle))
        return 0;
    thread_local Pages scratch;
    try {
        PackedBlob blob;
        blob.handle = handle;
        KRT_RAISE_UNLESS(plaintext.size() <= UINT32_MAX - (1 << 26), Krt::ErrorCode::InvalidArgument,
                         "A blob exceeds the limits of a pack");
        blob.plainLength = static_cast<std::uint32_t>(plaintext.size());
        const std::size_t room = CompressBound(plaintext.size()) + SealOverhead;
        if (scratch.Size() < room)
            scratch = Pages(std::max(room, SmallScratch));
        const std::span all(scratch.Data(), scratch.Size());
        const std::optional<ByteView> frame =
            CompressBlob(handle.type, plaintext, m_options.compression, all.subspan(CiphertextOffset));
        blob.isCompressed = frame.has_value();
        const ByteView content = frame.value_or(plaintext);
        const auto sealed = all.first(content.size() + SealOverhead);
        SealInto(m_repository.GetKey(), content, sealed);
        const std::uint64_t grown = Append(blob, sealed);
        if (scratch.Size() > ScratchLimit)
            scratch = {};
        return grown;
    } catch (...) {
        const AnnotatedLock lock(m_mutex);
        Fail();
        throw;
    }
}

// Returns the bytes that the pack grew by.
std::uint64_t BlobSaver::Append(const PackedBlob& blob, ByteView sealed)
{
    const std::size_t type = static_cast<std::size_t>(blob.handle.type);
    AnnotatedLock lock(m_mutex);
    const auto hasRoom = [&] {
        m_mutex.AssertHeld();
        return m_open[type] != nullptr || !m_free.empty();
    };
    while (!WaitFor(lock, hasRoom)) {
        lock.Unlock();
        CallOnWait();
        lock.Lock();
    }
    std::unique_ptr<PackWriter>& open = m_open[type];
    if (open == nullptr) {
        open = std::move(m_free.back());
        m_free.pop_back();
    }
    SavedBlobs& saved = m_saved[type];
    const std::uint64_t grown = open->AddSealed(blob, sealed);
    saved.stored += grown;
    saved.bytes += blob.plainLength;
    ++saved.blobs;
    if (open->FinishedSize() < m_options.packSize && open->GetBlobs().size() < PackBlobLimit)
        return grown;
    m_full.push_back(std::move(open));
    lock.Unlock();
    m_change.notify_all();
    return grown;
}

void BlobSaver::Finish()
{
    AnnotatedLock lock(m_mutex);
    for (std::unique_ptr<PackWriter>& open : m_open) {
        if (open != nullptr)
            m_full.push_back(std::move(open));
    }
    m_change.notify_all();
    const auto isWritten = [this] {
        m_mutex.AssertHeld();
        return m_full.empty() && m_writing == 0;
    };
    while (!WaitFor(lock, isWritten)) {
        lock.Unlock();
        CallOnWait();
        lock.Lock();
    }
    if (m_noted.CountBlobs() == 0)
        return;
    const std::string text = m_noted.Finish();
    lock.Unlock();
    try {
        m_repository.SaveText(FileKind::Index, text);
    } catch (...) {
        lock.Lock();
        Fail();
        throw;
    }
}

// Waits a moment for the condition, and returns true if it is true. Raises the failure, also if the condition
// is true already.
bool BlobSaver::WaitFor(AnnotatedLock& lock, const std::function<bool()>& isReached)
{
    const auto isOver = [&] {
        return m_hasFailed || isReached();
    };
    const bool isEnd = lock.WaitUntil(m_change, steady_clock::now() + BetweenCalls, isOver);
    if (m_failure)
        std::rethrow_exception(m_failure);
    return isEnd;
}

// Called without the mutex, since the callback may ask for what was saved.
void BlobSaver::CallOnWait()
{
    try {
        m_options.onWait();
    } catch (...) {
        const AnnotatedLock lock(m_mutex);
        Fail();
    }
}

// What a writing thread does.
void BlobSaver::WritePacks()
{
    AnnotatedLock lock(m_mutex);
    for (;;) {
        lock.Wait(m_change, [this] {
            m_mutex.AssertHeld();
            return m_isEnding || (!m_full.empty() && !m_hasFailed);
        });
        if (m_isEnding)
            return;
        std::unique_ptr<PackWriter> pack = std::move(m_full.front());
        m_full.pop_front();
        ++m_writing;
        lock.Unlock();
        try {
            WritePack(*pack);
        } catch (...) {
            const AnnotatedLock failing(m_mutex);
            Fail();
        }
        lock.Lock();
        --m_writing;
        m_free.push_back(std::move(pack));
        m_change.notify_all();
    }
}

// Writes the pack, and the index file if it is due.
void BlobSaver::WritePack(PackWriter& pack)
{
    const BlobType type = pack.GetBlobs().front().handle.type;
    const Id id = m_repository.SavePack(pack.Finish(), type);
    AnnotatedLock lock(m_mutex);
    if (m_noted.CountBlobs() == 0)
        m_notedSince = steady_clock::now();
    m_noted.Add(id, pack.GetBlobs());
    pack.Clear();
    const bool isDue =
        m_noted.CountBlobs() >= IndexBlobLimit || steady_clock::now() - m_notedSince >= IndexAgeLimit;
    if (!isDue || m_hasFailed)
        return;
    const std::string text = m_noted.Finish();
    lock.Unlock();
    m_repository.SaveText(FileKind::Index, text);
}

// Keeps the exception that is being handled, if it is the first.
void BlobSaver::Fail()
{
    if (!m_failure)
        m_failure = std::current_exception();
    m_hasFailed = true;
    m_change.notify_all();
}

void BlobSaver::RaiseFailure() const
{
    const AnnotatedLock lock(m_mutex);
    std::rethrow_exception(m_failure);
}

SavedBlobs BlobSaver::GetSaved(BlobType type) const
{
    const AnnotatedLock lock(m_mutex);
    return m_saved[static_cast<std::size_t>(type)];
}

} // namespace Agent::Repo
