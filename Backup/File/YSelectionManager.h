// All selection rules of a backup job, in a tree that mirrors the file system: each directory with rules at
// it or below it has a node. The tree keeps itself minimal while rules are added. Any thread may call any
// operation: changes write-lock the tree, queries and walks read-lock it, and locks are re-entrant on a
// thread. Two managers are locked in the order "this one, then the argument". Visitors run under the lock and
// must not change the tree. Trees may be a million levels deep: nothing recurses.
#pragma once

#include "Backup/File/YSelectionPathDescriptor.h"
#include "Backup/File/YSelectionRules.h"

#include "Krt/Thread/YReadWriteMutex.h"

#include <boost/function.hpp>

#include <functional>
#include <initializer_list>
#include <memory>
#include <set>
#include <span>
#include <utility>
#include <vector>

namespace Krt::Container {
template <class T>
class YSet;
}

namespace Backup::File {

class BACKUP_API YSelectionManager
{
public:
    class BACKUP_API YSelectionManagerNode; // below
    /// The rule's types, and a path as its components, top first.
    using SelectionType = YSelectionDescriptor::SelectionType;
    using RecursionType = YSelectionDescriptor::RecursionType;
    using Components = std::vector<YString>;
    /// True stops the walk. Each level of the tree gets a copy. An empty one raises std::bad_function_call.
    using PathVisitor = std::function<bool(const Krt::File::YPath&)>;
    using RuleVisitor = std::function<bool(const Krt::File::YPath&, const YSelectionDescriptor&)>;
    /// Can't stop the walk. An empty one raises "call to empty boost::function".
    using NodeVisitor = boost::function<void(const YSelectionManagerNode*)>;

    YSelectionManager();
    YSelectionManager(const YSelectionManager& other);
    /// Leaves `other` fit for nothing but destruction and assignment.
    YSelectionManager(YSelectionManager&& other);
    YSelectionManager& operator=(YSelectionManager other);
    ~YSelectionManager();
    /// Write-locks both, this one first.
    void Swap(YSelectionManager& other);

    /// Same nodes, names and rules, waypoints without rules included.
    bool operator==(const YSelectionManager& other) const;

    /// Adds the rule and drops the rules that it covers; false if it is redundant itself. Raises
    /// InvalidArgument for an include with an empty path, which an exclude may have. If memory ends after a
    /// covered rule was dropped, the new rule is added all the same.
    bool Add(const YSelectionPathDescriptor& rule);
    bool Add(const Krt::File::YPath& path, const YSelectionDescriptor& rule);
    bool Add(const Krt::File::YPath& path, const Krt::Match::Descriptor& descriptor,
             RecursionType recursionType, SelectionType selectionType, bool reportExclude);
    /// Whether a rule at the same path or a wider one above covers this one.
    bool IsDescriptorRedundant(const YSelectionPathDescriptor& rule) const;
    /// Drops all rules at the path and below. Does nothing if the path has no node. The root is cleared, not
    /// replaced, and this needs no memory.
    void Delete(const Krt::File::YPath& path);
    /// Drops the include that equals the rule, and the branch that this leaves empty. An exclude is looked
    /// for but stays. True if the rule was found, at its path or else at the nearest ancestor with a node.
    bool Delete(const YSelectionPathDescriptor& rule);
    /// The deepest node that the path reaches, and whether it is the path's own. With `throwIfMissing` raises
    /// NotFound where it is not. The node belongs to the tree and lives until the next change. The root lives
    /// as long as the tree, or until a swap or an assignment.
    std::pair<YSelectionManagerNode*, bool> FindNode(const Krt::File::YPath& path, bool throwIfMissing) const;
    std::pair<YSelectionManagerNode*, bool> FindNode(const Components& components, bool throwIfMissing) const;

    /// What to do with the entry at the path. Includes are matched against the last component alone, excludes
    /// against every component. Raises InvalidArgument for the root, about which there are no rules.
    SelectionType GetPathSelectionType(const Krt::File::YPath& path) const;
    // Questions about that answer, which raise InvalidArgument for the root.

