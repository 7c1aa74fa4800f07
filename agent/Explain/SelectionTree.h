// A directory as a tree down to some depth: what a backup does with each entry, and how much is below it.
#pragma once

#include "agent/Explain/ExplanationText.h"
#include "agent/Explain/PathExplanation.h"
#include "agent/Explain/RuleSources.h"

#include "Krt/JSON/YObject.h"

#include <optional>
#include <string>
#include <vector>

namespace Agent {

class Report;

/// Entries, and the bytes of the regular files among them.
struct TreeAmount
{
    unsigned long long entries = 0;
    unsigned long long bytes = 0;

    void Add(const TreeAmount& other)
    {
        entries += other.entries;
        bytes += other.bytes;
    }
};

/// An entry of the tree.
struct TreeNode
{
    std::string name;      ///< the whole path for the top
    Krt::File::YPath path; ///< of the entry
    EntryKind kind = EntryKind::Missing;
    WalkOutcome outcome;
    TreeAmount stored;     ///< what is backed up: the entry and all that is below it
    TreeAmount left;       ///< what is left out: by the rules, as a socket, as the repository, or unreadable
    bool isCounted = true; ///< false if a part that is left out was not counted, such as another file system
    std::optional<MountFacts> mount; ///< of a mount point that is not entered
    std::optional<MountUsage> usage; ///< of its file system
    std::vector<TreeNode>
        entries; ///< in the order of the bytes of their names, down to the depth of the tree
};

/// Walks the directory and all that is below it, as a backup would. Counts what is left out, except for the
/// contents of mount points. `depth` is the number of levels that get nodes. `report` gets the progress.
/// Raises InvalidState if the user interrupts.
TreeNode BuildSelectionTree(const Job& job, const std::optional<struct stat>& repository,
                            const Krt::File::YPath& top, unsigned int depth, Report& report);

/// Returns a line for each node.
std::string TreeText(const TreeNode& tree, const Job& job, RuleSources& sources, const TextStyle& style);

/// Returns the node with its entries.
Krt::JSON::YObject TreeObject(const TreeNode& tree, const Job& job, RuleSources& sources);

} // namespace Agent
