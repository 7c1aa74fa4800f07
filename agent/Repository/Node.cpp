#include "agent/Repository/Node.h"

#include <sys/stat.h>

namespace Agent::Repo {

namespace {

constexpr std::uint32_t Permissions = 0777;
constexpr std::uint32_t DirectoryBit = 1u << 31;
constexpr std::uint32_t SymlinkBit = 1u << 27;
constexpr std::uint32_t DeviceBit = 1u << 26;
constexpr std::uint32_t FifoBit = 1u << 25;
constexpr std::uint32_t SocketBit = 1u << 24;
constexpr std::uint32_t SetUserBit = 1u << 23;
constexpr std::uint32_t SetGroupBit = 1u << 22;
constexpr std::uint32_t CharacterBit = 1u << 21;
constexpr std::uint32_t StickyBit = 1u << 20;

struct ModeBit
{
    std::uint32_t node;
    std::uint32_t stat;
};

constexpr ModeBit SpecialBits[] = {{SetUserBit, S_ISUID}, {SetGroupBit, S_ISGID}, {StickyBit, S_ISVTX}};
// A regular file has no bit of its own. The first match counts.
constexpr ModeBit Kinds[] = {
    {DirectoryBit, S_IFDIR}, {SymlinkBit, S_IFLNK}, {DeviceBit | CharacterBit, S_IFCHR},
    {DeviceBit, S_IFBLK},    {FifoBit, S_IFIFO},    {SocketBit, S_IFSOCK}};

} // namespace

void Node::Clear()
{
    name.clear();
    type = NodeType::File;
    typeText.clear();
    mode = 0;
    mtime = atime = ctime = {};
    uid = gid = 0;
    user.clear();
    group.clear();
    inode = deviceId = size = links = device = 0;
    linkTarget.clear();
    attributes.clear();
    genericAttributes.clear();
    content.reset();
    subtree.reset();
    error.clear();
    unknown.clear();
}

std::uint32_t MakeNodeMode(std::uint32_t statMode)
{
    std::uint32_t mode = statMode & Permissions;
    for (const ModeBit& bit : SpecialBits) {
        if ((statMode & bit.stat) != 0)
            mode |= bit.node;
    }
    for (const ModeBit& kind : Kinds) {
        if ((statMode & S_IFMT) == kind.stat)
            mode |= kind.node;
    }
    return mode;
}

std::uint32_t MakeStatMode(std::uint32_t nodeMode)
{
    std::uint32_t mode = nodeMode & Permissions;
    for (const ModeBit& bit : SpecialBits) {
        if ((nodeMode & bit.node) != 0)
            mode |= bit.stat;
    }
    for (const ModeBit& kind : Kinds) {
        if ((nodeMode & kind.node) == kind.node)
            return mode | kind.stat;
    }
    return mode | S_IFREG;
}

} // namespace Agent::Repo
