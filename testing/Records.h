// Records of the modern form for tests, with the given names and ordinary other fields.
#pragma once

#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include "Krt/JSON/YValue.h"

#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Testing {

using Names = std::vector<std::string>;

/// Returns a job path of file system containers.
inline Backup::YJobPath ContainerPath(const Names& names)
{
    Backup::YJobPath path;
    for (const std::string& name : names)
        path.AppendComponent({Krt::YString(name), "", Backup::YJobPath::ClassFileSystemContainer, 0});
    return path;
}

/// Returns a record owned by this process's user, last written 1000000000 seconds after 1970.
inline Backup::File::YUnixFileMetadata UnixRecord(const Names& names, unsigned int mode,
                                                  unsigned long long size = 0,
                                                  const std::string& linkTarget = "")
{
    Backup::File::YUnixFileMetadata metadata;
    metadata.SetFilePath(ContainerPath(names));
    metadata.SetModeFlags(mode);
    metadata.SetIsDirectoryForRestore(S_ISDIR(mode));
    metadata.SetFileSize(size);
    metadata.SetUserId(geteuid());
    metadata.SetGroupId(getegid());
    metadata.SetLastWriteTime(1000000000);
    metadata.SetSymbolicLinkTarget(Krt::File::YPath(linkTarget.c_str()));
    return metadata;
}

/// Returns a record with the same time as UnixRecord.
inline Backup::File::YWinFileMetadata WindowsRecord(const std::vector<Names>& paths, unsigned int attributes,
                                                    unsigned long long size = 0)
{
    Backup::File::YWinFileMetadata metadata;
    for (const Names& names : paths)
        metadata.AddPath(ContainerPath(names), "SHORT~1");
    metadata.SetAttributes(attributes);
    metadata.SetFileSize(size);
    metadata.SetLastWriteTime((11644473600 + 1000000000) * 10000000);
    return metadata;
}

/// Returns the record as a line of text.
inline std::string Line(const Krt::JSON::YObject& record)
{
    return Krt::JSON::YValue::FromObject(record).Stringify(true).Bytes() + "\n";
}

} // namespace Testing
