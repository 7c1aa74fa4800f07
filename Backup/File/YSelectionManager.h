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

struct YSelectionExplanation; // in YSelectionExplanation.h

/// All selection rules of a backup job, in a tree that mirrors the file system: each directory with rules
/// in it or below it has a node. The tree is kept minimal while rules are added. Any thread may call any
/// operation: changes lock the tree for writing, queries and walks for reading, and locks are recursive
/// within a thread. An operation on two managers locks this one, then the argument. Visitors are called
/// under the lock and must not change the tree. A walk from a path without a node begins at its nearest
/// ancestor with a node. It visits each node before its children, and children by the bytes of their names.
/// Trees may be a million levels deep: nothing recurses.
class BACKUP_API YSelectionManager
{
public:
    class BACKUP_API YSelectionManagerNode; // below
    /// The type of a rule, or the answer to a query about a path.
    using SelectionType = YSelectionDescriptor::SelectionType;
    /// The levels to which a rule applies.
    using RecursionType = YSelectionDescriptor::RecursionType;
    /// A path as its components, the topmost first.
    using Components = std::vector<YString>;
    /// Called with a path; returns true to stop the walk. Each level of the tree gets a copy of the
    /// visitor. An empty one raises std::bad_function_call.
    using PathVisitor = std::function<bool(const Krt::File::YPath&)>;
    /// Called with a directory and a rule in it; returns true to stop the walk. Each level of the tree gets
    /// a copy of the visitor. An empty one raises std::bad_function_call.
    using RuleVisitor = std::function<bool(const Krt::File::YPath&, const YSelectionDescriptor&)>;
    /// Called with a node; cannot stop the walk. An empty one raises "call to empty boost::function".
    using NodeVisitor = boost::function<void(const YSelectionManagerNode*)>;

    YSelectionManager();
    /// Copies the whole tree, with `other` locked for writing.
    YSelectionManager(const YSelectionManager& other);
    /// Moves the tree. `other` may only be destroyed or assigned to afterwards.
    YSelectionManager(YSelectionManager&& other);
    /// Replaces the tree by that of `other`.
    YSelectionManager& operator=(YSelectionManager other);
    ~YSelectionManager();
    /// Exchanges the trees. Locks this manager for writing, then `other`.
    void Swap(YSelectionManager& other);

    /// Compares nodes, names and rules, including nodes without rules.
    bool operator==(const YSelectionManager& other) const;

    /// Adds the rule and removes the rules that it covers. Returns false if the rule is redundant. Raises
    /// InvalidArgument for an include with an empty path; an exclude may have one. If memory is exhausted
    /// after a covered rule was removed, the new rule is still added.
    bool Add(const YSelectionPathDescriptor& rule);
    /// Adds `rule` at the directory `path`; see Add(YSelectionPathDescriptor).
    bool Add(const Krt::File::YPath& path, const YSelectionDescriptor& rule);
    /// Adds the rule of these fields at the directory `path`; see Add(YSelectionPathDescriptor).
    bool Add(const Krt::File::YPath& path, const Krt::Match::Descriptor& descriptor,
             RecursionType recursionType, SelectionType selectionType, bool reportExclude);
    /// Returns true if a rule at the same path, or a wider one above it, covers `rule`.
    bool IsDescriptorRedundant(const YSelectionPathDescriptor& rule) const;
    /// Removes all rules at the path and below it; does nothing if the path has no node. The root is
    /// cleared, not replaced, which allocates no memory.
    void Delete(const Krt::File::YPath& path);
    /// Removes the include that equals `rule`, and the branch that this leaves empty. An exclude is
    /// searched for but not removed. Returns true if the rule was found at its path or, if that has no
    /// node, at the nearest ancestor with a node. Returns true also for a rule that is neither an include
    /// nor an exclude.
    bool Delete(const YSelectionPathDescriptor& rule);
    /// Returns the deepest node on the path, and true if it is the path's own. Raises NotFound with
    /// `throwIfMissing` if it is not. The node belongs to the tree and is valid until the next change. The
    /// root is valid until the tree is destroyed, swapped or assigned to.
    std::pair<YSelectionManagerNode*, bool> FindNode(const Krt::File::YPath& path, bool throwIfMissing) const;
    /// Finds the node of a path that is split into components; see FindNode(YPath).
    std::pair<YSelectionManagerNode*, bool> FindNode(const Components& components, bool throwIfMissing) const;

