#include "agent/Cli/TextTable.h"

#include "Krt/String/YString.h"

#include <algorithm>
#include <numeric>

namespace Agent {

namespace {

constexpr unsigned int Gap = 2;
constexpr unsigned int LeastWidth = 8; // of a column that is cut

unsigned int WidthOf(const std::string& text)
{
    return Krt::YString(std::string_view(text)).Length();
}

std::vector<unsigned int> NaturalWidths(const std::vector<TextRow>& rows)
{
    std::vector<unsigned int> widths(rows.front().size());
    for (const TextRow& row : rows) {
        for (std::size_t i = 0; i < widths.size(); ++i)
            widths[i] = std::max(widths[i], WidthOf(row[i]));
    }
    return widths;
}

void Shrink(std::vector<unsigned int>& widths, const std::vector<TextColumn>& columns, unsigned int limit)
{
    unsigned int total = std::accumulate(widths.begin(), widths.end(), 0u) +
                         Gap * static_cast<unsigned int>(widths.size() - 1);
    for (; total > limit; --total) {
        unsigned int* widest = nullptr;
        for (std::size_t i = 0; i < widths.size(); ++i) {
            if (columns[i].mayBeCut && (widest == nullptr || widths[i] > *widest))
                widest = &widths[i];
        }
        if (widest == nullptr || *widest <= LeastWidth)
            return;
        --*widest;
    }
}

std::string Cell(const std::string& text, unsigned int width, bool alignsRight)
{
    const unsigned int natural = WidthOf(text);
    if (natural > width)
        return Krt::YString(std::string_view(text)).Left(width - 1).Bytes() + "\u2026";
    const std::string padding(width - natural, ' ');
    return alignsRight ? padding + text : text + padding;
}

} // namespace

std::string TableText(const std::vector<TextColumn>& columns, std::vector<TextRow> rows, unsigned int width)
{
    TextRow titles;
    for (const TextColumn& column : columns)
        titles.push_back(column.title);
    rows.insert(rows.begin(), std::move(titles));
    std::vector<unsigned int> widths = NaturalWidths(rows);
    if (width != 0)
        Shrink(widths, columns, width);

    std::string text;
    for (const TextRow& row : rows) {
        std::string line;
        for (std::size_t i = 0; i < columns.size(); ++i)
            line += std::string(i == 0 ? 0 : Gap, ' ') + Cell(row[i], widths[i], columns[i].alignsRight);
        line.erase(line.find_last_not_of(' ') + 1);
        text += line + "\n";
    }
    return text;
}

} // namespace Agent
