// Selection rules as words, so that a test shows a tree as a literal, with the rules separated by "; ":
//     include|exclude|silent PATH [recursive] none|any|exact=NAME|glob=PATTERN [nocase] [explicit]
// "silent" is an exclude that is not reported, "-" the empty path. Any rule can have an explicit flag.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <string>

namespace Testing {

Backup::File::YSelectionPathDescriptor Rule(const std::string& words);
/// Returns the words of a rule.
std::string Words(const Krt::File::YPath& path, const Backup::File::YSelectionDescriptor& rule);

/// Returns the rules of a tree in the order of a walk.
std::string Words(const Backup::File::YSelectionManager& tree);
/// Returns a tree to which the rules were added in order.
Backup::File::YSelectionManager Tree(const std::string& rules);
/// Returns the job file of such a tree.
std::string JobText(const std::string& rules);

} // namespace Testing
