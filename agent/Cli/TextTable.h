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

/// Returns the titles and the rows, a line each. `width` is the maximum number of characters of a line; 0
/// means no limit. Columns that may be cut are shortened to fit, the widest first, as far as possible; a text
/// that is cut ends with an ellipsis. All text must be printable.
std::string TableText(const std::vector<TextColumn>& columns, std::vector<TextRow> rows, unsigned int width);

} // namespace Agent
