// RecordedEntry: the entry that a restore creates from a record, whichever system the record comes from.
#pragma once

#include "agent/Restore/Attributes.h"

#include "Backup/File/YMetadataBase.h"

namespace Agent {

struct RecordedEntry
{
    unsigned int type = 0; ///< S_IFREG and the like, from <sys/stat.h>
    /// A Windows entry that refers to something else. The record does not contain to what, so only its
    /// content can be restored.
    bool isReparsePoint = false;
    unsigned long long size = 0; ///< bytes
    Attributes attributes;
    Krt::YString linkTarget; ///< of a symbolic link
};

/// Returns the entry of the record. A Windows directory gets mode 0700 and a file 0600, or 0400 with the
/// read-only attribute, since the record does not contain who may read it. Its owner is the user who
/// restores. Raises NotSupported for an ODS object.
RecordedEntry RecordedEntryOf(Backup::File::YMetadataBase& metadata);

} // namespace Agent