    /// Returns what to do with the entry at the path. Includes are matched against the last component only,
    /// excludes against every component. Raises InvalidArgument for the root, to which rules do not apply.
    SelectionType GetPathSelectionType(const Krt::File::YPath& path) const;
    /// Returns the answer of GetPathSelectionType with the rules that led to it, and with those that would
    /// have done so without them. Raises InvalidArgument for the root.
    YSelectionExplanation Explain(const Krt::File::YPath& path) const;
    /// Returns true if GetPathSelectionType is Include. Raises InvalidArgument for the root.
    bool IsPathSelected(const Krt::File::YPath& path) const;
    /// Returns true if GetPathSelectionType is Include or NotSelectedDoRecurse. Raises InvalidArgument for
    /// the root.
    bool IsPathSelectedOrSelectionParent(const Krt::File::YPath& path) const;
    /// Returns IsPathSelectedOrSelectionParent.
    bool ShouldEnumeratePath(const Krt::File::YPath& path) const;
    /// Returns true if GetPathSelectionType is NotSelectedDoNotRecurse or NotSelectedDoRecurse. Raises
    /// InvalidArgument for the root.
    bool IsPathNotSelected(const Krt::File::YPath& path) const;
    /// Returns true if GetPathSelectionType is Exclude. Raises InvalidArgument for the root.
    bool IsPathExcluded(const Krt::File::YPath& path) const;

    /// Returns true if an include matches the last component. Raises InvalidArgument for the root.
    bool PathMatchesInclude(const Components& components) const;
    /// Returns true if an exclude matches a component and is not overridden; false for the root.
    /// `reportable` is meaningful only if the result is true.
    bool PathMatchesExclude(const Components& components, bool& reportable) const;
    /// Returns true if the path, which may be the root, has unreported excludes that cover all names and no
    /// reported one that does.
    bool AllChildrenOfPathAreExcludedNotReportably(const Components& components) const;
    /// Returns true if an entry below the path may be included. Raises InvalidArgument for the root.
    bool AnyIncludesApplyBelowPath(const Components& components) const;
    /// Returns true if the path is selected explicitly at the component with index `atOrBelowIndex` or a
    /// later one. Raises InvalidArgument for the root, and for an index after the last component.
    bool IsAnyExplicitSelectionBelowComponent(const Components& components,
                                              unsigned long long atOrBelowIndex) const;

    /// Visits the topmost paths with rules of the type, and no path below them. Returns true if the visitor
    /// stopped the walk.
    bool VisitPaths(SelectionType type, const Krt::File::YPath& start, PathVisitor visitor) const;
    /// Visits the rules of the type at the path and, with `recurse`, below it. Returns true if the visitor
    /// stopped the walk.
    bool VisitPathsAndDescriptors(SelectionType type, const Krt::File::YPath& start, RuleVisitor visitor,
                                  bool recurse) const;
    /// Visits the includes of each node, then its excludes, at the path and, with `recurse`, below it.
    /// Returns true if the visitor stopped the walk.
    bool VisitPathsAndDescriptors(const Krt::File::YPath& start, RuleVisitor visitor, bool recurse) const;
    /// Visits every node of the tree, including the root.
    void VisitAllNodes(NodeVisitor visitor) const;

    /// Returns the topmost directories with includes that a walk may reach.
    std::set<Krt::File::YPath> GetIncludeTops(const Krt::File::YPath& start) const;
    /// Replaces the content of `volumes` by the volumes of all tops; the empty path represents a path
    /// without a volume.
    void GetVolumes(Krt::Container::YSet<Krt::File::YPath>& volumes) const;
    /// Returns every rule that can affect the path: recursive ones above it, and all rules at it and below
    /// it.
    std::set<YSelectionPathDescriptor> GetSelections(const Krt::File::YPath& path) const;

    /// Returns an object with the keys "includes" and "excludes": sorted arrays of objects with "path" and
    /// "descriptor".
    Krt::JSON::YObject ToJSON(const Krt::File::YPath& start) const;
    /// Replaces the content; each rule is added with Add. After a failure the rules added before it remain.
    void FromJSON(const Krt::JSON::YObject& json);

