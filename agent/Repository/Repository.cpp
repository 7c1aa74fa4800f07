#include "agent/Repository/Repository.h"

#include "agent/Repository/InOrder.h"
#include "agent/Repository/Look.h"
#include "agent/Repository/Pack.h"
#include "agent/Repository/Pages.h"
#include "agent/Repository/Zstd.h"

#include "Krt/Log/LogSite.h"
#include "Krt/Util/YScope.h"

#include <algorithm>
#include <atomic>
#include <exception>
#include <memory>
#include <mutex>
#include <new>
#include <optional>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace Agent::Repo {

using Krt::YString;

namespace {

constexpr FileName ConfigFile{FileKind::Config, {}};
constexpr std::uint64_t PackLimit = UINT64_C(1) << 33; // bytes
constexpr std::uint64_t TailSize = 64 << 10;           // bytes of a pack in which its header is expected
constexpr std::size_t ScratchLimit = 32 << 20;         // bytes that a thread keeps
constexpr std::uint64_t IndexTextSize = 64 << 20;      // bytes; writers make index files of a few MiB
constexpr std::uint64_t SmallTextSize = 16 << 20;      // bytes, of all files but indexes and packs
constexpr int CompressionLevel = 3;                    // of zstd, for JSON
constexpr unsigned char CompressedMark = 2;            // the first byte of a file whose JSON is compressed

bool IsJson(ByteView content)
{
    return !content.empty() && (content.front() == '{' || content.front() == '[');
}

// The JSON text of a file whose seal was opened.
std::string Unpack(ByteView content, std::uint64_t limit)
{
    if (IsJson(content))
        return std::string(AsText(content));
    REPOSITORY_RAISE_UNLESS(!content.empty() && content.front() == CompressedMark, Failure::Damaged,
                            "damaged: neither JSON nor compressed");
    std::string text;
    DecompressUpTo(content.subspan(1), limit, text);
    return text;
}

// What an index file has.
struct ParsedIndex
{
    // Replaces the content by that of a file whose seal was opened. Packs before the place of a failure stay.
    void Read(ByteView content, std::uint64_t limit, const std::function<void()>& onItem)
    {
        if (ReadPlain(content, limit, onItem))
            return;
        Clear(content);
        if (IsJson(content))
            ReadIndexFile(AsText(content), Adder(), onItem);
        else
            ReadIndexFile(Unpack(content, limit), Adder(), onItem);
    }
    // Returns false for text that is not compressed, is long, or is not as writers write it.
    bool ReadPlain(ByteView content, std::uint64_t limit, const std::function<void()>& onItem)
    {
        if (content.empty() || content.front() != CompressedMark)
            return false;
        Clear(content);
        Decompressor decompressor(content.subspan(1));
        bool isCut = false;
        const TextSource source = [&](std::span<char> out) -> std::size_t {
            Look();
            isCut = limit == 0;
            if (isCut)
                return 0;
            limit -= std::min<std::uint64_t>(limit, out.size());
            return decompressor.Read({reinterpret_cast<unsigned char*>(out.data()), out.size()});
        };
        return ReadPlainIndexFile(source, Adder(), onItem) && !isCut;
    }
    void Clear(ByteView content)
    {
        constexpr std::size_t BytesOfBlob = 32; // compressed, at least, since an id does not shrink
        storedSize = content.size();
        packs.clear();
        count = 0;
        Reserve(content.size() / BytesOfBlob);
    }
    PackVisitor Adder()
    {
        return [this](const Id& pack, std::span<const PackedBlob> ofPack) {
            if (sizeof(PackedBlob) * (count + ofPack.size()) > memory.Size())
                Reserve(2 * (count + ofPack.size()));
            std::uninitialized_copy(ofPack.begin(), ofPack.end(), Blobs() + count);
            count += ofPack.size();
            packs.push_back({pack, count});
        };
    }
    void Reserve(std::size_t blobs)
    {
        Pages larger(sizeof(PackedBlob) * std::max<std::size_t>(blobs, 1));
        std::uninitialized_copy_n(Blobs(), count, reinterpret_cast<PackedBlob*>(larger.Data()));
        memory = std::move(larger);
    }
    PackedBlob* Blobs() const { return reinterpret_cast<PackedBlob*>(memory.Data()); }
    // The blobs of all index files, of which there are `files` with this many bytes.
    std::size_t EstimateAll(std::uint64_t bytes, std::size_t files) const
    {
        constexpr double Spare = 1.02;
        constexpr double Most = 20e6; // a larger index grows
        const double times =
            static_cast<double>(bytes) / static_cast<double>(std::max<std::size_t>(storedSize, 1));
        // What a server lists may be wrong.
        const double most = 2.0 * static_cast<double>(files);
        const double all = Spare * std::min(times, most) * static_cast<double>(count);
        return static_cast<std::size_t>(std::min(all, Most));
    }
    // Many copies of a blob take long, so that a pack is added in steps.
    void AddTo(Index& index, const std::function<void()>& onItem) const
    {
        constexpr std::size_t StepSize = 4096; // blobs
        std::size_t begin = 0;
        for (const auto& [pack, end] : packs) {
            do {
                if (onItem)
                    onItem();
                const std::size_t step = std::min(end - begin, StepSize);
                index.AddPack(pack, {Blobs() + begin, step});
                begin += step;
            } while (begin < end);
        }
    }

