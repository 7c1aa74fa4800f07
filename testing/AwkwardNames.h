// File names that are hard to store and to print, and their recovery from printed text.
#pragma once

#include <set>
#include <string>

namespace Testing {

using NameSet = std::set<std::string>;

/// Returns more than 500 names: controls, terminal sequences, syntax of parsers, composed and decomposed
/// letters, changes of direction, and each kind of invalid UTF-8. Each occurs alone, doubled, in the middle
/// of text, and in a name of the maximum length.
NameSet AwkwardNames();
/// Returns all names of one byte, and of two bytes one in `step`, with a different start for each first byte.
NameSet ShortNames(int step);

/// Returns true if a terminal shows the line unchanged: UTF-8 without controls and without characters that
/// reorder or break lines.
bool IsSteady(const std::string& line);
/// Returns the names of entries below `parent` that the lines of a printed text contain: the text between
/// `parent` and `ending`. Lines without both don't count; a line that isn't steady fails the test.
NameSet NamesIn(const std::string& text, const std::string& parent, const std::string& ending);

} // namespace Testing
