// Selection rules as words, so that a test shows a tree as a literal, its rules parted by "; ":
//     include|exclude|silent PATH [recursive] none|any|exact=NAME|glob=PATTERN [nocase] [explicit]
// "silent" is an exclude that isn't reported, "-" the empty path. An explicit flag is set on any shape of
// rule.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <string>

namespace Testing {

Backup::File::YSelectionPathDescriptor Rule(const std::string& words);
/// The words of a rule.
std::string Words(const Krt::File::YPath& path, const Backup::File::YSelectionDescriptor& rule);

/// The rules of a tree in the order of a walk.
std::string Words(const Backup::File::YSelectionManager& tree);
/// A tree to which the rules were added in order.
Backup::File::YSelectionManager Tree(const std::string& rules);
/// The job file of such a tree.
std::string JobText(const std::string& rules);

} // namespace Testing