    Pages memory;                                  // of the blobs
    std::size_t count = 0;                         // of blobs
    std::vector<std::pair<Id, std::size_t>> packs; // with the end of their blobs
    std::size_t storedSize = 0;                    // bytes of the file
};

// The prefix of the failures of a file, for Named.
auto At(const FileName& file)
{
    return [&file] {
        return file.Prefix();
    };
}

// Calls `call(isAgain)`, which loads and verifies, and once more if what it loaded is damaged: a proxy may
// have sent a page of its own, or a part of the server's answer. Repairs give up what is damaged.
template <class Call>
auto AgainIfDamaged(const Call& call)
{
    try {
        return call(false);
    } catch (const RepositoryError& error) {
        if (error.GetFailure() != Failure::Damaged)
            throw;
    }
    return call(true);
}

void VerifyId(const FileName& file, ByteView content)
{
    REPOSITORY_RAISE_UNLESS(!content.empty(), Failure::Damaged, "damaged: the file is empty");
    REPOSITORY_RAISE_UNLESS(Id::Of(content) == file.id, Failure::Damaged,
                            "damaged: the content does not have the ID that is its name");
}

// Bytes of a file, and of its JSON text, at most.
std::uint64_t LimitOf(FileKind kind)
{
    switch (kind) {
    case FileKind::Pack:
        return PackLimit;
    case FileKind::Index:
        return Repository::UnpackedLimit;
    default:
        return SmallTextSize;
    }
}

using FileSizes = std::unordered_map<Id, std::uint64_t, IdHash>; // in bytes

// The ids of the files of a kind. Their sizes are added to `sizes`.
std::vector<Id> ListSorted(IBackend& backend, FileKind kind, FileSizes* sizes = nullptr)
{
    std::vector<Id> ids;
    backend.List(kind, [&](const Id& id, std::uint64_t size) {
        ids.push_back(id);
        if (sizes != nullptr)
            sizes->insert_or_assign(id, size);
    });
    std::sort(ids.begin(), ids.end());
    ids.erase(std::unique(ids.begin(), ids.end()), ids.end()); // some servers list a name twice
    return ids;
}

// The key files in the order in which they are tried.
std::vector<Id> OrderKeys(IBackend& backend, const std::string& hint)
{
    std::vector<Id> ids = ListSorted(backend, FileKind::Key);
    std::size_t limit = OpenOptions::KeyLimit;
    const auto hinted =
        std::find_if(ids.begin(), ids.end(), [&hint](const Id& id) { return id.ToHex().starts_with(hint); });
    if (!hint.empty() && hinted != ids.end()) {
        std::rotate(ids.begin(), hinted, hinted + 1);
        ++limit;
    }
    ids.resize(std::min(ids.size(), limit));
    return ids;
}

// The master key; nothing if the password is wrong. A file with another id than its name, which the password
// opens all the same, has the right key.
std::optional<Key> TryKeyFile(IBackend& backend, const FileName& file, const Secret& password)
{
    Bytes stored;
    backend.LoadWhole(file, KeyFile::SizeLimit, stored);
    if (Id::Of(stored) != file.id)
        backend.LoadWhole(file, KeyFile::SizeLimit, stored); // see AgainIfDamaged
    return Named(At(file), [&] {
        std::optional<Key> master = KeyFile::Parse(AsText(stored)).Unlock(password);
        if (!master)
            VerifyId(file, stored);
        return master;
    });
}

std::pair<Id, Key> FindKey(IBackend& backend, const Secret& password, const OpenOptions& options)
{
    std::vector<std::pair<FileName, RepositoryError>> unread;
    bool wasTried = false;
    for (const Id& id : OrderKeys(backend, options.keyHint)) {
        const FileName file{FileKind::Key, id};
        try {
            if (std::optional<Key> master = TryKeyFile(backend, file, password))
                return {id, std::move(*master)};
            wasTried = true;
        } catch (const RepositoryError& error) {
            unread.emplace_back(file, error);
        }
    }
    if (!wasTried && !unread.empty())
        throw RepositoryError(unread.front().second);
    for (const auto& [file, error] : unread) {
        if (options.onUnreadKey)
            options.onUnreadKey(file, error);
    }
    REPOSITORY_RAISE(Failure::WrongPassword, (wasTried ? "The password opens no key of the repository at "
                                                       : "There are no keys in the repository at ")
                                                 << backend.Describe());
}

Bytes LoadConfig(IBackend& backend)
{
    Bytes stored;
    try {
        backend.LoadWhole(ConfigFile, KeyFile::SizeLimit, stored);
    } catch (const RepositoryError& error) {
        if (error.GetFailure() != Failure::Missing)
            throw;
        REPOSITORY_RAISE(Failure::NoRepository, "There is no repository at " << backend.Describe());
    }
    return stored;
}

[[noreturn]] void RaiseTaken(const IBackend& backend)
{
    KRT_RAISE(Krt::ErrorCode::InvalidArgument, "There is already a repository at " << backend.Describe());
}

void RequireNoRepository(IBackend& backend)
{
    bool isTaken = true;
    try {
        backend.Size(ConfigFile);
    } catch (const RepositoryError& error) {
        if (error.GetFailure() != Failure::Missing)
            throw;
        isTaken = false;
    }
    if (isTaken)
        RaiseTaken(backend);
    const auto isEmpty = [&backend](FileKind kind) {
        try {
            return ListSorted(backend, kind).empty();
        } catch (const RepositoryError& error) {
            if (error.GetFailure() != Failure::Missing && error.GetFailure() != Failure::NoRepository)
                throw;
            return true; // Prepare makes the place
        }
    };
    KRT_RAISE_UNLESS(isEmpty(FileKind::Key) && isEmpty(FileKind::Snapshot), Krt::ErrorCode::InvalidArgument,
                     "There are keys or snapshots of a repository without a configuration at "
                         << backend.Describe());
}

std::string MakeKeyFile(const Key& master, const Secret& password, const KeyOptions& options)
{
    KeyFile file;
    file.created = Timestamp::Now();
    file.username = options.username;
    file.hostname = options.hostname;
    file.cost = options.cost;
    file.SetMaster(master, password);
    return file.ToJson();
}

// Removes what an operation that failed has saved. What raises is the reason for that, not this.
// Returns false if the file is missing or has other content. An error of a save may come after the file was
// stored.
bool MayBeStored(IBackend& backend, const FileName& file, ByteView content)
{
    try {
        Bytes stored;
        backend.LoadWhole(file, content.size(), stored);
        return std::ranges::equal(stored, content);
    } catch (const RepositoryError& error) {
        return error.GetFailure() != Failure::Missing && error.GetFailure() != Failure::Damaged;
    } catch (const Krt::Exception::YError&) {
        return true;
    }
}

void RemoveQuietly(IBackend& backend, const FileName& file)
{
    try {
        backend.Remove(file);
    } catch (const Krt::Exception::YError& error) {
        KRT_LOG_FREE(Krt::MessageType::General, "Failed to remove a file of the repository: " << error);
    }
}

// Begins the message of a failure.
YString PrefixOf(const Id& pack, const PackedBlob& blob)
{
    return YString(std::string_view(FileName{FileKind::Pack, pack}.Path() + ": blob " +
                                    blob.handle.ToText().Bytes() + " at offset " +
                                    std::to_string(blob.offset) + ": "));
}

// Calls `call`, which takes memory for the blob, unless the blob is too long.
template <class Call>
void RunInMemoryFor(const Id& pack, const PackedBlob& blob, const Call& call)
{
    const std::uint32_t size = std::max(blob.length, blob.plainLength);
    REPOSITORY_RAISE_UNLESS(!blob.IsTooLong(), Failure::Damaged,
                            PrefixOf(pack, blob)
                                << "damaged: its " << size << " bytes are more than the limit of "
                                << BlobSizeLimit(blob.handle.type));
    try {
        call();
    } catch (const std::bad_alloc&) {
        REPOSITORY_RAISE(Failure::NoMemory, PrefixOf(pack, blob)
                                                << "not enough memory for its " << size << " bytes");
    }
}

// Verifies the content that `decode` returns. Failures name the blob.
template <class Decode>
void DecodeVerified(const Id& pack, const PackedBlob& blob, const Decode& decode)
{
    const auto describe = [&] {
        return PrefixOf(pack, blob);
    };
    const auto verify = [&] {
        REPOSITORY_RAISE_UNLESS(Id::Of(decode()) == blob.handle.id, Failure::Damaged,
                                "damaged: the content has another id");
    };
    RunInMemoryFor(pack, blob, [&] { Named(describe, verify); });
}

} // namespace

