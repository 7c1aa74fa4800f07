// KeyFile: the master key of a repository, sealed with a key that scrypt derives from a password. Each
// password has a file of its own in keys/, in plain JSON.
#pragma once

#include "agent/Repository/Sealing.h"
#include "agent/Repository/Timestamp.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Agent::Repo {

/// What the derivation of a key costs: N rounds over N * r * 128 bytes, p times.
struct ScryptCost
{
    std::uint64_t n = 32768; ///< N, a power of two above 1
    std::uint32_t r = 8;     ///< block size
    std::uint32_t p = 5;     ///< parallelization

    /// Returns true if the parameters are valid, need at most 1 GiB of memory, and N * r * p is at most 2^28,
    /// which takes about a minute.
    bool IsAcceptable() const;
};

/// Derives 64 bytes: a Key. Raises InvalidArgument if the cost is not acceptable, CryptoFailure and
/// OutOfMemory.
Key DeriveKey(const Secret& password, ByteView salt, const ScryptCost& cost);

/// The JSON text of a master key, as it is sealed in a key file.
Secret MasterKeyText(const Key& master);

struct KeyFile
{
    static constexpr std::size_t SaltSize = 64;       ///< bytes
    static constexpr std::size_t SizeLimit = 1 << 20; ///< bytes of a file that is read

    Timestamp created;
    std::string username; ///< who added the password
    std::string hostname; ///< where
    ScryptCost cost;
    Bytes salt;
    Bytes data; ///< the sealed master key

    /// Reads a file. Raises Damaged with the offset for text that is not a key file, for another function
    /// than scrypt, and for a cost that is not acceptable.
    static KeyFile Parse(std::string_view json);
    /// The file's text.
    std::string ToJson() const;

    /// Seals `master` with the password and a random salt, into `salt` and `data`.
    void SetMaster(const Key& master, const Secret& password);
    /// The master key; nothing if the password is wrong. Raises Damaged if the password fits but the content
    /// is not a key. Needs the memory of the cost while it runs.
    std::optional<Key> Unlock(const Secret& password) const;
};

} // namespace Agent::Repo
