#include "bench/SelectionInputs.h"

#include <algorithm>
#include <iterator>
#include <set>

namespace Bench {

using Backup::File::YSelectionDescriptor;
using Krt::Match::MatchType;

namespace {

using Random = std::mt19937;

constexpr std::size_t DirectoryCount = 15000;
constexpr long DeepestDirectory = 8;

const std::vector<std::string> Words = {
    "usr",   "lib",    "share",   "home",    "src",    "include", "docs",  "images", "python3", "modules",
    "local", "config", "cache",   "project", "assets", "test",    "build", "data",   "scripts", "linux",
    "boost", "detail", "x86_64",  "icons",   "locale", "fonts",   "perl5", "mail",   "archive", "backup",
    "music", "video",  "reports", "2024",    "tools",  "vendor",  "core",  "api",    "client",  "server"};
const std::vector<std::string> Endings = {".h",  ".py", ".pyc", ".mo",  ".gz",  ".so.1", ".hpp", ".tmp",
                                          ".md", ".c",  ".txt", ".jpg", ".xml", ".log",  "~",    ""};
const std::vector<std::string> Globs = {"*.h", "*.py",  "*.pyc", "*.mo",  "*.gz",  "*.so*",
                                        "*~",  "*.tmp", "*.log", "test*", "*.hpp", "cache*_?.c"};

const std::string& Pick(const std::vector<std::string>& choices, Random& random)
{
    return choices[random() % choices.size()];
}

std::string FileName(Random& random)
{
    return Pick(Words, random) + "_" + std::to_string(random() % 40) + Pick(Endings, random);
}

// A glob that matches "level". Those of the first 128 levels differ.
std::string GlobOfLevel(std::size_t level)
{
    std::string pattern = (level & 32) != 0 ? "*level" : "level";
    for (std::size_t i = 0; i < 5; ++i) {
        if ((level >> i & 1) != 0)
            pattern[pattern.size() - 1 - i] = '?';
    }
    return (level & 64) != 0 ? pattern + "*" : pattern;
}

} // namespace

Backup::File::YSelectionPathDescriptor SelectionInputs::Rule::AsDescriptor() const
{
    return {directory.c_str(), Krt::Match::Descriptor(type, pattern.c_str(), true),
            isRecursive ? YSelectionDescriptor::Recursive : YSelectionDescriptor::NonRecursive,
            isInclude ? YSelectionDescriptor::Include : YSelectionDescriptor::Exclude, true};
}

std::string SelectionInputs::Rule::AsGitignore() const
{
    const std::string place = (isInclude ? "!" : "") + directory;
    return place + (type == MatchType::Any ? "/" : (isRecursive ? "/**/" : "/") + pattern);
}

SelectionInputs::SelectionInputs(std::size_t pathCount)
{
    Random random(1);
    std::set<std::string> known;
    std::vector<std::string> all{""};
    while (all.size() < DirectoryCount) {
        const std::string& parent = all[random() % all.size()];
        if (std::count(parent.begin(), parent.end(), '/') >= DeepestDirectory)
            continue;
        const std::string number = random() % 2 == 0 ? "" : std::to_string(random() % 30);
        std::string directory = parent + "/" + Pick(Words, random) + number;
        if (known.insert(directory).second)
            all.push_back(std::move(directory));
    }
    m_directories.assign(std::next(all.begin()), all.end());
    while (m_paths.size() < pathCount) {
        const std::string& directory = Pick(m_directories, random);
        m_paths.push_back(directory + "/" + (random() % 10 == 0 ? "" : FileName(random)));
    }
}

std::vector<SelectionInputs::Rule> SelectionInputs::MixedRules(std::size_t count) const
{
    return MakeRules(count, false);
}

std::vector<SelectionInputs::Rule> SelectionInputs::LiteralRules(std::size_t count) const
{
    return MakeRules(count, true);
}

std::vector<SelectionInputs::Rule> SelectionInputs::MakeRules(std::size_t count, bool literal) const
{
    Random random(2);
    std::vector<std::string> places = m_directories;
    std::shuffle(places.begin(), places.end(), random);
    std::vector<Rule> rules;
    for (std::size_t i = 0; i < count; ++i) {
        Rule rule{places[i % places.size()], MatchType::Any, "", true, random() % 5 == 0};
        if (i >= places.size()) // more rules than directories: further ones below
            rule.directory += "/more" + std::to_string(i / places.size());
        const unsigned int kind = random() % (literal ? 8 : 10);
        if (kind >= 8) {
            rule.type = MatchType::Glob;
            rule.pattern = Pick(Globs, random);
            rule.isRecursive = random() % 10 < 7;
        } else if (kind >= 5) {
            rule.type = MatchType::Exact;
            rule.pattern = FileName(random);
            rule.isRecursive = !literal && random() % 5 == 0;
        }
        rules.push_back(std::move(rule));
    }
    return rules;
}

RulesOfPath Levels(std::size_t count, const std::function<YSelectionDescriptor(std::size_t level)>& excludeOf)
{
    Backup::File::YSelectionManager tree;
    tree.Add("/", Krt::Match::AnyDescriptor(), YSelectionDescriptor::Recursive, YSelectionDescriptor::Include,
             true);
    std::string path;
    for (std::size_t level = 0; level < count; ++level) {
        tree.Add(level == 0 ? "/" : path.c_str(), excludeOf(level));
        path += "/level";
    }
    return {std::move(tree), std::move(path)};
}

RulesOfPath ExplicitLevels(std::size_t count)
{
    RulesOfPath rules = Levels(count, [](std::size_t level) {
        return YSelectionDescriptor(Krt::Match::GlobDescriptor(GlobOfLevel(level).c_str(), true),
                                    YSelectionDescriptor::Recursive, YSelectionDescriptor::Exclude, true);
    });
    YSelectionDescriptor include(Krt::Match::ExactDescriptor("level", true),
                                 YSelectionDescriptor::NonRecursive, YSelectionDescriptor::Include, true);
    include.SetExplicitSelection(true);
    rules.first.Add(Krt::File::YPath(rules.second.c_str()).GetParent(), include);
    return rules;
}

} // namespace Bench
