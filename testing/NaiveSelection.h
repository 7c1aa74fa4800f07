// A selection that keeps its rules in one list and searches all of it for every question. Slow, but simple
// enough to check the tree against.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <string>
#include <vector>

namespace Testing {

class NaiveSelection
{
public:
    using SelectionType = Backup::File::YSelectionDescriptor::SelectionType;

    /// Returns false if a rule in the list covers the new one; otherwise removes the rules that the new one
    /// covers.
    bool Add(const Backup::File::YSelectionPathDescriptor& rule);
    SelectionType Ask(const std::string& path) const;
    /// Returns the log lines of the rules that Add removed, one line per rule.
    const std::vector<std::string>& PruningLog() const { return m_pruningLog; }
    /// Returns the rules in words, in the order in which a walk through a tree visits them.
    std::string Words() const;
    /// Returns the number of directories with a rule at or below them, including the root.
    std::size_t CountPlaces() const;
    /// Compares the tree's answer about the path, and its intermediate results.
    void ExpectAnswersOf(const Backup::File::YSelectionManager& tree, const std::string& path) const;

private:
    using Names = std::vector<std::string>;
    struct Placed
    {
        Names place;
        Backup::File::YSelectionPathDescriptor rule;
    };
    // Compares the explanation of the answer with all rules that speak of the path.
    void ExpectExplanationOf(const Backup::File::YSelectionManager& tree, const std::string& path,
                             SelectionType answer) const;
    // Compares the deciding rule with the answers of the list without it, and without its equals.
    void ExpectDecisionBy(const Backup::File::YSelectionExplanation& explanation,
                          const std::string& path) const;
    // The rules in the order in which a walk through a tree visits them.
    std::vector<Placed> InOrder() const;
    static Names Split(const std::string& path);
    // Returns true if the rule applies to the name at the index in `path`, and its recursion reaches it.
    static bool SpeaksOf(const Placed& placed, const Names& path, std::size_t index);
    bool IsIncluded(const Names& path) const;
    bool IsExcluded(const Names& path, bool& reportable) const;
    bool IsExplicitFrom(const Names& path, std::size_t index) const;
    bool AllBelowSilentlyExcluded(const Names& path) const;
    bool MayIncludeBelow(const Names& path) const;

    std::vector<Placed> m_rules;
    std::vector<std::string> m_pruningLog;
};

/// The parts of forests of random rules, and the paths to query.
struct World
{
    int forests;
    unsigned int mostRules;
    std::vector<std::string> places, patterns, paths;
    unsigned int lastAtRoot = 0; ///< the number of rules at "/", after all others
};

/// Adds each forest's rules to a tree and to a list, and compares their rules and their answers. The tree
/// must not have superfluous nodes. Every second tree logs what it prunes, which must be in the list's order.
/// Every eighth tree is asked again while it logs its queries, which then skip less.
/// The seed is the value of the environment variable SELECTION_SEED, or random. SELECTION_ROUNDS multiplies
/// the number of forests; it may be a fraction.
void CompareWithThePlainList(const World& world);

} // namespace Testing
