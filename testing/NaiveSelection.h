// A selection that keeps its rules in one list and answers every question by looking through all of it: slow,
// and plain enough to check the tree against.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <string>
#include <vector>

namespace Testing {

class NaiveSelection
{
public:
    using SelectionType = Backup::File::YSelectionDescriptor::SelectionType;

    /// False if a rule in the list covers the new one; otherwise the rules that it covers go.
    bool Add(const Backup::File::YSelectionPathDescriptor& rule);
    SelectionType Ask(const std::string& path) const;
    /// What a log says of the rules that Add dropped, a line for each.
    const std::vector<std::string>& PruningLog() const { return m_pruningLog; }
    /// The rules in words, in the order in which a walk through a tree meets them.
    std::string Words() const;
    /// The directories with a rule at or below them, including the root.
    std::size_t CountPlaces() const;
    /// Compares the tree's answer about the path, and the parts that it is made of.
    void ExpectAnswersOf(const Backup::File::YSelectionManager& tree, const std::string& path) const;

private:
    using Names = std::vector<std::string>;
    struct Placed
    {
        Names place;
        Backup::File::YSelectionPathDescriptor rule;
    };
    // The rules in the order in which a walk through a tree visits them.
    std::vector<Placed> InOrder() const;
    static Names Split(const std::string& path);
    // The rule applies to the name at the index in `path`, and reaches it from its place.
    static bool SpeaksOf(const Placed& placed, const Names& path, std::size_t index);
    bool IsIncluded(const Names& path) const;
    bool IsExcluded(const Names& path, bool& reportable) const;
    bool IsExplicitFrom(const Names& path, std::size_t index) const;
    bool AllBelowSilentlyExcluded(const Names& path) const;
    bool MayIncludeBelow(const Names& path) const;

    std::vector<Placed> m_rules;
    std::vector<std::string> m_pruningLog;
};

/// What forests of random rules are made of, and the paths that they are asked about.
struct World
{
    int forests;
    unsigned int mostRules;
    std::vector<std::string> places, patterns, paths;
    unsigned int lastAtRoot = 0; ///< the number of rules at "/", after all others
};

/// Adds each forest's rules to a tree and to a list, and expects them to keep the same rules, the tree no
/// node that it doesn't need, and to give the same answers. Every second tree logs what it prunes, which has
/// to be in the list's order. The seed is that of the environment variable SELECTION_SEED, or another at each
/// run.
void CompareWithThePlainList(const World& world);

} // namespace Testing
