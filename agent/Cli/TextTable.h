// Lines of text in columns.
#pragma once

#include <string>
#include <vector>

namespace Agent {

struct TextColumn
{
    std::string title;
    bool alignsRight = false;
    bool mayBeCut = false;
};

using TextRow = std::vector<std::string>; // a text for each column

/// The titles and the rows, a line each. With a `width` other than 0, columns that may be cut give way, the
/// widest first, until the lines have at most so many characters, or nothing is left to give; what is cut
/// ends in an ellipsis. All text must be printable.
std::string TableText(const std::vector<TextColumn>& columns, std::vector<TextRow> rows, unsigned int width);

} // namespace Agent