// What was found to be lost of what the index has. Any thread may add blobs; packs are found before.
struct Repository::Lost
{
    std::atomic<bool> isAny{false};
    std::vector<bool> packs; // by number; empty if all exist
    Krt::Thread::AnnotatedMutex mutex;
    std::unordered_set<BlobHandle, BlobHandleHash> blobs KRT_GUARDED_BY(mutex);

    void Add(const BlobHandle& handle)
    {
        const Krt::Thread::AnnotatedLock lock(mutex);
        blobs.insert(handle);
        isAny = true;
    }
    bool Has(const BlobHandle& handle)
    {
        const Krt::Thread::AnnotatedLock lock(mutex);
        return blobs.contains(handle);
    }
};

Repository::Repository(std::shared_ptr<IBackend> backend, Config config, Key key, const Id& keyId)
    : m_backend(std::move(backend)), m_config(std::move(config)), m_key(std::move(key)), m_keyId(keyId),
      m_lost(std::make_shared<Lost>())
{}

Repository Repository::Open(std::shared_ptr<IBackend> backend, const Secret& password,
                            const OpenOptions& options)
{
    Bytes stored = LoadConfig(*backend);
    auto [keyId, key] = FindKey(*backend, password, options);
    Config config = AgainIfDamaged([&, &master = key](bool isAgain) {
        if (isAgain)
            stored = LoadConfig(*backend);
        return Named(At(ConfigFile), [&] { return Config::Parse(AsText(OpenInPlace(master, stored))); });
    });
    return Repository(std::move(backend), std::move(config), std::move(key), keyId);
}

