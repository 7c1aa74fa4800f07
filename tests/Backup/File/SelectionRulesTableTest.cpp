// Runs the tables of cases in docs/rules.md, whose first two headings determine their kind.
#include "testing/SelectionText.h"
#include "testing/TemporaryDirectory.h"

#include "Backup/Volume/Unix/Util.h"

#include <gtest/gtest.h>

#include <array>
#include <map>
#include <sstream>

namespace {

using Backup::File::YSelectionManager;

const std::string Answers = "Rules/Path", Kept = "Rules, in this order/Kept", Starts = "Rules/Starts",
                  Classes = "Class/Types";

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

void ExpectClass(unsigned long driveClass, const std::string& types)
{
    std::istringstream input(types); // separated by ", "
    for (std::string type; input >> type;)
        EXPECT_EQ(Backup::Volume::ClassifyFilesystemType(type.substr(0, type.find(',')).c_str()), driveClass);
}

TEST(SelectionRulesTable, CasesOfPageHold)
{
    std::map<std::string, int> counts = {{Answers, 0}, {Kept, 0}, {Starts, 0}, {Classes, 0}};
    std::istringstream page(Testing::ReadFile(RULES_PAGE));
    std::string kind, rules; // of the table, and of the rows so far
    for (std::string line; std::getline(page, line);) {
        const std::vector<std::string> cells = line.starts_with("|") ? Cells(line) : Cells("|");
        if (cells.size() < 2 || kind.empty()) {
            kind = cells.size() < 2 ? "" : cells[0] + "/" + cells[1];
            rules.clear();
        } else if (counts.contains(kind) && !line.starts_with("|---")) {
            SCOPED_TRACE(line);
            ASSERT_EQ(cells.size(), kind == Answers ? 4u : 3u);
            ++counts[kind];
            if (kind == Classes) {
                ExpectClass(std::stoul(cells[0]), cells[1]);
                continue;
            }
            rules = cells[0].empty() ? rules : cells[0];
            ASSERT_NE(rules, "");
            const YSelectionManager tree = Testing::Tree(rules); // throws if a rule is invalid
            if (kind == Answers)
                EXPECT_EQ(AnswerOf(tree, cells[1]), cells[2]);
            else
                EXPECT_EQ(kind == Kept ? Testing::Words(tree) : StartsOf(tree), cells[1]);
        }
    }
    EXPECT_GE(counts[Answers], 53);
    EXPECT_GE(counts[Kept], 13);
    EXPECT_GE(counts[Starts], 5);
    EXPECT_EQ(counts[Classes], 6);
}

} // namespace
