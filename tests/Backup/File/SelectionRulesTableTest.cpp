// Runs the tables of cases in docs/rules.md.
#include "testing/SelectionText.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <array>
#include <sstream>

namespace {

using Backup::File::YSelectionManager;
using Testing::Tree;

// The kinds of tables, told by their first two headings.
enum Kind
{
    Answers,
    Kept,
    Starts,
    Other
};

struct Row
{
    Kind kind;
    std::size_t line;
    std::string rules;
    std::string second; // the path, what is kept, the starts
    std::string answer;
};

// The cells of a line "| a | b |", without blanks around them and without the marks of code.
std::vector<std::string> Cells(const std::string& line)
{
    std::vector<std::string> cells;
    std::istringstream input(line.substr(1));
    for (std::string cell; std::getline(input, cell, '|');) {
        const std::size_t begin = cell.find_first_not_of(" `"), end = cell.find_last_not_of(" `");
        cells.push_back(begin == std::string::npos ? "" : cell.substr(begin, end - begin + 1));
    }
    return cells;
}

Kind KindOf(const std::vector<std::string>& headings)
{
    const std::string begin = headings.size() < 2 ? "" : headings[0] + "/" + headings[1];
    return begin == "Rules/Path"                  ? Answers
           : begin == "Rules, in this order/Kept" ? Kept
           : begin == "Rules/Starts"              ? Starts
                                                  : Other;
}

// All rows of the three kinds of tables.
std::vector<Row> Parse(const std::string& page)
{
    std::vector<Row> rows;
    Kind kind = Other;
    bool inTable = false;
    std::string rules;
    std::istringstream input(page);
    std::size_t number = 1;
    for (std::string line; std::getline(input, line); ++number) {
        if (!line.starts_with("|")) {
            inTable = false;
            continue;
        }
        const std::vector<std::string> cells = Cells(line);
        if (!inTable)
            kind = KindOf(cells);
        else if (kind != Other && !line.starts_with("|---")) {
            if (!cells[0].empty())
                rules = cells[0];
            EXPECT_EQ(cells.size(), kind == Answers ? 4u : 3u) << "line " << number;
            rows.push_back({kind, number, rules, cells.at(1), cells.at(2)});
        }
        if (!inTable)
            rules.clear();
        inTable = true;
    }
    return rows;
}

std::string AnswerOf(const YSelectionManager& tree, const std::string& path)
{
    constexpr std::array words = {"stop", "go on", "include", "exclude"};
    return words.at(tree.GetPathSelectionType(path.c_str()));
}

std::string StartsOf(const YSelectionManager& tree)
{
    std::string starts;
    for (const Krt::File::YPath& top : tree.GetIncludeTops(""))
        starts += (starts.empty() ? "" : "; ") + top.Bytes();
    return starts;
}

TEST(SelectionRulesTable, HoldsAsItIsWritten)
{
    std::array<int, 3> counts = {};
    for (const Row& row : Parse(Testing::ReadFile(RULES_PAGE))) {
        SCOPED_TRACE("line " + std::to_string(row.line) + ": " + row.rules);
        ++counts[row.kind];
        const YSelectionManager tree = Tree(row.rules); // which throws on what is no rule
        EXPECT_NE(row.rules, "");
        if (row.kind == Answers)
            EXPECT_EQ(AnswerOf(tree, row.second), row.answer) << row.second;
        else
            EXPECT_EQ(row.kind == Kept ? Testing::Words(tree) : StartsOf(tree), row.second);
    }
    EXPECT_GE(counts[Answers], 53);
    EXPECT_GE(counts[Kept], 13);
    EXPECT_GE(counts[Starts], 5);
}

} // namespace