Repository Repository::Create(std::shared_ptr<IBackend> backend, const Secret& password,
                              const CreateOptions& options)
{
    KRT_RAISE_UNLESS(options.version >= Config::OldestVersion && options.version <= Config::NewestVersion,
                     Krt::ErrorCode::InvalidArgument,
                     "Version " << options.version << " of the format is not supported");
    RequireNoRepository(*backend);
    Config config = Config::Random(options.version);
    config.polynomial = options.polynomial.value_or(config.polynomial);
    Key key = Key::Random();
    const std::string keyText = MakeKeyFile(key, password, options);
    const Id keyId = Id::Of(AsBytes(keyText));
    Bytes sealed;
    Seal(key, AsBytes(config.ToJson()), sealed);
    // Made first, since nothing may fail once the configuration exists.
    Repository created(std::move(backend), std::move(config), std::move(key), keyId);
    IBackend& files = created.GetBackend();
    files.Prepare();
    files.Save({FileKind::Key, keyId}, AsBytes(keyText));
    try {
        if (!files.SaveNew(ConfigFile, sealed))
            RaiseTaken(files); // another process was faster
    } catch (...) {
        if (!MayBeStored(files, ConfigFile, sealed))
            RemoveQuietly(files, {FileKind::Key, keyId}); // otherwise nobody could open the repository
        throw;
    }
    return created;
}

