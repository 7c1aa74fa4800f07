// SelectionBench: how fast a job's rules are taken in and answer.
//   SelectionBench [--quick]                     prints all that needs no peer, a figure a line
//   SelectionBench inputs DIR mixed|literal N [PATHS]
//                                                writes N rules as a gitignore file, and the paths
//   SelectionBench query mixed|literal N [PATHS] prints the nanoseconds of a query
#include "Backup/File/YSelectionExplanation.h"
#include "Backup/File/YSelectionManager.h"
#include "bench/Measure.h"
#include "bench/SelectionInputs.h"

#include <cstdlib>
#include <fstream>
#include <string>
#include <string_view>
#include <thread>

namespace {

using Backup::File::YSelectionManager;
using Bench::SelectionInputs;
using Rules = std::vector<Backup::File::YSelectionPathDescriptor>;
using Type = Backup::File::YSelectionDescriptor;

constexpr int Rounds = 5;
constexpr std::size_t AllPaths = 200000;

// Answers are summed up here, so that no query can be left out.
std::size_t g_answers = 0;

Rules Described(const std::vector<SelectionInputs::Rule>& rules)
{
    Rules described;
    for (const SelectionInputs::Rule& rule : rules)
        described.push_back(rule.AsDescriptor());
    return described;
}

YSelectionManager TreeOf(const Rules& rules)
{
    YSelectionManager tree;
    for (const auto& rule : rules)
        tree.Add(rule);
    return tree;
}

// A walk asks with a new path each time, so each query constructs its path from text.
std::size_t AskAll(const YSelectionManager& tree, const std::vector<std::string>& paths)
{
    std::size_t answers = 0;
    for (const std::string& path : paths)
        answers += tree.GetPathSelectionType(path.c_str());
    return answers;
}

std::function<void()> Asking(const YSelectionManager& tree, const std::vector<std::string>& paths)
{
    return [&] {
        g_answers += AskAll(tree, paths);
    };
}

double Nanoseconds(double seconds, std::size_t count)
{
    return seconds * 1e9 / static_cast<double>(count);
}

Rules InOneDirectory(std::size_t count, Krt::Match::MatchType type)
{
    Rules rules;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string name = "name" + std::to_string(i);
        const bool isGlob = type == Krt::Match::MatchType::Glob;
        rules.emplace_back("/usr/lib",
                           Krt::Match::Descriptor(type, (isGlob ? "*." + name : name).c_str(), true),
                           Type::NonRecursive, i % 5 == 0 ? Type::Include : Type::Exclude, true);
    }
    return rules;
}

void PrintSized(const std::string& name, std::size_t size, double value, const char* unit)
{
    Bench::PrintRow((name + "." + std::to_string(size)).c_str(), value, unit);
}

void MeasureGrowth(const SelectionInputs& inputs, std::size_t most)
{
    std::vector<std::size_t> counts;
    std::vector<YSelectionManager> trees;
    for (std::size_t count = 10; count <= most; count *= 10) {
        counts.push_back(count);
        trees.push_back(TreeOf(Described(inputs.MixedRules(count))));
    }
    std::vector<std::function<void()>> asking;
    for (const YSelectionManager& tree : trees)
        asking.push_back(Asking(tree, inputs.GetPaths()));
    const auto times = Bench::SecondsInTurns(Rounds, asking);
    for (std::size_t i = 0; i < counts.size(); ++i)
        PrintSized("selection.growth.query", counts[i], Nanoseconds(times[i], inputs.GetPaths().size()),
                   "ns");
    Bench::PrintRow("selection.growth", times.back() / times.front(), "x");
}

void MeasureOneDirectory(std::size_t most)
{
    std::vector<std::string> paths;
    for (std::size_t i = 0; i < 20000; ++i)
        paths.push_back("/usr/lib/name" + std::to_string(i * 7919 % (2 * most)));
    for (const auto type : {Krt::Match::MatchType::Exact, Krt::Match::MatchType::Glob}) {
        const bool isGlob = type == Krt::Match::MatchType::Glob;
        const YSelectionManager few = TreeOf(InOneDirectory(10, type));
        const YSelectionManager many = TreeOf(InOneDirectory(most, type));
        paths.resize(isGlob ? 200 : paths.size());
        const auto times = Bench::SecondsInTurns(Rounds, {Asking(few, paths), Asking(many, paths)});
        const double fewer = Nanoseconds(times[0], paths.size());
        const double more = Nanoseconds(times[1], paths.size());
        if (isGlob)
            Bench::PrintRow("selection.crowd.glob", (more - fewer) / static_cast<double>(most - 10), "ns");
        else
            Bench::PrintRow("selection.crowd.exact", more / fewer, "x");
    }
}

void MeasureBuilding(const SelectionInputs& inputs, std::size_t many)
{
    std::vector<double> builds;
    for (std::size_t count = many / 100; count <= 10 * many; count *= 10) {
        const Rules rules = Described(inputs.MixedRules(count));
        builds.push_back(Bench::Seconds(Rounds, [&] { TreeOf(rules); }));
        PrintSized("selection.growth.build", count, builds.back() * 1e3, "ms");
    }
    const double tenth = builds[builds.size() - 2];
    Bench::PrintRow("selection.build.tree", tenth, "s");
    Bench::PrintRow("selection.build.tenfold", builds.back() / (10 * tenth), "x");
    const Rules rules = Described(inputs.MixedRules(many));
    const Rules crowd = InOneDirectory(many, Krt::Match::MatchType::Exact);
    Bench::PrintRow("selection.build.crowd", Bench::Seconds(Rounds, [&] { TreeOf(crowd); }), "s");
    std::vector<double> added;
    for (int round = 0; round < Rounds; ++round) {
        YSelectionManager tree = TreeOf(rules);
        added.push_back(Bench::Seconds(1, [&] {
            for (std::size_t i = 0; i < many / 10; ++i) {
                const std::string name = "late" + std::to_string(i);
                const bool isGlob = i % 2 == 0;
                const Krt::Match::Descriptor names(isGlob ? Krt::Match::MatchType::Glob
                                                          : Krt::Match::MatchType::Exact,
                                                   (isGlob ? "*." + name : name).c_str(), true);
                tree.Add("/", names, Type::Recursive, Type::Exclude, true);
            }
        }));
    }
    Bench::PrintRow("selection.build.recursive_last", Bench::Median(added), "s");
}