    /// Copies the rules of `source` that affect `sourcePath`, so that they affect `destinationPath` in the
    /// same manner. Raises InvalidState if `source` is this object, and InvalidArgument if the destination
    /// is below the source path. After a failure the rules added before it remain.
    void CopyDescriptorsFromPath(const YSelectionManager& source, const Krt::File::YPath& sourcePath,
                                 const Krt::File::YPath& destinationPath);
    /// Copies only the includes; see CopyDescriptorsFromPath.
    void CopyOnlyIncludesFromPath(const YSelectionManager& source, const Krt::File::YPath& sourcePath,
                                  const Krt::File::YPath& destinationPath);
    /// Copies the includes and, with `copyExcludes`, the excludes; see CopyDescriptorsFromPath.
    void CopyDescriptorsFromPathInternal(const YSelectionManager& source, const Krt::File::YPath& sourcePath,
                                         const Krt::File::YPath& destinationPath, bool copyExcludes);

private:
    friend BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionManager& manager);

    // Visits the rules at each ancestor of the path, top first. The empty path and "/" are both ancestors.
    // An ancestor without a node is replaced by the nearest one above it, whose rules are visited again. A
    // copy then adds them again, which can change the result.
    void VisitRulesAbove(const Krt::File::YPath& path, const RuleVisitor& visitor) const;
    // The deepest node that exists, and how many components lead to it.
    std::pair<YSelectionManagerNode*, std::size_t> FindDeepest(std::span<const YString> components) const;
    static YSelectionManagerNode& MakeNode(YSelectionManagerNode& above, std::span<const YString> components);
    static bool IsRedundantFrom(const YSelectionManagerNode* nearest, bool isOwnNode,
                                const YSelectionDescriptor& rule);
    void Clear();
    // A path's components with its nodes, from the root to the deepest that exists: looked up once for all
    // questions of a query. The public questions make one each.
    class NodesOnPath; // in YSelectionTrace.h, as are the traces
    // The steps of a decision report what they find to a trace: NoTrace, which costs nothing, or PathTrace.
    struct NoTrace;
    class PathTrace;
    template <class Trace>
    KRT_HIDDEN SelectionType Decide(const Krt::File::YPath& path, const NodesOnPath& nodes,
                                    Trace trace) const;
    template <class Trace>
    KRT_HIDDEN bool MatchesInclude(const NodesOnPath& nodes, Trace trace) const;
    template <class Trace>
    KRT_HIDDEN bool MatchesExclude(const NodesOnPath& nodes, bool& reportable, Trace trace) const;
    // Whether an exclude of the node at this depth matches a component and is not overridden.
    template <class Trace>
    KRT_HIDDEN bool NodeExcludes(const NodesOnPath& nodes, std::size_t depth, bool& reportable,
                                 Trace trace) const;
    KRT_HIDDEN bool AllChildrenAreExcludedNotReportably(const NodesOnPath& nodes) const;
    template <class Trace>
    KRT_HIDDEN bool AnyIncludesApplyBelow(const NodesOnPath& nodes, Trace trace) const;
    // Whether the component of this index, or a later one of the path, is selected explicitly. What is below
    // the path has no part in it.
    template <class Trace>
    KRT_HIDDEN bool IsSelectedExplicitlyFrom(const NodesOnPath& nodes, std::size_t index, Trace trace) const;
    void AddCopyFromAbove(const YSelectionDescriptor& rule, bool atParent, const Krt::File::YPath& sourcePath,
                          const Krt::File::YPath& destinationPath);

    std::unique_ptr<YSelectionManagerNode> m_root; // nullptr only when moved from
    mutable Krt::Thread::YReadWriteMutex m_lock;   // guards the whole tree
};

/// One directory of a selection tree: its rules and its children. Nodes have no lock: the caller holds the
/// lock of their manager.
class BACKUP_API YSelectionManager::YSelectionManagerNode
{
public:
    /// A root without rules.
    YSelectionManagerNode();
    /// A node below `parent`, which does not own it yet.
    YSelectionManagerNode(const YString& name, YSelectionManagerNode* parent);
    YSelectionManagerNode(const YSelectionManagerNode&) = delete;
    YSelectionManagerNode& operator=(const YSelectionManagerNode&) = delete;
    ~YSelectionManagerNode();

    /// The directory's path; "/" for the root.
    Krt::File::YPath GetPath() const;
    /// Returns a copy of the whole subtree below `parent`, which does not own it yet.
    static std::unique_ptr<YSelectionManagerNode> CopyRecursive(const YSelectionManagerNode& source,
                                                                YSelectionManagerNode* parent);
    /// Compares the whole subtrees, but not the parents.
    bool operator==(const YSelectionManagerNode& other) const;

    /// Removes the includes of this node that `rule` covers, explicit ones only with `pruneExplicit`.
    void PruneNodeIncludes(const YSelectionDescriptor& rule, bool pruneExplicit);
    /// Removes the excludes of this node that `rule` covers.
    void PruneNodeExcludes(const YSelectionDescriptor& rule);
    /// For a recursive rule, removes the rules that it covers at all levels below, and the branches that
    /// become empty. Explicit includes are kept.
    void PruneRedundantChildren(const YSelectionDescriptor& rule);
    /// Returns true if a rule of this node covers `candidate`. With `checkNonRecursiveDescriptors` false
    /// the candidate is from a lower level: only recursive rules cover it, and an explicit include never
    /// does.
    bool DoesNodePruneDescriptor(const YSelectionDescriptor& candidate,
                                 bool checkNonRecursiveDescriptors) const;

