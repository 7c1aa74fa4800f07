#include "agent/Backup/NodeCapture.h"

#include "agent/Record/NodeRecord.h"
#include "agent/Repository/Utf8.h"
#include "agent/Run/Text.h"

#include "Backup/File/Unix/YFile.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Status.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <sys/stat.h>
#include <utility>

namespace Agent {

using Backup::File::YFile;
using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YDirectory;
using Krt::File::YPath;
using Repo::Node;
using Repo::NodeAttribute;
using Repo::NodeType;
using Repo::Timestamp;

namespace {

constexpr int MaxLooks = 5;

// Returns true if the status is that of the entry that the library opened, or saw if it opened nothing.
bool IsSameEntry(const YFile& file, const struct stat& status)
{
    // An inode number may have been freed and reused.
    return file.GetModeFlags() == status.st_mode && file.GetUID() == status.st_uid &&
           file.GetGID() == status.st_gid &&
           file.GetLastChangedTime() == static_cast<unsigned long long>(status.st_ctime) &&
           (!file.IsRegularFile() || file.GetInode() == status.st_ino);
}

// Opens the entry and returns its whole status, of which the library keeps only a part. Another process may
// replace the entry between the two calls, so they are repeated until both see the same entry.
struct stat OpenWhole(YFile& file, const YDirectory& parent, const YString& name, const YPath& path,
                      const struct stat& known)
{
    for (int looks = 1;; ++looks) {
        try {
            file.OpenEntry(parent, name, path);
        } catch (const Krt::Exception::YError& error) {
            // Opening a regular file fails with these errors if it has been replaced by a symlink, or by a
            // socket or a missing device.
            if ((error.GetOsError() != ELOOP && error.GetOsError() != ENXIO) || looks == MaxLooks)
                throw;
            continue;
        }
        const struct stat status = file.IsRegularFile() ? Krt::File::Stat(file.GetHandle())
                                   : looks == 1         ? known
                                                        : parent.Stat(name);
        if (IsSameEntry(file, status))
            return status;
        KRT_RAISE_UNLESS(looks < MaxLooks, ErrorCode::InvalidState,
                         "The entry was replaced while it was read");
    }
}

Timestamp TimeOf(const timespec& time)
{
    return Timestamp::Local(time.tv_sec, static_cast<std::uint32_t>(time.tv_nsec));
}

// The attributes of a file, in the order of the file system, which the map does not keep.
std::vector<NodeAttribute> AttributesInOrder(const YFile& file)
{
    std::vector<NodeAttribute> attributes = AttributesOf(file.GetExtendedAttributeMap());
    if (attributes.size() < 2)
        return attributes;
    std::map<std::string, std::size_t> positions;
    for (const YString& name : file.ListExtendedAttributes())
        positions.emplace(name.Bytes(), positions.size());
    std::stable_sort(attributes.begin(), attributes.end(),
                     [&positions](const NodeAttribute& a, const NodeAttribute& b) {
                         return positions[a.name] < positions[b.name];
                     });
    return attributes;
}

bool HasLinks(NodeType type)
{
    return type == NodeType::File || type == NodeType::Symlink || type == NodeType::BlockDevice ||
           type == NodeType::CharacterDevice;
}

bool IsDevice(NodeType type)
{
    return type == NodeType::BlockDevice || type == NodeType::CharacterDevice;
}

} // namespace

NodeType NodeTypeOf(unsigned int statMode)
{
    switch (statMode & S_IFMT) {
    case S_IFREG:
        return NodeType::File;
    case S_IFDIR:
        return NodeType::Directory;
    case S_IFLNK:
        return NodeType::Symlink;
    case S_IFBLK:
        return NodeType::BlockDevice;
    case S_IFCHR:
        return NodeType::CharacterDevice;
    case S_IFIFO:
        return NodeType::Fifo;
    case S_IFSOCK:
        return NodeType::Socket;
    default:
        return NodeType::Unknown;
    }
}

Timestamp WriteTimeOf(const struct stat& status)
{
    return TimeOf(Krt::File::WriteTime(status));
}

Timestamp ChangeTimeOf(const struct stat& status)
{
    return TimeOf(Krt::File::ChangeTime(status));
}

void SetFileStatus(const struct stat& status, Node& node)
{
    node.mtime = WriteTimeOf(status);
    node.atime = node.mtime; // an access time changes with each backup
    node.ctime = ChangeTimeOf(status);
    node.links = HasLinks(node.type) ? status.st_nlink : 0;
    node.size = node.type == NodeType::File ? static_cast<std::uint64_t>(status.st_size) : 0;
}

CapturedEntry NodeCapture::Capture(const YDirectory& parent, const YString& name, const YPath& path,
                                   const struct stat& status)
{
    CapturedEntry entry;
    entry.file = std::make_unique<YFile>();
    entry.status = OpenWhole(*entry.file, parent, name, path, status);
    const YFile& file = *entry.file;
    Node& node = entry.node;
    node.name = name.Bytes();
    node.type = NodeTypeOf(file.GetModeFlags());
    FillFromStatus(entry.status, node);
    node.mode = Repo::MakeNodeMode(file.GetModeFlags());
    node.uid = file.GetUID();
    node.gid = file.GetGID();
    if (node.type == NodeType::Symlink)
        node.linkTarget = parent.ReadSymbolicLink(name).Bytes();
    std::string failure;
    try {
        node.attributes = AttributesInOrder(file);
    } catch (const Krt::Exception::YError& error) {
        failure = ReasonOf(error).Bytes();
    }
    FillOwnerNames(node, TakeOddAttributes(node.attributes));
    node.error = std::move(failure);
    if (node.type != NodeType::File)
        entry.file.reset();
    return entry;
}

void NodeCapture::Renew(const struct stat& status, Node& node)
{
    std::string note;
    std::vector<NodeAttribute> odd;
    if (!node.unknown.empty()) {
        if (auto member = ReadKbagentMember(node, note))
            odd = std::move(member->attributes);
    }
    FillFromStatus(status, node);
    FillOwnerNames(node, std::move(odd));
}

void NodeCapture::FillFromStatus(const struct stat& status, Node& node)
{
    node.mode = Repo::MakeNodeMode(status.st_mode);
    node.uid = status.st_uid;
    node.gid = status.st_gid;
    node.inode = status.st_ino;
    node.deviceId = status.st_dev;
    node.device = IsDevice(node.type) ? status.st_rdev : 0;
    SetFileStatus(status, node);
}

void NodeCapture::FillOwnerNames(Node& node, std::vector<NodeAttribute> oddAttributes)
{
    KbagentMember member;
    member.attributes = std::move(oddAttributes);
    node.user = m_owners.UserOf(node.uid);
    node.group = m_owners.GroupOf(node.gid);
    if (!Repo::IsUtf8(node.user))
        member.user = std::exchange(node.user, {});
    if (!Repo::IsUtf8(node.group))
        member.group = std::exchange(node.group, {});
    node.unknown.clear();
    node.genericAttributes.clear();
    node.error.clear();
    AppendKbagentMember(member, node.unknown);
}

} // namespace Agent
