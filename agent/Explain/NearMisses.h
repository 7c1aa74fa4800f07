// NearMisses: the includes that almost match a path.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <string>
#include <vector>

namespace Agent {

/// An include that does not match a path, although part of it does.
struct NearMiss
{
    enum class Cause
    {
        OtherNames,  ///< it reaches the path, and its pattern does not match the name
        OtherCase,   ///< it would match if upper and lower case were the same
        NotSoDeep,   ///< it matches the name, but applies only to entries directly in its directory
        OnlyEntries, ///< it belongs to the path, and so applies to the entries in it
    };
    Backup::File::YSelectionPathDescriptor rule;
    Cause cause;
};

/// The near misses of a path, those of the nearest directories first.
struct NearMisses
{
    std::vector<NearMiss> shown; ///< at most 8
    std::size_t more = 0;        ///< the number of further ones
};

NearMisses FindNearMisses(const Backup::File::YSelectionManager& rules, const Krt::File::YPath& path);

} // namespace Agent