// A directory below which nothing is included, so that no rule cuts the answer short.
void MeasureDirectoryAnswer(std::size_t most)
{
    const auto make = [](std::size_t count) {
        YSelectionManager tree;
        for (std::size_t i = 0; i < count; ++i) {
            const std::string place = "/home/user/d" + std::to_string(i % 1000);
            tree.Add(place.c_str(), Krt::Match::ExactDescriptor(("n" + std::to_string(i)).c_str(), true),
                     Type::NonRecursive, Type::Exclude, true);
        }
        return tree;
    };
    const YSelectionManager few = make(10);
    const YSelectionManager many = make(most);
    const std::vector<std::string> paths(100000, "/home/user");
    const auto times = Bench::SecondsInTurns(Rounds, {Asking(few, paths), Asking(many, paths)});
    Bench::PrintRow("selection.directory", times[1] / times[0], "x");
}

// An explanation makes the decision again with a trace, which the plain query does not have.
void MeasureExplanation(const SelectionInputs& inputs)
{
    const YSelectionManager tree = TreeOf(Described(inputs.MixedRules(1000)));
    std::vector<std::string> paths = inputs.GetPaths();
    paths.resize(AllPaths / 10);
    const auto explain = [&] {
        for (const std::string& path : paths)
            g_answers += tree.Explain(path.c_str()).answer;
    };
    const auto times = Bench::SecondsInTurns(Rounds, {Asking(tree, paths), explain});
    Bench::PrintRow("selection.explain.plain", Nanoseconds(times[0], paths.size()), "ns");
    Bench::PrintRow("selection.explain", times[1] / times[0], "x");
}

void MeasureThreads(const SelectionInputs& inputs)
{
    const YSelectionManager tree = TreeOf(Described(inputs.MixedRules(1000)));
    const auto run = [&](int threads) {
        std::vector<std::thread> running;
        for (int i = 0; i < threads; ++i)
            running.emplace_back([&] {
                if (AskAll(tree, inputs.GetPaths()) == 0)
                    std::abort();
            });
        for (std::thread& thread : running)
            thread.join();
    };
    const auto times = Bench::SecondsInTurns(2 * Rounds - 1, {[&] { run(1); },
                                                              [&] {
                                                                  run(2);
                                                              }});
    Bench::PrintRow("selection.threads", 2 * times[0] / times[1], "x");
}

void MeasureAll(bool quick)
{
    const std::size_t many = quick ? 10000 : 100000;
    const SelectionInputs inputs(quick ? AllPaths / 10 : AllPaths);
    MeasureGrowth(inputs, many);
    MeasureOneDirectory(many / 10);
    MeasureBuilding(inputs, many);
    MeasureDirectoryAnswer(many);
    MeasureExplanation(inputs);
    MeasureThreads(inputs);
}

void WriteInputs(const std::string& directory, const SelectionInputs& inputs,
                 std::vector<SelectionInputs::Rule> rules)
{
    std::ofstream paths(directory + "/paths");
    for (const std::string& path : inputs.GetPaths())
        paths << path << '\n';
    // The last line that matches decides there, so the deepest rules come last.
    const auto depth = [](const SelectionInputs::Rule& rule) {
        return std::count(rule.directory.begin(), rule.directory.end(), '/');
    };
    std::stable_sort(rules.begin(), rules.end(),
                     [&](const auto& a, const auto& b) { return depth(a) < depth(b); });
    std::ofstream lines(directory + "/rules");
    for (const SelectionInputs::Rule& rule : rules)
        lines << rule.AsGitignore() << '\n';
}

} // namespace

int main(int argc, char** argv)
{
    const std::vector<std::string> arguments(argv + 1, argv + argc);
    const std::size_t skipped = !arguments.empty() && arguments[0] == "inputs" ? 1 : 0;
    if (arguments.empty() || arguments[0] == "--quick") {
        MeasureAll(!arguments.empty());
    } else if (arguments.size() >= skipped + 3) {
        const std::size_t count = std::stoul(arguments[skipped + 2]);
        const SelectionInputs inputs(arguments.size() > skipped + 3 ? std::stoul(arguments[skipped + 3])
                                                                    : AllPaths);
        const bool isLiteral = arguments[skipped + 1] == "literal";
        const auto rules = isLiteral ? inputs.LiteralRules(count) : inputs.MixedRules(count);
        if (skipped != 0) {
            WriteInputs(arguments[1], inputs, rules);
        } else {
            const YSelectionManager tree = TreeOf(Described(rules));
            Asking(tree, inputs.GetPaths())();
            const double seconds = Bench::Seconds(1, Asking(tree, inputs.GetPaths()));
            std::printf("%.1f\n", Nanoseconds(seconds, inputs.GetPaths().size()));
        }
    } else {
        std::fprintf(stderr, "Usage: SelectionBench [--quick]\n"
                             "       SelectionBench inputs DIR mixed|literal RULES [PATHS]\n"
                             "       SelectionBench query mixed|literal RULES [PATHS]\n");
        return 2;
    }
    return g_answers == 1 ? 1 : 0;
}