    /// Whether the answer is Include.
    bool IsPathSelected(const Krt::File::YPath& path) const;
    /// Whether the answer is Include or NotSelectedDoRecurse.
    bool IsPathSelectedOrSelectionParent(const Krt::File::YPath& path) const;
    bool ShouldEnumeratePath(const Krt::File::YPath& path) const;
    /// Whether the answer is NotSelectedDoNotRecurse or NotSelectedDoRecurse.
    bool IsPathNotSelected(const Krt::File::YPath& path) const;
    /// Whether the answer is Exclude.
    bool IsPathExcluded(const Krt::File::YPath& path) const;

    // The questions that make up the answer, for callers that have the components.

    /// Whether an include matches the last component. Raises InvalidArgument for the root.
    bool PathMatchesInclude(const Components& components) const;
    /// Whether an exclude matches a component and is not overridden; false for the root. `reportable` is
    /// meaningful only if the answer is true.
    bool PathMatchesExclude(const Components& components, bool& reportable) const;
    /// Whether the path, which may be the root, has silent excludes that cover all names and no reporting one
    /// that does.
    bool AllChildrenOfPathAreExcludedNotReportably(const Components& components) const;
    /// Whether something below the path may be included. Raises InvalidArgument for the root.
    bool AnyIncludesApplyBelowPath(const Components& components) const;
    /// Whether the path is selected explicitly at the component of this index or a later one. Raises
    /// InvalidArgument for the root, and for an index beyond the last component.
    bool IsAnyExplicitSelectionBelowComponent(const Components& components,
                                              unsigned long long atOrBelowIndex) const;

    // Walks begin at the nearest existing ancestor of a start path without a node, and go through the
    // children by the bytes of their names, each node before its children.

    /// Visits the topmost paths with rules of the type, and nothing below those.
    bool VisitPaths(SelectionType type, const Krt::File::YPath& start, PathVisitor visitor) const;
    /// Visits the rules of the type, or includes and then excludes, at the path and, with `recurse`, below.
    bool VisitPathsAndDescriptors(SelectionType type, const Krt::File::YPath& start, RuleVisitor visitor,
                                  bool recurse) const;
    bool VisitPathsAndDescriptors(const Krt::File::YPath& start, RuleVisitor visitor, bool recurse) const;
    /// Visits every node of the tree, the root too.
    void VisitAllNodes(NodeVisitor visitor) const;

    /// The topmost directories at which includes stand and that a walk may reach.
    std::set<Krt::File::YPath> GetIncludeTops(const Krt::File::YPath& start) const;
    /// Overwrites the set with the volumes of all tops; the empty path stands for none.
    void GetVolumes(Krt::Container::YSet<Krt::File::YPath>& volumes) const;
    /// Every rule with a bearing on the path: recursive ones above, and all at and below it.
    std::set<YSelectionPathDescriptor> GetSelections(const Krt::File::YPath& path) const;

    /// Keys "includes" and "excludes": arrays of objects with "path" and "descriptor", sorted.
    Krt::JSON::YObject ToJSON(const Krt::File::YPath& start) const;
    /// Replaces the content; each rule is added as by Add. A failure leaves what was added so far.
    void FromJSON(const Krt::JSON::YObject& json);

    /// Adds the rules of another tree that bear on the source path, so that they bear on the destination path
    /// in the same way. Raises InvalidState if `source` is this object, InvalidArgument if the destination
    /// lies below the source path; a failure leaves what was added so far.
    void CopyDescriptorsFromPath(const YSelectionManager& source, const Krt::File::YPath& sourcePath,
                                 const Krt::File::YPath& destinationPath);
    void CopyOnlyIncludesFromPath(const YSelectionManager& source, const Krt::File::YPath& sourcePath,
                                  const Krt::File::YPath& destinationPath);
    void CopyDescriptorsFromPathInternal(const YSelectionManager& source, const Krt::File::YPath& sourcePath,
                                         const Krt::File::YPath& destinationPath, bool copyExcludes);

private:
    friend BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionManager& manager);

