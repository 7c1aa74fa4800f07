#pragma once

#include "Backup/File/YSelectionPathDescriptor.h"

#include <cstddef>
#include <vector>

namespace Backup::File {

/// How a selection tree came to its answer about a path. YSelectionManager::Explain returns it. A plain
/// value, which refers to nothing in the tree.
struct YSelectionExplanation
{
    /// The step of the decision that gave the answer.
    enum class Reason : unsigned int
    {
        Included,             ///< an include matches the path, and no exclude does
        Excluded,             ///< an include matches the path, and an exclude that is reported
        ExcludedSilently,     ///< an exclude that is not reported matches the path; an include may do so, too
        EntriesExcluded,      ///< no include matches the path, and silent excludes match all entries in it
        EntriesMayBeIncluded, ///< no include matches the path, but one applies to entries below it
        NothingIncludes       ///< no include matches the path or applies below it
    };

    /// What a rule does to the path.
    enum class Effect : unsigned int
    {
        Includes,        ///< it matches the last component
        Excludes,        ///< it matches a component
        IsOverridden,    ///< an exclude that matches a component, and that an explicit include overrides
        Overrides,       ///< the explicit include that does so; it comes before what it overrides
        ExcludesEntries, ///< an exclude at the path that matches all names
        ReachesBelow     ///< an include that applies to entries below the path
    };

    /// A rule that has a part in the answer, or would have one without the rules before it.
    struct Rule
    {
        YSelectionPathDescriptor rule; ///< the rule with its directory
        Effect effect;                 ///< what it does to the path
        /// The index of the component that the rule matches. For an explicit include of all names, that of
        /// the directory that contains them; for rules on entries below the path, the index of the last one.
        std::size_t component;
        bool decides = false;   ///< the answer follows from this rule; true for at most one
        bool isFurther = false; ///< the decision ended before this rule
    };

    /// What GetPathSelectionType returns for the path.
    YSelectionDescriptor::SelectionType answer = YSelectionDescriptor::NotSelectedDoNotRecurse;
    Reason reason = Reason::NothingIncludes; ///< why the answer is that
    std::vector<Rule> rules;                 ///< in the order in which they were considered
};

} // namespace Backup::File
