// Repository: an open repository. It finds files and blobs, verifies and decrypts them. All operations but
// LoadIndex may be called by any number of threads at once. All may raise what the backend raises, with
// Missing for a file that does not exist and Damaged for one that, loaded twice, is not what was stored.
#pragma once

#include "agent/Repository/Backend.h"
#include "agent/Repository/Config.h"
#include "agent/Repository/Failure.h"
#include "agent/Repository/Index.h"
#include "agent/Repository/KeyFile.h"
#include "agent/Repository/Snapshot.h"
#include "agent/Repository/Tree.h"

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent::Repo {

/// Called for a file that can't be read. What it raises ends the operation.
using FailureVisitor = std::function<void(const FileName& file, const RepositoryError& error)>;

/// How a repository is opened.
struct OpenOptions
{
    /// Key files that are tried after the hinted one.
    static constexpr int KeyLimit = 20;

    std::string keyHint;        ///< first digits of the id of the key file to be tried first; may be empty
    FailureVisitor onUnreadKey; ///< called before WrongPassword for key files that could not be tried
};

/// How a key file is made.
struct KeyOptions
{
    ScryptCost cost;      ///< of the password
    std::string username; ///< noted in the key file
    std::string hostname; ///< noted in the key file
};

/// How a repository is created.
struct CreateOptions : KeyOptions
{
    std::uint32_t version = Config::NewestVersion; ///< of the format
    std::optional<Polynomial> polynomial;          ///< that of another repository; a random one if not given
};

/// While a thread has it, no other one of the process takes memory for a blob above LargeBlobSize.
using LargeBlobTurn = std::unique_lock<std::recursive_mutex>;

class Repository
{
public:
    /// Bytes of the JSON text of an index file, and of the stored file, at most. Other text has 16 MiB.
    static constexpr std::uint64_t UnpackedLimit = 1 << 30;

    /// Opens a repository. Tries the hinted key file, and then others in the order of their ids. A key file
    /// that can't be read is skipped. Raises NoRepository if there is no configuration, or one of an unknown
    /// version. If no key file fits, raises WrongPassword. If there are key files, and the password could not
    /// be tried with any of them, raises the failure of the first.
    static Repository Open(std::shared_ptr<IBackend> backend, const Secret& password,
                           const OpenOptions& options = {});
    /// Creates a repository with one key file, and opens it. Raises InvalidArgument if the location already
    /// has a configuration, key files or snapshots, also if another process is faster to create them. After
    /// another failure the location does not have any of them.
    static Repository Create(std::shared_ptr<IBackend> backend, const Secret& password,
                             const CreateOptions& options = {});

    const Config& GetConfig() const { return m_config; }
    /// The master key.
    const Key& GetKey() const { return m_key; }
    /// The key file by which the repository was opened.
    const Id& GetKeyId() const { return m_keyId; }
    IBackend& GetBackend() const { return *m_backend; }

    // Files.
    /// Replaces the content of `out` with the stored bytes of a file, and verifies that they have its id. A
    /// configuration is not verified. For a pack the memory is that of the whole file. Raises Damaged if the
    /// file has more than `limit` bytes, such as the size that was listed.
    void LoadStored(const FileName& file, Bytes& out, std::uint64_t limit = UINT64_MAX) const;
    /// The JSON text of a snapshot, index or lock file, or of the configuration.
    std::string LoadText(const FileName& file) const;
    /// Seals JSON text, compressed in version 2, and saves it as a file of this kind: Snapshot, Index or
    /// Lock. Returns its id.
    Id SaveText(FileKind kind, std::string_view json) const;
    /// Seals JSON text and saves it as a file of this kind: Snapshot, Index or Lock. Sets `id` before it
    /// saves: after a failure, the file may exist.
    void SaveText(FileKind kind, std::string_view json, Id& id) const;
    /// Saves a pack and returns its id. The caller adds its blobs, which are of this type, to the index.
    Id SavePack(ByteView pack, BlobType type = BlobType::Data) const;
    /// Removes a file, and returns true. With `onFailure`, an error of the backend is given to it, and the
    /// result is false; otherwise it raises.
    bool RemoveFile(const FileName& file, const FailureVisitor& onFailure = {}) const;
    /// The ids of the files of a kind, sorted.
    std::vector<Id> ListIds(FileKind kind) const;
    /// The blobs of a pack, read from its own header. `size` is the size of the file in bytes.
    std::vector<PackedBlob> LoadPackHeader(const Id& pack, std::uint64_t size) const;

    // Keys and configuration.
    /// Adds a key file for a further password, and returns its id.
    Id AddKey(const Secret& password, const KeyOptions& options) const;
    /// Removes a key file. Raises InvalidArgument if it is the one by which the repository was opened, or the
    /// last one.
    void RemoveKey(const Id& id) const;
    /// Replaces the key file by which the repository was opened: adds one, then removes that. Returns the
    /// new id. With `onLeft`, the old file is given to it if it can't be removed; otherwise that raises, and
    /// both remain. No other thread uses the repository meanwhile.
    Id ReplaceKey(const Secret& password, const KeyOptions& options, const FailureVisitor& onLeft = {});
    /// Changes the format from version 1 to 2: replaces the configuration. Raises InvalidArgument for version
    /// 2. No other thread uses the repository meanwhile.
    void UpgradeFormat();

    // Blobs.
    /// Reads all index files, on this many threads. The index has the order of the files' ids. Snapshots that
    /// are to be complete are listed before. With `onFailure`, index files that can't be read are given to it
    /// on the calling thread, and skipped; otherwise the first one raises, and the index is unchanged. No
    /// other thread uses the repository meanwhile. Memory beyond that of the index is that of the stored
    /// bytes and the blobs of one index file for each thread, and of one more. `onItem` is called often by
    /// any of the threads. What it raises, which is not a RepositoryError, ends the call, and the index is
    /// unchanged.
    void LoadIndex(const FailureVisitor& onFailure = {}, unsigned int threads = 1,
                   const std::function<void()>& onItem = {});
    /// Empty before LoadIndex.
    const Index& GetIndex() const { return m_index; }
    /// Returns true if the index has the blob, and it was not found to be lost: LoadBlob could not read it,
    /// or its packs are lost. A backup saves again what is lost.
    bool HasBlob(const BlobHandle& handle) const;
    /// Returns true if HasBlob does, and the blob can be read now. Otherwise it counts as lost from now on.
    bool IsReadable(const BlobHandle& handle) const;
    /// Finds the packs of the index that are missing or shorter than the index expects, so that their blobs
    /// count as lost. Returns their names. No other thread uses the repository meanwhile.
    std::vector<FileName> FindLostPacks();
    /// Waits for the turn if a blob of this many bytes, sealed or not, is above LargeBlobSize; otherwise the
    /// result has none. LoadBlob, VisitTree and DecodeBlob take it themselves until they return, so it is for
    /// threads that keep such a blob longer. They release its memory before.
    static LargeBlobTurn TakeTurnFor(std::uint32_t length);
    /// Replaces the content of `plaintext` with a blob, and verifies it. Copies in several packs are tried
    /// one after the other. Raises Missing if the index does not have it, otherwise what the first copy
    /// raised; Damaged and Missing only if all copies are damaged or missing. Memory of `plaintext` is
    /// reused, so a caller keeps one for each thread. Raises Damaged for a copy that is longer than
    /// BlobSizeLimit, and NoMemory if there is not enough memory for it.
    void LoadBlob(const BlobHandle& handle, Bytes& plaintext) const;
    /// Does what LoadBlob does with one copy, which the index has. A damaged one is loaded once more.
    void LoadCopy(const IndexedBlob& copy, Bytes& plaintext) const;
    /// Loads a tree and calls `visit` for each node, which it may change, until it returns false. Failures to
    /// read the tree name it; what `visit` raises passes through. Nodes are checked as TreeReader does, which
    /// also states the meaning of `onBadEntry`. The tree's text is in memory until this returns.
    void VisitTree(const Id& tree, const std::function<bool(Node& node)>& visit,
                   UnknownMembers unknown = UnknownMembers::Ignore, BadEntryVisitor onBadEntry = {}) const;
    /// Replaces the content of `plaintext` with a blob whose sealed bytes the caller has read, as described
    /// by `blob`, from `pack`. Raises Damaged if they are not this blob or it is longer than BlobSizeLimit,
    /// and NoMemory. `sealed` is changed.
    void DecodeBlob(const Id& pack, const PackedBlob& blob, std::span<unsigned char> sealed,
                    Bytes& plaintext) const;
    /// DecodeBlob into memory of `blob.plainLength` bytes, for a blob of LargeBlobSize bytes at most. What
    /// the memory contains after a failure was not verified.
    void DecodeBlobInto(const Id& pack, const PackedBlob& blob, std::span<unsigned char> sealed,
                        std::span<unsigned char> plaintext) const;

    // Snapshots.
    Snapshot LoadSnapshot(const Id& id) const;
    /// The snapshots that the filter chooses, from the oldest to the newest. With `onFailure`, those that
    /// can't be read are given to it and skipped; otherwise the first one raises.
    std::vector<StoredSnapshot> LoadSnapshots(const SnapshotFilter& filter = {},
                                              const FailureVisitor& onFailure = {}) const;
    /// The snapshot that the text names: "latest" for the newest that the filter chooses, or the first digits
    /// of an id, to which the filter does not apply. Raises InvalidArgument if no snapshot fits, or if
    /// the digits fit several. For "latest", `onFailure` is as in LoadSnapshots.
    StoredSnapshot FindSnapshot(std::string_view text, const SnapshotFilter& filter = {},
                                const FailureVisitor& onFailure = {}) const;

private:
    Repository(std::shared_ptr<IBackend> backend, Config config, Key key, const Id& keyId);

    struct Lost;

    std::shared_ptr<IBackend> m_backend;
    Config m_config;
    Key m_key;
    Id m_keyId;
    Index m_index;
    std::shared_ptr<Lost> m_lost;
};

} // namespace Agent::Repo
