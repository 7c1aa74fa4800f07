// SelectionBench RULES PATHS [ROUNDS]: how fast a job's rules are taken in and answer. A line of RULES is
// "directory TAB any|exact|glob TAB pattern TAB recursive (0 or 1) TAB include|exclude", a line of PATHS
// begins with a path up to a TAB. Prints medians: milliseconds to build the tree, nanoseconds a query, and
// the answers.
#include "Backup/File/YSelectionManager.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionManager;
using Backup::File::YSelectionPathDescriptor;
using Krt::File::YPath;
using Krt::Match::Descriptor;
using Krt::Match::MatchType;

namespace {

template <class Work>
double MedianSeconds(int rounds, Work work)
{
    std::vector<double> seconds;
    for (int i = 0; i < rounds; ++i) {
        const auto start = std::chrono::steady_clock::now();
        work();
        seconds.push_back(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count());
    }
    std::nth_element(seconds.begin(), seconds.begin() + rounds / 2, seconds.end());
    return seconds[rounds / 2];
}

std::vector<YSelectionPathDescriptor> ReadRules(const char* file)
{
    std::vector<YSelectionPathDescriptor> rules;
    std::ifstream input(file);
    for (std::string line; std::getline(input, line);) {
        std::istringstream fields(line);
        std::string directory, kind, pattern, recursive, sense;
        for (std::string* field : {&directory, &kind, &pattern, &recursive, &sense})
            std::getline(fields, *field, '\t');
        const MatchType type = kind == "any"     ? MatchType::Any
                               : kind == "exact" ? MatchType::Exact
                                                 : MatchType::Glob;
        rules.emplace_back(
            YPath(directory.c_str()), Descriptor(type, pattern.c_str(), true),
            recursive == "1" ? YSelectionDescriptor::Recursive : YSelectionDescriptor::NonRecursive,
            sense == "include" ? YSelectionDescriptor::Include : YSelectionDescriptor::Exclude, true);
    }
    return rules;
}

std::vector<std::string> ReadPaths(const char* file)
{
    std::vector<std::string> paths;
    std::ifstream input(file);
    for (std::string line; std::getline(input, line);)
        paths.push_back(line.substr(0, line.find('\t')));
    return paths;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::fprintf(stderr, "Usage: SelectionBench RULES PATHS [ROUNDS]\n");
        return 2;
    }
    const std::vector<YSelectionPathDescriptor> rules = ReadRules(argv[1]);
    const std::vector<std::string> paths = ReadPaths(argv[2]);
    const int rounds = argc > 3 ? std::max(std::atoi(argv[3]), 1) : 5;

    YSelectionManager tree;
    const double build = MedianSeconds(rounds, [&] {
        tree = YSelectionManager();
        for (const YSelectionPathDescriptor& rule : rules)
            tree.Add(rule);
    });
    std::array<std::size_t, 4> answers{};
    const double queries = MedianSeconds(rounds, [&] {
        answers.fill(0);
        for (const std::string& path : paths) // a walk asks with a new path each time
            ++answers[tree.GetPathSelectionType(path.c_str())];
    });
    std::printf("rules=%zu build_ms=%.2f ns/query=%.0f included=%zu excluded=%zu unselected=%zu\n",
                rules.size(), build * 1e3, queries * 1e9 / static_cast<double>(paths.size()),
                answers[YSelectionDescriptor::Include], answers[YSelectionDescriptor::Exclude],
                answers[YSelectionDescriptor::NotSelectedDoRecurse] +
                    answers[YSelectionDescriptor::NotSelectedDoNotRecurse]);
}
