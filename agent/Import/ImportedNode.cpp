#include "agent/Import/ImportedNode.h"

#include "agent/Backup/NodeCapture.h"
#include "agent/Restore/RecordedEntry.h"
#include "agent/Restore/WindowsTime.h"

#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include "Krt/Exception/Raise.h"

#include <sys/stat.h>

namespace Agent {

using Backup::File::YMetadataBase;
using Backup::File::YUnixFileMetadata;
using Krt::ErrorCode;
using Repo::Node;
using Repo::NodeType;
using Repo::Timestamp;

namespace {

constexpr unsigned int PrivateDirectory = S_IFDIR | 0700;

// In UTC, so that the nodes do not depend on the machine.
Timestamp TimeOf(long long seconds, std::uint32_t nanoseconds)
{
    constexpr std::int64_t FirstSecond = -62167219200; // of the year 0
    constexpr std::int64_t LastSecond = 253402300799;  // of the year 9999
    if (seconds < FirstSecond || seconds > LastSecond)
        return {};
    return {seconds, nanoseconds, 0};
}

// Times before 1970 are negative numbers in an unsigned type.
Timestamp TimeOfUnix(unsigned long long seconds)
{
    return TimeOf(static_cast<long long>(seconds), 0);
}

Timestamp TimeOfRecord(unsigned long long windowsTime)
{
    const auto time = TimeOfWindows(windowsTime);
    return time ? TimeOf(time->tv_sec, static_cast<std::uint32_t>(time->tv_nsec)) : Timestamp();
}

void FillFromUnix(const YUnixFileMetadata& metadata, unsigned int type, ImportedEntry& entry)
{
    Node& node = entry.node;
    node.mode = Repo::MakeNodeMode(type | (metadata.GetModeFlags() & ~static_cast<unsigned int>(S_IFMT)));
    node.uid = metadata.GetUserId();
    node.gid = metadata.GetGroupId();
    node.mtime = TimeOfUnix(metadata.GetLastWriteTime());
    if (metadata.GetLastAccessTime() != 0)
        node.atime = TimeOfUnix(metadata.GetLastAccessTime());
    node.ctime = TimeOfUnix(metadata.GetLastChangedTime());
    node.linkTarget = metadata.GetSymbolicLinkTarget().Bytes();
    node.attributes = AttributesOf(metadata.GetExtendedAttributeMap());
    entry.member.attributes = TakeOddAttributes(node.attributes);
}

// Windows has no change time in the sense of Unix.
void FillFromWindows(const Backup::File::YWinFileMetadata& metadata, const RecordedEntry& recorded,
                     Node& node)
{
    node.mode = Repo::MakeNodeMode(recorded.type | recorded.attributes.mode);
    node.mtime = TimeOfRecord(metadata.GetLastWriteTime());
    node.atime = TimeOfRecord(metadata.GetLastAccessTime());
    node.ctime = node.mtime;
}

void CheckIsEnough(const RecordedEntry& recorded)
{
    switch (recorded.type) {
    case S_IFREG:
    case S_IFDIR:
    case S_IFIFO:
        break;
    case S_IFLNK:
        KRT_RAISE_UNLESS(!recorded.linkTarget.IsEmpty(), ErrorCode::InvalidArgument,
                         "Not stored: the record has no target for the link");
        break;
    default:
        KRT_RAISE(ErrorCode::NotSupported,
                  "Not stored: a record of a device, a socket or an unknown type is not enough");
    }
}

} // namespace

ImportedEntry ImportedEntryOf(YMetadataBase& metadata)
{
    ImportedEntry entry;
    metadata.StringifyTo(entry.record);
    if (metadata.GetMetadataType() == Backup::File::VAM_ODS_METADATA_TYPE) {
        entry.node = PlainDirectory("");
        return entry;
    }
    const RecordedEntry recorded = RecordedEntryOf(metadata);
    CheckIsEnough(recorded);
    entry.node.type = NodeTypeOf(recorded.type);
    if (metadata.GetMetadataType() == Backup::File::VAM_UNIX_METADATA_TYPE)
        FillFromUnix(metadata.AsUnixFileMetadata(), recorded.type, entry);
    else
        FillFromWindows(metadata.AsWinFileMetadata(), recorded, entry.node);
    entry.size = recorded.size;
    entry.mayLackContent = recorded.isReparsePoint && recorded.size == 0;
    return entry;
}

void AddMember(const ImportedEntry& entry, const std::string& path, Node& node)
{
    node.unknown.clear();
    AppendKbagentMember(entry.member, node.unknown);
    std::string note;
    std::string derived;
    RecordOf(node, path, note)->StringifyTo(derived);
    if (derived == entry.record)
        return;
    KbagentMember member;
    member.record = entry.record;
    node.unknown.clear();
    AppendKbagentMember(member, node.unknown);
}

Node PlainDirectory(const std::string& name)
{
    Node node;
    node.name = name;
    node.type = NodeType::Directory;
    node.mode = Repo::MakeNodeMode(PrivateDirectory);
    return node;
}

} // namespace Agent
