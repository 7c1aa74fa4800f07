#include "agent/Backup/NodeCapture.h"

#include "agent/Record/NodeRecord.h"
#include "agent/Repository/Utf8.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Status.h"
#include "Krt/File/YEntry.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Profile/YProfile.h"

#include <algorithm>
#include <cerrno>
#include <map>
#include <sys/stat.h>
#include <tuple>
#include <utility>

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YDirectory;
using Krt::File::YPath;
using Krt::Util::YUnxHandle;
using Repo::Node;
using Repo::NodeAttribute;
using Repo::NodeType;
using Repo::Timestamp;

namespace {

constexpr int MaxLooks = 5;

// An open file, and the status of the entry.
struct OpenedEntry
{
    std::shared_ptr<const YUnxHandle> file; // null unless the entry is a regular file
    struct stat status = {};
};

// Opens the entry if it is a regular file. Another process may replace it between the two calls, so they are
// repeated until both see the same kind of entry. The status of a file is that of what was opened.
OpenedEntry OpenWhole(const YDirectory& parent, const YString& name, const struct stat& known)
{
    OpenedEntry entry{nullptr, known};
    for (int looks = 1; S_ISREG(entry.status.st_mode); ++looks) {
        try {
            const auto file = std::make_shared<const YUnxHandle>(parent.OpenFile(name));
            const struct stat status = Krt::File::Stat(*file);
            if (S_ISREG(status.st_mode))
                return {file, status};
        } catch (const Krt::Exception::YError& error) {
            // Opening a regular file fails with these errors if it has been replaced by a symlink, or by a
            // socket or a missing device.
            if ((error.GetOsError() != ELOOP && error.GetOsError() != ENXIO) || looks == MaxLooks)
                throw;
        }
        KRT_RAISE_UNLESS(looks < MaxLooks, ErrorCode::InvalidState,
                         "The entry was replaced while it was read");
        entry.status = parent.Stat(name);
    }
    return entry;
}

Timestamp TimeOf(const timespec& time)
{
    return Timestamp::Local(time.tv_sec, static_cast<std::uint32_t>(time.tv_nsec));
}

// The attributes of an entry, in the order of the file system, which the map does not keep.
std::vector<NodeAttribute> AttributesInOrder(const Krt::File::YEntry& entry)
{
    std::vector<NodeAttribute> attributes;
    try {
        attributes = AttributesOf(entry.GetExtendedAttributeMap());
        if (attributes.size() < 2)
            return attributes;
        std::map<std::string, std::size_t> positions;
        for (const YString& name : entry.ListExtendedAttributes())
            positions.emplace(name.Bytes(), positions.size());
        std::stable_sort(attributes.begin(), attributes.end(),
                         [&positions](const NodeAttribute& a, const NodeAttribute& b) {
                             return positions[a.name] < positions[b.name];
                         });
    } catch (const Krt::Exception::YError& error) {
        if (error.GetCode() != ErrorCode::AttributesUnavailable) // the file system has none
            throw;
    }
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

void SetFileStatus(const struct stat& status, Node& node)
{
    node.mtime = TimeOf(Krt::File::WriteTime(status));
    node.atime = node.mtime; // an access time changes with each backup
    node.ctime = TimeOf(Krt::File::ChangeTime(status));
    node.links = HasLinks(node.type) ? status.st_nlink : 0;
    node.size = node.type == NodeType::File ? static_cast<std::uint64_t>(status.st_size) : 0;
}

NodeCapture::NodeCapture()
    : m_hasAttributes(!Krt::Profile::OpenSystem()->Get<bool>("configuration", "disableXattr", false))
{}

CapturedEntry NodeCapture::Capture(const YDirectory& parent, const YString& name, const YPath& path,
                                   const struct stat& status)
{
    OpenedEntry opened = OpenWhole(parent, name, status);
    CapturedEntry entry{{}, opened.status, std::move(opened.file)};
    KRT_LOG_FREE(Krt::MessageType::FileIo, "Successfully opened file " << path);
    Node& node = entry.node;
    node.name = name.Bytes();
    node.type = NodeTypeOf(entry.status.st_mode);
    FillFromStatus(entry.status, node);
    if (node.type == NodeType::Symlink)
        node.linkTarget = parent.ReadSymbolicLink(name).Bytes();
    std::string failure;
    try {
        if (m_hasAttributes)
            node.attributes = AttributesInOrder(entry.file ? Krt::File::YEntry(*entry.file)
                                                           : Krt::File::YEntry(parent, name));
    } catch (const Krt::Exception::YError& error) {
        failure = ReasonOf(error).Bytes();
    }
    FillOwnerNames(node, TakeOddAttributes(node.attributes));
    node.error = std::move(failure);
    return entry;
}

bool NodeCapture::Renew(const struct stat& status, Node& node)
{
    std::string note;
    std::vector<NodeAttribute> odd;
    if (!node.unknown.empty()) {
        if (auto member = ReadKbagentMember(node, note))
            odd = std::move(member->attributes);
    }
    const bool hadMore = !node.unknown.empty() || !node.genericAttributes.empty() || !node.error.empty();
    const auto numbersOf = [](const Node& each) {
        return std::tuple(each.mode, each.uid, each.gid, each.inode, each.deviceId, each.device, each.links,
                          each.size);
    };
    const auto timesOf = [](const Node& each) {
        return std::tuple(each.mtime, each.mtime.offset, each.atime, each.atime.offset, each.ctime,
                          each.ctime.offset);
    };
    const auto numbers = numbersOf(node);
    const auto times = timesOf(node);
    const std::string user = std::move(node.user);
    const std::string group = std::move(node.group);
    FillFromStatus(status, node);
    FillOwnerNames(node, std::move(odd));
    return hadMore || !node.unknown.empty() || numbersOf(node) != numbers || timesOf(node) != times ||
           node.user != user || node.group != group;
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
