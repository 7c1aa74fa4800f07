// RestoreSettings: what a restore from a repository was asked to do, and which entries it deals with.
#pragma once

#include "agent/Access/Workers.h"
#include "agent/Walk/Patterns.h"

#include <string>
#include <vector>

namespace Agent {

/// What happens to a file that exists in the target.
enum class Overwrite
{
    Always,    ///< it gets the content of the snapshot; parts that are equal are not loaded
    IfChanged, ///< as Always, but a file of equal size and modification time counts as equal
    IfNewer,   ///< it is kept, unless the snapshot's modification time is later
    Never      ///< it is kept
};

/// Whether a restore deals with an entry.
struct Selection
{
    bool isSelected = false;
    bool mayHaveSelected = false; ///< entries below it may be selected
};

struct RestoreSettings
{
    Overwrite overwrite = Overwrite::Always;
    bool deletes = false;   ///< entries that the snapshot does not have are removed
    bool isDryRun = false;  ///< nothing is changed
    bool verifies = false;  ///< restored files are read again
    bool isVerbose = false; ///< each entry is printed
    bool isJson = false;
    bool isQuiet = false;
    unsigned int loaders = WorkerCount(); ///< threads that load blobs
    unsigned long long expectedBytes = 0; ///< of all files of the snapshot; 0 if not known
    Patterns includes;
    Patterns excludes;
    Patterns attributes;            ///< names of the extended attributes that are restored; all if empty
    Patterns excludedAttributes;    ///< names of those that are not
    std::vector<std::string> paths; ///< of entries to be restored, with all below them; all if empty

    /// Whether the paths and patterns select the entry.
    Selection Select(const std::string& path, bool isDirectory) const;
    /// Whether an extended attribute of this name is restored.
    bool SelectsAttribute(const std::string& name) const;
};

} // namespace Agent