void Repository::LoadStored(const FileName& file, Bytes& out, std::uint64_t limit) const
{
    AgainIfDamaged([&](bool) {
        m_backend->LoadWhole(file, std::min(limit, LimitOf(file.kind)), out);
        if (file.kind != FileKind::Config)
            Named(At(file), [&] { VerifyId(file, out); });
    });
}

std::string Repository::LoadText(const FileName& file) const
{
    Bytes stored;
    LoadStored(file, stored);
    return Named(At(file), [&] {
        const ByteView content = OpenInPlace(m_key, stored);
        return file.kind == FileKind::Config ? std::string(AsText(content))
                                             : Unpack(content, LimitOf(file.kind));
    });
}

Id Repository::SaveText(FileKind kind, std::string_view json) const
{
    Id id;
    SaveText(kind, json, id);
    return id;
}

void Repository::SaveText(FileKind kind, std::string_view json, Id& id) const
{
    // Compressed and sealed in one place, since the text of an index file is long.
    const bool isCompressed = m_config.version >= 2;
    const std::size_t room = isCompressed ? 1 + CompressBound(json.size()) : json.size();
    const Pages pages(room + SealOverhead);
    const std::span<unsigned char> content(pages.Data() + CiphertextOffset, room);
    std::size_t size = json.size();
    if (isCompressed) {
        content.front() = CompressedMark;
        size = 1 + CompressInto(AsBytes(json), content.subspan(1), CompressionLevel).size();
    }
    const std::span<unsigned char> sealed(pages.Data(), size + SealOverhead);
    SealInto(m_key, isCompressed ? ByteView(content.first(size)) : AsBytes(json), sealed);
    id = Id::Of(sealed);
    m_backend->Save({kind, id}, sealed);
}

Id Repository::SavePack(ByteView pack, BlobType type) const
{
    const Id id = Id::Of(pack);
    m_backend->Save({FileKind::Pack, id, type == BlobType::Tree}, pack);
    return id;
}

Id Repository::AddKey(const Secret& password, const KeyOptions& options) const
{
    const std::string text = MakeKeyFile(m_key, password, options);
    // Another key may be removed in favour of this one, so that it works is not taken for granted.
    const std::optional<Key> opened = KeyFile::Parse(text).Unlock(password);
    KRT_RAISE_UNLESS(opened && std::ranges::equal(opened->Encryption(), m_key.Encryption()),
                     Krt::ErrorCode::CryptoFailure, "A new key file can't be opened");
    const FileName file{FileKind::Key, Id::Of(AsBytes(text))};
    m_backend->Save(file, AsBytes(text));
    Bytes stored;
    LoadStored(file, stored);
    return file.id;
}

bool Repository::RemoveFile(const FileName& file, const FailureVisitor& onFailure) const
{
    try {
        m_backend->Remove(file);
        return true;
    } catch (const RepositoryError& error) {
        if (!onFailure)
            throw;
        onFailure(file, error);
        return false;
    }
}

