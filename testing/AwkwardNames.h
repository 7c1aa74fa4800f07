// Names of files that are hard on whatever carries or shows them, and the way back from what was shown.
#pragma once

#include <set>
#include <string>

namespace Testing {

using NameSet = std::set<std::string>;

/// More than 500: controls, terminal sequences, what parsers take for their own, composed and decomposed
/// letters, changes of direction, and what is no UTF-8 in every way; alone, doubled, amid text, and as long
/// as names may be.
NameSet AwkwardNames();
/// All of one byte, and those of two of which the second is one of `step`, with another start for each first.
NameSet ShortNames(int step);

/// Whether a terminal shows the line as it stands: UTF-8 without controls and what reorders or breaks lines.
bool IsSteady(const std::string& line);
/// The names that the lines of a printed text tell of entries below `parent`: of each line what stands up to
/// `behind`. Lines without both don't count; one that isn't steady fails the test.
NameSet NamesIn(const std::string& text, const std::string& parent, const std::string& behind);

} // namespace Testing