    // Visits the rules at each directory above the path, top first. An ancestor without a node counts as the
    // nearest one above it with a node, which is visited again.
    void VisitRulesAbove(const Krt::File::YPath& path, const RuleVisitor& visitor) const;
    // The deepest node that exists, and how many components lead to it.
    std::pair<YSelectionManagerNode*, std::size_t> FindDeepest(std::span<const YString> components) const;
    static YSelectionManagerNode& MakeNode(YSelectionManagerNode& above, std::span<const YString> components);
    static bool IsRedundantFrom(const YSelectionManagerNode* nearest, bool isOwnNode,
                                const YSelectionDescriptor& rule);
    void Clear();
    // A path's components with its nodes, from the root to the deepest that exists: looked up once for all
    // questions of a query. The public questions make one each.
    class NodesOnPath; // in YSelectionQuery.cpp
    bool MatchesInclude(const NodesOnPath& nodes) const;
    bool MatchesExclude(const NodesOnPath& nodes, bool& reportable) const;
    // Whether an exclude of the node at this depth matches a component and isn't overridden.
    bool NodeExcludes(const NodesOnPath& nodes, std::size_t depth, bool& reportable) const;
    bool AllChildrenAreExcludedNotReportably(const NodesOnPath& nodes) const;
    bool AnyIncludesApplyBelow(const NodesOnPath& nodes) const;
    bool IsAnyExplicitSelectionBelow(const NodesOnPath& nodes, std::size_t index) const;
    void AddCopyFromAbove(const YSelectionDescriptor& rule, bool atParent, const Krt::File::YPath& sourcePath,
                          const Krt::File::YPath& destinationPath);

    std::unique_ptr<YSelectionManagerNode> m_root; // null only when moved from
    mutable Krt::Thread::YReadWriteMutex m_lock;   // guards the whole tree
};

/// One directory of a selection tree: its rules and its children. Nodes lock nothing: the caller holds the
/// lock of their manager.
class BACKUP_API YSelectionManager::YSelectionManagerNode
{
public:
    /// A root without rules, or a node that its parent doesn't own yet.
    YSelectionManagerNode();
    YSelectionManagerNode(const YString& name, YSelectionManagerNode* parent);
    YSelectionManagerNode(const YSelectionManagerNode&) = delete;
    YSelectionManagerNode& operator=(const YSelectionManagerNode&) = delete;
    ~YSelectionManagerNode();

    /// "/" for the root.
    Krt::File::YPath GetPath() const;
    /// A copy of the whole subtree below the given parent, which doesn't own it yet.
    static std::unique_ptr<YSelectionManagerNode> CopyRecursive(const YSelectionManagerNode& source,
                                                                YSelectionManagerNode* parent);
    /// Compares the whole subtrees, but not the parents.
    bool operator==(const YSelectionManagerNode& other) const;

    /// Drop the rules of this node that the new rule covers; explicit includes only with `pruneExplicit`.
    void PruneNodeIncludes(const YSelectionDescriptor& rule, bool pruneExplicit);
    void PruneNodeExcludes(const YSelectionDescriptor& rule);
    /// For a recursive rule, drops what it covers at all levels below, and the branches that are empty then.
    /// Explicit includes stay.
    void PruneRedundantChildren(const YSelectionDescriptor& rule);
    /// Whether a rule of this node covers the candidate. False as the second argument is for rules from
    /// further down: they are covered by recursive rules alone, and never by an explicit include.
    bool DoesNodePruneDescriptor(const YSelectionDescriptor& candidate,
                                 bool checkNonRecursiveDescriptors) const;

