// Node: an entry of a directory, as trees have it.
#pragma once

#include "agent/Repository/Id.h"
#include "agent/Repository/Json.h"
#include "agent/Repository/Timestamp.h"

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace Agent::Repo {

/// What an entry is.
enum class NodeType : unsigned char
{
    File,
    Directory,
    Symlink,
    BlockDevice,
    CharacterDevice,
    Fifo,
    Socket,
    Unknown ///< a type that this program does not know
};

/// An extended attribute.
struct NodeAttribute
{
    std::string name; ///< with the namespace, as "user.note"
    Bytes value;

    friend bool operator==(const NodeAttribute&, const NodeAttribute&) = default;
};

/// Numbers that are 0, texts that are empty and lists that are empty are left out in a tree, if not stated
/// otherwise.
struct Node
{
    std::string name; ///< the bytes of the name, not quoted
    NodeType type = NodeType::File;
    std::string typeText;    ///< the type's word, if `type` is Unknown
    std::uint32_t mode = 0;  ///< permissions and kind, see MakeNodeMode
    Timestamp mtime;         ///< always stored
    Timestamp atime;         ///< always stored
    Timestamp ctime;         ///< always stored
    std::uint32_t uid = 0;   ///< always stored
    std::uint32_t gid = 0;   ///< always stored
    std::string user;        ///< name of the owner
    std::string group;       ///< name of the group
    std::uint64_t inode = 0; ///< with deviceId the identity of a file with more than one link
    std::uint64_t deviceId = 0;
    std::uint64_t size = 0; ///< of a file, bytes: the sum of the lengths of `content`
    std::uint64_t links = 0;
    std::string linkTarget;                   ///< of a symlink, any bytes
    std::vector<NodeAttribute> attributes;    ///< in the order of the file system
    std::vector<RawMember> genericAttributes; ///< attributes that only some systems have, sorted by key
    std::uint64_t device = 0;                 ///< of a device: its number in the form of Linux, 64 bits
    std::optional<std::vector<Id>> content;   ///< of a file: its data blobs in order; null otherwise
    std::optional<Id> subtree;                ///< of a directory: its tree blob
    std::string error;                        ///< not used by any version
    std::vector<RawMember> unknown;           ///< other members, stored last; see TreeReader

    /// Gives all fields their initial values. Memory of texts and lists is kept for the next entry.
    void Clear();
};

/// The mode of a node for a mode of stat(2): the permissions, and the kind and the special bits in the places
/// that the format gives them.
std::uint32_t MakeNodeMode(std::uint32_t statMode);
/// The mode of stat(2) for the mode of a node. Bits that stat(2) does not have are dropped.
std::uint32_t MakeStatMode(std::uint32_t nodeMode);

} // namespace Agent::Repo
