// IBackend: where the files of a repository are. It stores whole files under a kind and an id and knows
// nothing of their content. Files are written once, never changed, and removed as a whole.
#pragma once

#include "agent/Repository/Id.h"

#include "Krt/String/YString.h"

#include <cstdint>
#include <functional>

namespace Agent::Repo {

/// What a file is, which decides the directory that it is in.
enum class FileKind
{
    Config,   ///< the one file without an id
    Key,      ///< the master key, sealed with a password
    Lock,     ///< a process that uses the repository
    Snapshot, ///< the root of one backup
    Index,    ///< where blobs are
    Pack      ///< blobs
};

/// Names a file.
struct FileName
{
    FileKind kind = FileKind::Config;
    Id id; ///< not used for FileKind::Config
    /// A hint for a backend that keeps copies: of this pack, blobs of trees are used. Not part of the name.
    bool hasTrees = false;

    /// The path in the layout that all backends share, relative to the repository: "config", "keys/ID",
    /// "locks/ID", "snapshots/ID", "index/ID" or "data/HH/ID". HH is the first two digits of ID.
    std::string Path() const;
    /// Path() and ": ", which begins the message of a failure.
    Krt::YString Prefix() const;

    friend bool operator==(const FileName& a, const FileName& b) { return a.kind == b.kind && a.id == b.id; }
};

/// Any number of threads may use a backend at once. Every operation raises Failure::Backend if the location
/// can't be read or written, and Unreachable if that is for lack of a connection to the server.
class IBackend
{
public:
    virtual ~IBackend() = default;

    /// Where the repository is, for messages: a path or an address without credentials.
    virtual Krt::YString Describe() const = 0;
    /// Creates what the location of a repository needs: directories, or a bucket. What exists is kept.
    virtual void Prepare() = 0;

    /// Replaces the content of `out` with `length` bytes of the file from `offset` on. Raises Missing if the
    /// file does not exist, and Damaged if it ends before. `out` is unspecified after a failure. Memory is
    /// taken only for bytes that the file has.
    virtual void Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Bytes& out) = 0;
    /// Replaces the content of `out` with the whole file. Raises Missing if it does not exist, and Damaged if
    /// it has more than `limit` bytes.
    virtual void LoadWhole(const FileName& file, std::uint64_t limit, Bytes& out) = 0;
    /// The size in bytes. Raises Missing if the file does not exist.
    virtual std::uint64_t Size(const FileName& file) = 0;
    /// Calls `visit` for each file of the kind with its id and its size in bytes, in no particular order.
    /// Entries that are not named by 64 hexadecimal digits in lower case are ignored, as is a local directory
    /// that does not exist, unless RequirePlace raises for it. Raises Missing or NoRepository if a server
    /// lacks the place that Prepare makes. What `visit` raises passes through. The kind is not Config.
    virtual void List(FileKind kind, const std::function<void(const Id& id, std::uint64_t size)>& visit) = 0;

    /// Raises Missing if the kind is Snapshot, and its local directory does not exist. Nothing can be saved
    /// in that until Prepare or the user has created it: an empty one would look as if all snapshots had been
    /// removed on purpose. Does nothing for other kinds, and if the store is on a server.
    virtual void RequirePlace(FileKind kind) { static_cast<void>(kind); }
    /// Verifies that List does not ignore files of the kind, such as snapshots. Raises what RequirePlace
    /// does, and Damaged if one is named by digits in upper case. Does nothing if the store is on a server.
    virtual void RequireComplete(FileKind kind) { static_cast<void>(kind); }

    /// Stores a file, which is complete and durable when this returns. Other processes see the whole file
    /// or no file, also after a failure. A file that has this name is replaced. Raises what RequirePlace
    /// does.
    virtual void Save(const FileName& file, ByteView content) = 0;
    /// Stores a file as Save does, unless one has this name. Returns false, without a change, if one has,
    /// also if another process was faster.
    virtual bool SaveNew(const FileName& file, ByteView content) = 0;
    /// Removes a file. A file that does not exist counts as removed.
    virtual void Remove(const FileName& file) = 0;
};

} // namespace Agent::Repo