    /// Returns true if an include of this node matches the name; only recursive ones are tested if
    /// `checkNonRecursiveDescriptors` is false.
    bool MatchesInclude(const YString& name, bool checkNonRecursiveDescriptors) const;
    /// Returns true if an exclude of this node matches the name; only recursive ones are tested if
    /// `checkNonRecursiveDescriptors` is false. Sets `reportable` to true if any of them is reported,
    /// otherwise to false.
    bool MatchesExclude(const YString& name, bool checkNonRecursiveDescriptors, bool& reportable) const;
    /// Returns true if an explicit NonRecursive Exact include of this node matches the name.
    bool MatchesExplicitExactNonRecursiveInclude(const YString& name) const;
    /// Returns true if this node has unreported excludes that cover all names and no reported one that
    /// does.
    bool AllChildrenAreExcludedNotReportably() const;
    /// Returns true if this node has includes.
    bool HasAnyIncludes() const { return !m_includes.empty(); }
    /// Returns true if this node has recursive includes.
    bool HasAnyRecursiveIncludes() const;
    /// Returns true if this node or a node below it has includes.
    bool HasAnyIncludesBelow() const { return m_branch.includes != 0; }

    /// Walks from this node; see YSelectionManager::VisitPaths.
    bool VisitPaths(SelectionType type, PathVisitor visitor) const;
    /// Walks from this node; see YSelectionManager::VisitPathsAndDescriptors.
    bool VisitPathsAndDescriptors(SelectionType type, RuleVisitor visitor, bool recurse) const;
    /// Walks from this node, includes before excludes; see YSelectionManager::VisitPathsAndDescriptors.
    bool VisitPathsAndDescriptors(RuleVisitor visitor, bool recurse) const;
    /// Visits all nodes below `start`, but not `start` itself.
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
        // How a recursive rule of this node finds the rules below that it prunes.
        enum class State
        {
            NotPruned, // by a walk, which also erases nodes below that are empty
            Pruned,    // by an index, which is created for it, since no node below is empty
            Indexed    // by the index, which each change below updates
        };

        KRT_HIDDEN Branch() noexcept;
        KRT_HIDDEN ~Branch();

        unsigned long long includes = 0; // of this node and all nodes below it
        State state = State::NotPruned;
        std::unique_ptr<BranchIndex> index; // of the nodes below; nullptr in the other states
    };

    YSelectionManagerNode* FindChild(const YString& name) const;
    YSelectionManagerNode& AddChild(const YString& name); // precondition: no child has this name
    std::size_t CountChildren() const;
    void EraseChild(YSelectionManagerNode& child);
    bool IsEmpty() const { return m_children == nullptr && m_includes.empty() && m_excludes.empty(); }
    // For the root: removes its rules and its children, without allocating memory.
    void Clear() noexcept;
    void DestroyChildren() noexcept;
    // Whether this node has a recursive explicit include for all names.
    bool SelectsAllExplicitly() const;
    // Does not store a rule that is neither an include nor an exclude.
    void Insert(Rules::Prepared&& rule) noexcept;
    // To be called after a rule was inserted here: updates what this node and all above know of their
    // branches.
    KRT_HIDDEN void RuleInserted(const YSelectionDescriptor& stored) noexcept;
    // To be called after rules of this node, of one type, were erased. They may already be destroyed.
    KRT_HIDDEN void RulesErased(std::span<const YSelectionDescriptor* const> erased,
                                bool areIncludes) noexcept;
    // To be called if a node at or below this one may be empty: this node and all above prune by a walk
    // again.
    KRT_HIDDEN void ForgetBranches() noexcept;
    // Erases the rules of one type that `rule` covers, but no explicit ones with `keepExplicit`.
    KRT_HIDDEN void PruneRules(SelectionType type, const YSelectionDescriptor& rule, bool keepExplicit);
    void LogPruning(const YSelectionDescriptor& rule, const YSelectionDescriptor& stored) const;
    void PruneByWalk(const YSelectionDescriptor& rule);
    void PruneByIndex(const YSelectionDescriptor& rule);
    // Erases this node and then its ancestors while they are empty, but neither the root nor `last`.
    void EraseUpwardsWhileEmpty(const YSelectionManagerNode* last = nullptr);
    // Returns nullptr for a type that no rule has.
    const Rules* RulesOfType(SelectionType type) const;
    // Visits the rules of these types, in their order within each node.
    bool VisitRules(std::initializer_list<SelectionType> types, const RuleVisitor& visitor,
                    bool recurse) const;
    void Write(Krt::YStream& stream) const;

    std::unique_ptr<Children> m_children; // nullptr for a leaf
    YString m_name;                       // empty in the root
    YSelectionManagerNode* m_parent = nullptr;
    Rules m_includes;
    Rules m_excludes;
    Branch m_branch;
};

/// Writes every node with its addresses, for diagnosis. The tree is not locked.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionManager& manager);
/// Writes a node and all nodes below it with their addresses, for diagnosis. The tree is not locked.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream,
                                    const YSelectionManager::YSelectionManagerNode& node);

} // namespace Backup::File
