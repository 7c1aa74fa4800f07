// File names that are hard to store and to print, and their recovery from printed text.
#pragma once

#include <set>
#include <string>

namespace Testing {

using NameSet = std::set<std::string>;

/// More than 500: controls, terminal sequences, syntax of parsers, composed and decomposed letters, changes
/// of direction, and each kind of invalid UTF-8; alone, doubled, amid text, and as long as names may be.
NameSet AwkwardNames();
/// All of one byte, and those of two of which the second is one of `step`, with another start for each first.
NameSet ShortNames(int step);

/// Returns true if a terminal shows the line unchanged: UTF-8 without controls and without characters that
/// reorder or break lines.
bool IsSteady(const std::string& line);
/// The names that the lines of a printed text tell of entries below `parent`: of each line what stands up to
/// `behind`. Lines without both don't count; one that isn't steady fails the test.
NameSet NamesIn(const std::string& text, const std::string& parent, const std::string& behind);

} // namespace Testing
