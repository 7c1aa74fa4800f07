#include "agent/Restore/RecordedEntry.h"

#include "agent/Restore/WindowsTime.h"

#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include "Krt/Exception/Raise.h"

#include <sys/stat.h>

namespace Agent {

using Backup::File::YUnixFileMetadata;
using Backup::File::YWinFileMetadata;

namespace {

constexpr unsigned int PermissionBits = 07777;
constexpr unsigned int WindowsReadOnly = 0x1; // has another meaning for a directory
constexpr unsigned int WindowsReparsePoint = 0x400;

timespec Now()
{
    timespec time{};
    time.tv_nsec = UTIME_NOW;
    return time;
}

// Times before 1970 are negative numbers in an unsigned type.
timespec TimeOfUnix(unsigned long long seconds)
{
    timespec time{};
    time.tv_sec = static_cast<time_t>(static_cast<long long>(seconds));
    return time;
}

// The record's fields for symlinks and directories override its mode, which may differ in an older
// backup set.
unsigned int TypeOf(const YUnixFileMetadata& metadata)
{
    // First, since a symlink to a directory may be marked as a directory.
    if (metadata.IsSymbolicLink())
        return S_IFLNK;
    if (metadata.IsDirectoryForRestore())
        return S_IFDIR;
    const unsigned int type = metadata.GetModeFlags() & S_IFMT;
    return type == S_IFDIR ? S_IFREG : type;
}

RecordedEntry OfUnix(const YUnixFileMetadata& metadata)
{
    RecordedEntry entry;
    entry.type = TypeOf(metadata);
    entry.size = metadata.GetFileSize();
    entry.linkTarget = metadata.GetSymbolicLinkTarget();
    Attributes& attributes = entry.attributes;
    attributes.mode = metadata.GetModeFlags() & PermissionBits;
    attributes.user = metadata.GetUserId();
    attributes.group = metadata.GetGroupId();
    attributes.write = TimeOfUnix(metadata.GetLastWriteTime());
    attributes.access = metadata.GetLastAccessTime() == 0 ? Now() : TimeOfUnix(metadata.GetLastAccessTime());
    attributes.extended = metadata.GetExtendedAttributeMap();
    return entry;
}

RecordedEntry OfWindows(const YWinFileMetadata& metadata)
{
    const bool isReadOnly = (metadata.GetAttributes() & WindowsReadOnly) != 0;
    RecordedEntry entry;
    entry.type = metadata.IsDirectoryAttributeSet() ? S_IFDIR : S_IFREG;
    entry.isReparsePoint =
        (metadata.GetAttributes() & WindowsReparsePoint) != 0 || metadata.GetReparseType() != 0;
    entry.size = metadata.GetFileSize();
    Attributes& attributes = entry.attributes;
    attributes.mode = entry.type == S_IFDIR ? 0700 : isReadOnly ? 0400 : 0600;
    attributes.write = TimeOfWindows(metadata.GetLastWriteTime()).value_or(Now());
    attributes.access = TimeOfWindows(metadata.GetLastAccessTime()).value_or(Now());
    return entry;
}

} // namespace

RecordedEntry RecordedEntryOf(Backup::File::YMetadataBase& metadata)
{
    switch (metadata.GetMetadataType()) {
    case Backup::File::VAM_WINDOWS_METADATA_TYPE:
        return OfWindows(metadata.AsWinFileMetadata());
    case Backup::File::VAM_UNIX_METADATA_TYPE:
        return OfUnix(metadata.AsUnixFileMetadata());
    default:
        KRT_RAISE(Krt::ErrorCode::NotSupported, "An ODS object is not a file; its record alone is kept");
    }
}

} // namespace Agent