    /// Whether a rule of this node matches the name, only recursive ones with the second argument false.
    bool MatchesInclude(const YString& name, bool checkNonRecursiveDescriptors) const;
    /// `reportable`: whether any of the matching excludes is to be reported.
    bool MatchesExclude(const YString& name, bool checkNonRecursiveDescriptors, bool& reportable) const;
    /// What the names say, asked of the rules of this node alone.
    bool MatchesExplicitExactNonRecursiveInclude(const YString& name) const;
    bool AllChildrenAreExcludedNotReportably() const;
    bool HasAnyIncludes() const { return !m_includes.empty(); }
    bool HasAnyRecursiveIncludes() const;
    /// At this node or below.
    bool HasAnyIncludesBelow() const { return m_branch.includes != 0; }

    /// As the operations of the manager, from this node on.
    bool VisitPaths(SelectionType type, PathVisitor visitor) const;
    bool VisitPathsAndDescriptors(SelectionType type, RuleVisitor visitor, bool recurse) const;
    bool VisitPathsAndDescriptors(RuleVisitor visitor, bool recurse) const;
    /// Visits all nodes below the one given, but not that one.
    static void VisitAllNodes(YSelectionManagerNode& start, NodeVisitor visitor);

private:
    friend class YSelectionManager;
    friend BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionManagerNode& node);
    // In YSelectionTree.h:
    class Children;
    template <class N>
    class Walk;
    class BranchIndex;

    using Rules = YSelectionRules;

    // What this node knows of the rules here and below.
    struct Branch
    {
        // What recursive rules of this node have done since another rule changed a rule below it.
        enum class State
        {
            NotPruned,  // nothing
            PrunedOnce, // one rule pruned the branch by a walk, so that no node below is empty
            Indexed     // later rules prune by the index, and update it
        };

        Branch() noexcept;
        ~Branch();
        void ChangedBelow() noexcept;

        unsigned long long includes = 0; // of this node and all nodes below it
        State state = State::NotPruned;
        std::unique_ptr<BranchIndex> index; // of the nodes below; null in the other states
    };

    YSelectionManagerNode* FindChild(const YString& name) const;
    YSelectionManagerNode& AddChild(const YString& name); // which has none of this name yet
    std::size_t CountChildren() const;
    void EraseChild(YSelectionManagerNode& child);
    bool IsEmpty() const { return m_children == nullptr && m_includes.empty() && m_excludes.empty(); }
    // For the root: drops its rules and its children. Takes no memory.
    void Clear() noexcept;
    void DestroyChildren() noexcept;
    // Whether this node has a recursive explicit include for all names.
    bool SelectsAllExplicitly() const;
    // Does not store a rule that is neither an include nor an exclude.
    void Insert(Rules::Prepared&& rule) noexcept;
    // To be called after each change of the rules here: updates what this node and all above know of their
    // branches. The caller has updated the index of `keepsIndex`.
    void RulesChanged(long long includesAdded, const YSelectionManagerNode* keepsIndex = nullptr) noexcept;
    void LogPruning(const YSelectionDescriptor& rule, const YSelectionDescriptor& stored) const;
    void PruneByWalk(const YSelectionDescriptor& rule);
    void PruneByIndex(const YSelectionDescriptor& rule);
    // Erases this node and then its ancestors while they are empty, but neither the root nor `last`.
    void EraseUpwardsWhileEmpty(const YSelectionManagerNode* last = nullptr);
    // Null for a type that no rule has.
    const Rules* RulesOfType(SelectionType type) const;
    // Visits the rules of these types, in their order within each node.
    bool VisitRules(std::initializer_list<SelectionType> types, const RuleVisitor& visitor,
                    bool recurse) const;
    void Write(Krt::YStream& stream) const;

    std::unique_ptr<Children> m_children; // null for a leaf
    YString m_name;                       // empty in the root
    YSelectionManagerNode* m_parent = nullptr;
    Rules m_includes;
    Rules m_excludes;
    Branch m_branch;
};

/// Every node with its addresses, for diagnosis; not protected against a change meanwhile.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionManager& manager);
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream,
                                    const YSelectionManager::YSelectionManagerNode& node);

} // namespace Backup::File