void Repository::RemoveKey(const Id& id) const
{
    KRT_RAISE_UNLESS(id != m_keyId, Krt::ErrorCode::InvalidArgument,
                     "The key of the password in use can't be removed");
    const std::vector<Id> ids = ListIds(FileKind::Key);
    const bool isThere = std::find(ids.begin(), ids.end(), id) != ids.end();
    KRT_RAISE_UNLESS(!isThere || ids.size() > 1, Krt::ErrorCode::InvalidArgument,
                     "The last key can't be removed");
    m_backend->Remove({FileKind::Key, id});
}

Id Repository::ReplaceKey(const Secret& password, const KeyOptions& options, const FailureVisitor& onLeft)
{
    const Id old = std::exchange(m_keyId, AddKey(password, options));
    try {
        RemoveKey(old);
    } catch (const RepositoryError& error) {
        if (!onLeft)
            throw;
        onLeft({FileKind::Key, old}, error);
    }
    return m_keyId;
}

void Repository::UpgradeFormat()
{
    KRT_RAISE_UNLESS(m_config.version == 1, Krt::ErrorCode::InvalidArgument,
                     "The repository already has version " << m_config.version << " of the format");
    Config config = m_config;
    config.version = 2;
    Bytes sealed;
    Seal(m_key, AsBytes(config.ToJson()), sealed);
    m_backend->Save(ConfigFile, sealed);
    m_config = std::move(config);
}

std::vector<Id> Repository::ListIds(FileKind kind) const
{
    return ListSorted(*m_backend, kind);
}

std::vector<PackedBlob> Repository::LoadPackHeader(const Id& pack, std::uint64_t size) const
{
    return AgainIfDamaged([&](bool) {
        const FileName file{FileKind::Pack, pack};
        Bytes tail;
        const std::uint64_t tailSize = std::min(size, TailSize);
        m_backend->Load(file, size - tailSize, tailSize, tail);
        const std::uint64_t headerSize = Named(At(file), [&] { return ReadPackHeaderLength(tail, size); });
        const std::uint64_t blobBytes = size - (headerSize + PackOverhead - SealOverhead);
        if (size - blobBytes > tail.size())
            m_backend->Load(file, blobBytes, size - blobBytes, tail);
        return Named(At(file), [&] {
            const std::size_t begin = tail.size() - (size - blobBytes);
            const ByteView header = OpenInPlace(m_key, std::span(tail).subspan(begin, headerSize));
            return ParsePackHeader(header, blobBytes);
        });
    });
}

void Repository::LoadIndex(const FailureVisitor& onFailure, unsigned int threads,
                           const std::function<void()>& onItem)
{
    Index index;
    FileSizes sizes;
    const std::vector<Id> ids = ListSorted(*m_backend, FileKind::Index, &sizes);
    std::uint64_t bytes = 0; // of all index files
    for (const auto& listed : sizes)
        bytes += listed.second;
    std::mutex largeFiles;
    const auto read = [&](std::size_t number, ParsedIndex& parsed) {
        const FileName file{FileKind::Index, ids[number]};
        Bytes stored;
        LoadStored(file, stored, sizes.at(file.id));
        Named(At(file), [&] {
            const ByteView content = OpenInPlace(m_key, stored);
            try {
                parsed.Read(content, IndexTextSize, onItem);
            } catch (const RepositoryError&) {
                // Longer than writers make them, or damaged.
                const std::lock_guard guard(largeFiles);
                parsed.Read(content, UnpackedLimit, onItem);
            }
        });
    };
    const auto add = [&](std::size_t number, const ParsedIndex& parsed, const std::exception_ptr& failure) {
        if (index.CountBlobs() == 0)
            index.Reserve(parsed.EstimateAll(bytes, ids.size()));
        parsed.AddTo(index, onItem);
        try {
            if (failure)
                std::rethrow_exception(failure);
        } catch (const RepositoryError& error) {
            if (!onFailure)
                throw;
            onFailure({FileKind::Index, ids[number]}, error);
        }
    };
    RunInOrder<ParsedIndex>(ids.size(), threads, read, add);
    m_index = std::move(index);
    m_lost = std::make_shared<Lost>();
}

