// RuleBench [--quick]: how the cost of rules grows with their number, with levels, and with the length of a
// name. Prints a figure a line.
#include "Backup/File/YSelectionManager.h"
#include "bench/Measure.h"
#include "bench/SelectionInputs.h"

#include "Krt/JSON/YValue.h"

#include <string>
#include <string_view>
#include <utility>

namespace {

using Backup::File::YSelectionManager;
using Krt::Match::Descriptor;
using Krt::Match::MatchType;
using Rule = Backup::File::YSelectionDescriptor;

constexpr int Rounds = 5;

std::size_t g_sum = 0; // of what came out, so that no work can be left out

void PrintTime(const std::string& name, double seconds, std::size_t count, double unitsPerSecond,
               const char* unit)
{
    Bench::PrintRow(name.c_str(), seconds * unitsPerSecond / static_cast<double>(count), unit);
}

void AddGlob(YSelectionManager& tree, const char* place, const std::string& pattern, Rule::RecursionType type,
             bool caseSensitive = true)
{
    tree.Add(place, Krt::Match::GlobDescriptor(pattern.c_str(), caseSensitive), type, Rule::Exclude, true);
}

// A walk asks with a new path each time.
void MeasureQueries(const std::string& name, const YSelectionManager& tree,
                    const std::vector<std::string>& paths)
{
    const double seconds = Bench::Seconds(Rounds, [&] {
        for (const std::string& path : paths)
            g_sum += tree.GetPathSelectionType(path.c_str());
    });
    PrintTime(name, seconds, paths.size(), 1e6, "us");
}

// Globs that share all their text with others except for a number: the first part, the number, the last part.
void MeasureGlobs(const Bench::SelectionInputs& inputs, std::size_t many)
{
    constexpr struct
    {
        const char* name;
        const char* begin;
        const char* end;
    } Shapes[] = {{"prefix", "prefix", "*"}, {"infix", "*infix", "*"}};
    for (std::size_t count = 100; count <= many; count *= 10) {
        const std::string size = "." + std::to_string(count);
        YSelectionManager root;
        for (std::size_t i = 0; i < count; ++i)
            AddGlob(root, "/", "*.ext" + std::to_string(i), Rule::Recursive);
        MeasureQueries("glob.root" + size, root, inputs.GetPaths());
        for (const auto& shape : Shapes) {
            YSelectionManager tree;
            std::vector<std::string> paths;
            for (std::size_t i = 0; i < count; ++i)
                AddGlob(tree, "/usr/lib", shape.begin + std::to_string(i) + shape.end, Rule::NonRecursive);
            for (std::size_t i = 0; i < 20000; ++i)
                paths.push_back("/usr/lib/" + std::string(i % 2 == 0 ? "prefix" : "an infix") +
                                std::to_string(i * 7919 % (2 * count)) + ".txt");
            MeasureQueries(std::string("glob.") + shape.name + size, tree, paths);
        }
    }
}

// No rule covers another, so that all stay.
YSelectionManager ExactRules(std::size_t count)
{
    YSelectionManager tree;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string place = "/home/user/documents/folder" + std::to_string(i % 5000);
        const std::string name = "report " + std::to_string(i) + ".txt";
        tree.Add(place.c_str(), Krt::Match::ExactDescriptor(name.c_str(), true), Rule::NonRecursive,
                 i % 5 == 0 ? Rule::Include : Rule::Exclude, true);
    }
    return tree;
}

