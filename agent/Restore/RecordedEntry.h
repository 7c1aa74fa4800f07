// RecordedEntry: what a record tells of the entry that a restore makes of it, whatever system it comes from.
#pragma once

#include "agent/Restore/Attributes.h"

#include "Backup/File/YMetadataBase.h"

namespace Backup::File {
class YUnixFileMetadata;
}

namespace Agent {

struct RecordedEntry
{
    unsigned int type = 0; ///< S_IFREG and the like, from <sys/stat.h>
    /// A Windows entry that stands for something else. The record does not tell for what, so only its content
    /// can be made anew.
    bool isReparsePoint = false;
    unsigned long long size = 0; ///< bytes
    Attributes attributes;
    Krt::YString linkTarget; ///< of a symbolic link
};

/// The type of the entry that a restore makes of a Unix record, as S_IFREG. A record from an older backup set
/// may have a mode that says otherwise: what it tells of links and directories counts more.
unsigned int TypeOf(const Backup::File::YUnixFileMetadata& metadata);

/// A Windows directory gets mode 0700 and a file 0600, or 0400 with the read-only attribute, since the record
/// does not tell who may see it; the owner is whoever restores. Raises NotSupported for an ODS object.
RecordedEntry RecordedEntryOf(Backup::File::YMetadataBase& metadata);

} // namespace Agent