bool Repository::HasBlob(const BlobHandle& handle) const
{
    if (!m_lost->isAny)
        return m_index.Has(handle);
    if (m_lost->Has(handle))
        return false;
    const std::vector<IndexedBlob> copies = m_index.FindAll(handle);
    return std::any_of(copies.begin(), copies.end(), [this](const IndexedBlob& copy) {
        return m_lost->packs.empty() || !m_lost->packs[copy.pack];
    });
}

bool Repository::IsReadable(const BlobHandle& handle) const
{
    if (!HasBlob(handle))
        return false;
    try {
        Bytes plaintext;
        LoadBlob(handle, plaintext);
        return true;
    } catch (const RepositoryError&) {
        return false;
    }
}

std::vector<FileName> Repository::FindLostPacks()
{
    const std::vector<IndexedPack>& packs = m_index.GetPacks();
    std::vector<bool> isLost(packs.size(), true);
    m_backend->List(FileKind::Pack, [&](const Id& id, std::uint64_t size) {
        const auto number = m_index.FindPack(id);
        if (number && size >= packs[*number].size)
            isLost[*number] = false;
    });
    std::vector<FileName> names;
    for (std::size_t number = 0; number < packs.size(); ++number) {
        if (isLost[number])
            names.push_back({FileKind::Pack, packs[number].id});
    }
    m_lost->packs = std::move(isLost);
    m_lost->isAny = m_lost->isAny || !names.empty();
    return names;
}

LargeBlobTurn Repository::TakeTurnFor(std::uint32_t length)
{
    static std::recursive_mutex s_mutex;
    return length > LargeBlobSize ? LargeBlobTurn(s_mutex) : LargeBlobTurn();
}

void Repository::LoadBlob(const BlobHandle& handle, Bytes& plaintext) const
{
    std::exception_ptr raised;
    bool isLost = true;
    bool mayBeWhole = false; // the copy that raised this
    for (const IndexedBlob& copy : m_index.FindAll(handle)) {
        try {
            LoadCopy(copy, plaintext);
            return;
        } catch (const RepositoryError& error) {
            isLost = isLost && error.GetFailure() != Failure::NoMemory;
            const bool isWhole =
                error.GetFailure() != Failure::Damaged && error.GetFailure() != Failure::Missing;
            if (!raised || (isWhole && !mayBeWhole))
                raised = std::current_exception();
            mayBeWhole = mayBeWhole || isWhole;
        }
    }
    if (raised) {
        if (isLost)
            m_lost->Add(handle);
        std::rethrow_exception(raised);
    }
    REPOSITORY_RAISE(Failure::Missing, "The index does not have the blob " << handle.ToText());
}

void Repository::VisitTree(const Id& tree, const std::function<bool(Node& node)>& visit,
                           UnknownMembers unknown, BadEntryVisitor onBadEntry) const
{
    const BlobHandle handle{BlobType::Tree, tree};
    const LargeBlobTurn turn = TakeTurnFor(m_index.LengthOf(handle));
    Bytes text;
    LoadBlob(handle, text);
    const auto describe = [&handle] {
        return YString(std::string_view(handle.ToText().Bytes() + ": "));
    };
    TreeReader reader(AsText(text), unknown, std::move(onBadEntry));
    Node node;
    while (Named(describe, [&] { return reader.Next(node); })) {
        if (!visit(node))
            return;
    }
}