void MeasureAdding(std::size_t many)
{
    for (const bool caseSensitive : {true, false}) {
        std::vector<double> added;
        for (int round = 0; round < Rounds; ++round) {
            YSelectionManager tree = ExactRules(many);
            added.push_back(Bench::Seconds(1, [&] {
                for (std::size_t i = 0; i < many / 40; ++i)
                    AddGlob(tree, "/", "*late" + std::to_string(i) + "*", Rule::Recursive, caseSensitive);
            }));
        }
        Bench::PrintRow(caseSensitive ? "rules.late" : "rules.late.any_case", Bench::Median(added), "s");
    }

    Krt::JSON::YArray rules;
    for (std::size_t i = 0; i < many * 2 / 5; ++i) {
        const bool isDeep = i % 2 != 0;
        const std::string number = std::to_string(i);
        const Rule rule(Descriptor(isDeep ? MatchType::Exact : MatchType::Glob,
                                   ((isDeep ? "name" : "*turn") + number).c_str(), true),
                        isDeep ? Rule::NonRecursive : Rule::Recursive, Rule::Exclude, true);
        Krt::JSON::YObject element;
        element.Set<Krt::YString>("path", isDeep ? ("/home/user/folder" + number).c_str() : "/");
        element.Set<Krt::JSON::YObject>("descriptor", rule.ToJSON());
        rules.push_back(Krt::JSON::YValue::Create<Krt::JSON::YObject>(std::move(element)));
    }
    Krt::JSON::YObject job;
    job.Set<Krt::JSON::YArray>("includes", {});
    job.Set<Krt::JSON::YArray>("excludes", std::move(rules));
    Bench::PrintRow("rules.turns", Bench::Seconds(Rounds, [&] { YSelectionManager().FromJSON(job); }), "s");
}

void MeasureLevels(std::size_t count)
{
    for (const std::size_t levels : {30, 120}) {
        const auto [tree, path] = Bench::ExplicitLevels(levels);
        MeasureQueries("levels.explicit." + std::to_string(levels), tree,
                       std::vector<std::string>(count, path));
    }
    const auto [tree, path] = Bench::Levels(120, [](std::size_t) {
        return Rule(Krt::Match::ExactDescriptor("other", true), Rule::NonRecursive, Rule::Exclude, true);
    });
    MeasureQueries("levels.exact.120", tree, std::vector<std::string>(count, path));
}

#ifdef __GLIBC__
// Each rule in a directory of its own, whose parent directory contains nothing else.
void MeasureMemory(std::size_t count)
{
    const std::size_t before = Bench::AllocatedBytes();
    YSelectionManager tree;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string place = "/home/user/folder" + std::to_string(i) + "/cache";
        tree.Add(place.c_str(), Krt::Match::AnyDescriptor(), Rule::Recursive, Rule::Exclude, true);
        g_sum += tree.GetPathSelectionType(place.c_str());
    }
    const auto bytes = static_cast<double>(Bench::AllocatedBytes() - before);
    Bench::PrintRow("rules.memory", bytes / static_cast<double>(count), "bytes");
}
#endif

// The name begins to match at each of its positions.
void MeasureLongName(std::size_t count)
{
    const Krt::YString name(std::string(255, 'a'));
    const Krt::YString pattern("*" + std::string(127, 'a') + "b*");
    const auto check = [&](bool caseSensitive) {
        const Descriptor glob(MatchType::Glob, pattern, caseSensitive);
        const double seconds = Bench::Seconds(Rounds, [&] {
            for (std::size_t i = 0; i < count; ++i)
                g_sum += Krt::Match::Check(name, glob);
        });
        PrintTime(caseSensitive ? "glob.long" : "glob.long.any_case", seconds, count, 1e6, "us");
    };
    check(true);
    check(false);
}

} // namespace

int main(int argc, char** argv)
{
    const bool quick = argc > 1 && std::string_view(argv[1]) == "--quick";
    const Bench::SelectionInputs inputs(quick ? 2000 : 200000);
    MeasureGlobs(inputs, quick ? 1000 : 10000);
    MeasureAdding(quick ? 10000 : 100000);
    MeasureLevels(quick ? 1000 : 20000);
#ifdef __GLIBC__
    MeasureMemory(quick ? 10000 : 100000);
#endif
    MeasureLongName(quick ? 1000 : 100000);
    return g_sum == 1;
}
