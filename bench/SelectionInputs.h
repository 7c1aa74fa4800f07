// Paths and rules for measuring selections: a made-up tree of directories and files, the same each time.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <functional>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace Bench {

class SelectionInputs
{
public:
    struct Rule
    {
        std::string directory;
        Krt::Match::MatchType type;
        std::string pattern;
        bool isRecursive;
        bool isInclude;
        Backup::File::YSelectionPathDescriptor AsDescriptor() const;
        /// As a line of a gitignore file: an exclude ignores, an include takes that back.
        std::string AsGitignore() const;
    };

    explicit SelectionInputs(std::size_t pathCount);

    /// Each a file or a directory of the tree; a directory ends in "/".
    const std::vector<std::string>& GetPaths() const { return m_paths; }
    /// Half for all names, a third for one name, the rest globs; four of five exclude.
    std::vector<Rule> MixedRules(std::size_t count) const;
    /// None with a wildcard.
    std::vector<Rule> LiteralRules(std::size_t count) const;

private:
    std::vector<Rule> MakeRules(std::size_t count, bool literal) const;

    std::vector<std::string> m_directories;
    std::vector<std::string> m_paths;
};

/// Rules, and a path that they are about.
using RulesOfPath = std::pair<Backup::File::YSelectionManager, std::string>;
/// Directories below each other, which are all named "level", with an exclude of the level's number in each.
RulesOfPath Levels(std::size_t count,
                   const std::function<Backup::File::YSelectionDescriptor(std::size_t level)>& excludeOf);
/// Levels with another recursive glob in each of the first 128, all of which match. The last one is
/// included explicitly.
RulesOfPath ExplicitLevels(std::size_t count);

} // namespace Bench
