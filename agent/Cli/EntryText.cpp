#include "agent/Cli/EntryText.h"

#include "agent/Restore/RecordedEntry.h"
#include "agent/Restore/TargetLocation.h"
#include "agent/Restore/WindowsTime.h"
#include "agent/Run/Text.h"

#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include <cstdio>
#include <sys/stat.h>

namespace Agent {

using Backup::File::YMetadataBase;
using Backup::File::YUnixFileMetadata;
using Backup::File::YWinFileMetadata;
using Krt::YString;

namespace {

char TypeLetter(unsigned int mode)
{
    switch (mode & S_IFMT) {
    case S_IFREG:
        return '-';
    case S_IFDIR:
        return 'd';
    case S_IFLNK:
        return 'l';
    case S_IFIFO:
        return 'p';
    case S_IFCHR:
        return 'c';
    case S_IFBLK:
        return 'b';
    case S_IFSOCK:
        return 's';
    default:
        return '?';
    }
}

std::string ModeText(unsigned int mode)
{
    std::string text = "?rwxrwxrwx";
    text[0] = TypeLetter(mode);
    for (unsigned int bit = 0; bit < 9; ++bit) {
        if ((mode & (0400u >> bit)) == 0)
            text[bit + 1] = '-';
    }
    const auto mark = [&](unsigned int bit, std::size_t place, char letter) {
        if ((mode & bit) != 0)
            text[place] = static_cast<char>(text[place] == 'x' ? letter : letter - 'a' + 'A');
    };
    mark(S_ISUID, 3, 's');
    mark(S_ISGID, 6, 's');
    mark(S_ISVTX, 9, 't');
    return text;
}

std::string SizeText(const SnapshotEntry& entry, const YUnixFileMetadata& metadata)
{
    if (entry.device)
        return std::to_string(entry.device->major) + "," + std::to_string(entry.device->minor);
    return std::to_string(metadata.GetFileSize());
}

std::string Columns(const std::string& mode, const std::string& owner, const std::string& size,
                    const std::string& time)
{
    char text[128];
    std::snprintf(text, sizeof text, "%-10s %11s %12s %20s ", mode.c_str(), owner.c_str(), size.c_str(),
                  time.c_str());
    return text;
}

std::string UnixText(const SnapshotEntry& entry, const YUnixFileMetadata& metadata)
{
    const std::string owner =
        std::to_string(metadata.GetUserId()) + ":" + std::to_string(metadata.GetGroupId());
    return Columns(ModeText(TypeOf(metadata) | (metadata.GetModeFlags() & ~S_IFMT)), owner,
                   SizeText(entry, metadata), TimeText(metadata.GetLastWriteTime()));
}

// The attributes of Windows that are shown.
constexpr struct
{
    unsigned int bit;
    char letter;
} WindowsAttributes[] = {{0x1, 'R'}, {0x2, 'H'}, {0x4, 'S'}, {0x20, 'A'}, {0x400, 'L'}};

std::string WindowsText(const YWinFileMetadata& metadata)
{
    std::string mode = metadata.IsDirectoryAttributeSet() ? "d" : "-";
    for (const auto& [bit, letter] : WindowsAttributes)
        mode += (metadata.GetAttributes() & bit) != 0 ? letter : '-';
    const auto time = TimeOfWindows(metadata.GetLastWriteTime());
    return Columns(mode, "-", std::to_string(metadata.GetFileSize()),
                   time ? TimeText(static_cast<unsigned long long>(time->tv_sec)) : "-");
}

std::string PropertiesText(const SnapshotEntry& entry, YMetadataBase& record)
{
    switch (record.GetMetadataType()) {
    case Backup::File::VAM_UNIX_METADATA_TYPE:
        return UnixText(entry, record.AsUnixFileMetadata());
    case Backup::File::VAM_WINDOWS_METADATA_TYPE:
        return WindowsText(record.AsWinFileMetadata());
    default:
        return Columns("ods", "-", "-", "-");
    }
}

// Returns the text that follows the path.
std::string RemarkText(const SnapshotEntry& entry, YMetadataBase& record)
{
    std::string text;
    if (record.GetMetadataType() == Backup::File::VAM_UNIX_METADATA_TYPE) {
        const YUnixFileMetadata& metadata = record.AsUnixFileMetadata();
        if (TypeOf(metadata) == S_IFLNK)
            text += " -> " + Printable(entry.linkTarget ? *entry.linkTarget
                                                        : YString(metadata.GetSymbolicLinkTarget()));
    }
    if (entry.readSize)
        text += " (" + std::to_string(*entry.readSize) + " bytes could be read)";
    return text;
}

} // namespace

std::string EntryText(const SnapshotEntry& entry)
{
    const boost::shared_ptr<YMetadataBase> record = YMetadataBase::ConstructFromJson(entry.record);
    CheckHasPath(*record);
    const std::string properties = PropertiesText(entry, *record);
    const std::string remark = RemarkText(entry, *record);
    std::string text;
    for (unsigned long i = 0; i < record->GetFilePathCount(); ++i) {
        for (const std::string& part : {properties, Printable(ShownPath(RestoredPath(*record, i))), remark})
            text += part;
        text += '\n';
    }
    return text;
}

} // namespace Agent
