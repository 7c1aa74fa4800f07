// Reading the names in an open directory, as each platform does it.
#pragma once

#include "Krt/File/YDirectory.h"

namespace Krt::File {

/// Shows the visitor each entry but "." and "..", from where the descriptor stands, until it answers false.
/// Returns 0, or the number of the error.
int ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor);

inline bool IsDots(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

} // namespace Krt::File