void Repository::LoadCopy(const IndexedBlob& copy, Bytes& plaintext) const
{
    thread_local Bytes sealed;
    const LargeBlobTurn turn = TakeTurnFor(std::max(copy.blob.length, copy.blob.plainLength));
    const Krt::Util::YScope atEnd([] {
        if (sealed.capacity() > ScratchLimit)
            Bytes().swap(sealed);
    });
    AgainIfDamaged([&](bool isAgain) {
        // Without the hint, a copy that the backend keeps is not used.
        const FileName file{FileKind::Pack, m_index.GetPacks()[copy.pack].id,
                            copy.blob.handle.type == BlobType::Tree && !isAgain};
        RunInMemoryFor(file.id, copy.blob,
                       [&] { m_backend->Load(file, copy.blob.offset, copy.blob.length, sealed); });
        DecodeBlob(file.id, copy.blob, sealed, plaintext);
    });
}

void Repository::DecodeBlob(const Id& pack, const PackedBlob& blob, std::span<unsigned char> sealed,
                            Bytes& plaintext) const
{
    const LargeBlobTurn turn = TakeTurnFor(std::max(blob.length, blob.plainLength));
    DecodeVerified(pack, blob, [&]() -> ByteView {
        try {
            if (blob.isCompressed) {
                Decompress(OpenInPlace(m_key, sealed), blob.plainLength, plaintext);
            } else {
                ResizeToReplace(plaintext, sealed.size() - std::min(sealed.size(), SealOverhead));
                OpenInto(m_key, sealed, plaintext);
            }
            return plaintext;
        } catch (const std::bad_alloc&) {
            Bytes().swap(plaintext);
            throw;
        }
    });
}

void Repository::DecodeBlobInto(const Id& pack, const PackedBlob& blob, std::span<unsigned char> sealed,
                                std::span<unsigned char> plaintext) const
{
    DecodeVerified(pack, blob, [&]() -> ByteView {
        if (blob.isCompressed)
            DecompressInto(OpenInPlace(m_key, sealed), plaintext);
        else
            OpenInto(m_key, sealed, plaintext);
        return plaintext;
    });
}

Snapshot Repository::LoadSnapshot(const Id& id) const
{
    const FileName file{FileKind::Snapshot, id};
    const std::string text = LoadText(file);
    return Named(At(file), [&] { return Snapshot::Parse(text); });
}

std::vector<StoredSnapshot> Repository::LoadSnapshots(const SnapshotFilter& filter,
                                                      const FailureVisitor& onFailure) const
{
    std::vector<StoredSnapshot> snapshots;
    for (const Id& id : ListIds(FileKind::Snapshot)) {
        try {
            Snapshot snapshot = LoadSnapshot(id);
            if (filter.Matches(snapshot))
                snapshots.push_back({id, std::move(snapshot)});
        } catch (const RepositoryError& error) {
            if (!onFailure)
                throw;
            onFailure({FileKind::Snapshot, id}, error);
        }
    }
    std::stable_sort(
        snapshots.begin(), snapshots.end(),
        [](const StoredSnapshot& a, const StoredSnapshot& b) { return a.snapshot.time < b.snapshot.time; });
    return snapshots;
}

StoredSnapshot Repository::FindSnapshot(std::string_view text, const SnapshotFilter& filter,
                                        const FailureVisitor& onFailure) const
{
    const YString name(text);
    if (text == "latest") {
        std::vector<StoredSnapshot> snapshots = LoadSnapshots(filter, onFailure);
        KRT_RAISE_UNLESS(!snapshots.empty(), Krt::ErrorCode::InvalidArgument, "There is no such snapshot");
        return std::move(snapshots.back());
    }
    std::vector<Id> ids = ListIds(FileKind::Snapshot);
    std::erase_if(ids, [text](const Id& id) { return !id.ToHex().starts_with(text); });
    KRT_RAISE_UNLESS(!text.empty() && !ids.empty(), Krt::ErrorCode::InvalidArgument,
                     "There is no snapshot '" << name << "'");
    KRT_RAISE_UNLESS(ids.size() == 1, Krt::ErrorCode::InvalidArgument,
                     "Several snapshots begin with '" << name << "'");
    return {ids.front(), LoadSnapshot(ids.front())};
}

} // namespace Agent::Repo
