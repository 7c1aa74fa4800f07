#include "agent/Cli/EntryText.h"

#include "agent/Cli/Text.h"

#include "Backup/File/YUnixFileMetadata.h"

#include <cstdio>
#include <string_view>
#include <sys/stat.h>

namespace Agent {

using Backup::File::YMetadataBase;
using Backup::File::YUnixFileMetadata;
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

std::string UnixText(const SnapshotEntry& entry, const YUnixFileMetadata& metadata)
{
    const std::string owner =
        std::to_string(metadata.GetUserId()) + ":" + std::to_string(metadata.GetGroupId());
    char text[128];
    std::snprintf(text, sizeof text, "%s %11s %12s %s ", ModeText(metadata.GetModeFlags()).c_str(),
                  owner.c_str(), SizeText(entry, metadata).c_str(),
                  TimeText(metadata.GetLastWriteTime()).c_str());
    return text;
}

} // namespace

YString ShownPath(const Backup::YJobPath& path)
{
    const bool isFile =
        path.GetComponentCount() != 0 && path.GetRoot().IsFileSystem() && path.GetLeaf().IsFileSystem();
    return isFile ? YString(path.GetFilesystemPortion()) : path.GetDisplayPath();
}

std::string EntryText(const SnapshotEntry& entry)
{
    const boost::shared_ptr<YMetadataBase> record = YMetadataBase::ConstructFromJson(entry.record);
    const std::string path = Printable(ShownPath(record->GetFilePath(0)));
    if (record->GetMetadataType() != Backup::File::VAM_UNIX_METADATA_TYPE)
        return path;
    const YUnixFileMetadata& metadata = record->AsUnixFileMetadata();
    std::string text = UnixText(entry, metadata) + path;
    if (S_ISLNK(metadata.GetModeFlags()))
        text += " -> " +
                Printable(entry.linkTarget ? *entry.linkTarget : YString(metadata.GetSymbolicLinkTarget()));
    if (entry.readSize)
        text += " (" + std::to_string(*entry.readSize) + " bytes could be read)";
    return text;
}

} // namespace Agent
