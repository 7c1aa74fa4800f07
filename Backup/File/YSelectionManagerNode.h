// One directory of a selection tree: its rules and its children. Nodes lock nothing; whoever calls them holds
// the lock of their manager.
#pragma once

#include "Backup/File/YSelectionManager.h"

#include <initializer_list>
#include <map>

namespace Backup::File {

class BACKUP_API YSelectionManager::YSelectionManagerNode
{
public:
    YSelectionManagerNode() = default;
    YSelectionManagerNode(const YString& name, YSelectionManagerNode* parent);
    YSelectionManagerNode(const YSelectionManagerNode&) = delete;
    YSelectionManagerNode& operator=(const YSelectionManagerNode&) = delete;
    ~YSelectionManagerNode();

    /// "/" for the root.
    Krt::File::YPath GetPath() const;
    /// A copy of the whole subtree below the given parent, which doesn't own it yet.
    static std::unique_ptr<YSelectionManagerNode> CopyRecursive(const YSelectionManagerNode& source,
                                                                YSelectionManagerNode* parent);
    /// Compares the whole subtrees; what stands above has no part in it.
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

    bool MatchesInclude(const YString& name, bool checkNonRecursiveDescriptors) const;
    /// `reportable`: whether any of the matching excludes is to be reported.
    bool MatchesExclude(const YString& name, bool checkNonRecursiveDescriptors, bool& reportable) const;
    bool MatchesExplicitExactNonRecursiveInclude(const YString& name) const;
    bool AllChildrenAreExcludedNotReportably() const;
    bool HasAnyIncludes() const { return !m_includes.empty(); }
    bool HasAnyRecursiveIncludes() const;
    /// At this node or below.
    bool HasAnyIncludesBelow() const;

    /// As the operations of the manager, from this node on.
    bool VisitPaths(SelectionType type, PathVisitor visitor) const;
    bool VisitPathsAndDescriptors(SelectionType type, RuleVisitor visitor, bool recurse) const;
    bool VisitPathsAndDescriptors(RuleVisitor visitor, bool recurse) const;
    /// Visits all nodes below the one given, but not that one.
    static void VisitAllNodes(YSelectionManagerNode& start, NodeVisitor visitor);

private:
    friend class YSelectionManager;
    friend BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionManagerNode& node);
    class Walk; // in YSelectionNodeWalk.h

    using Children = std::map<YString, std::unique_ptr<YSelectionManagerNode>>;
    using Rules = std::set<YSelectionDescriptor>;

    YSelectionManagerNode* FindChild(const YString& name) const;
    YSelectionManagerNode& GetOrAddChild(const YString& name);
    bool IsEmpty() const { return m_children.empty() && m_includes.empty() && m_excludes.empty(); }
    // Whether a recursive explicit include for all names stands here.
    bool SelectsAllExplicitly() const;
    // Null for a type that no rule has.
    const Rules* RulesOfType(SelectionType type) const;
    // Visits the rules of these types, in their order within each node.
    bool VisitRules(std::initializer_list<SelectionType> types, const RuleVisitor& visitor,
                    bool recurse) const;
    void Write(Krt::YStream& stream) const;

    Children m_children; // by bytes of the name, case counts
    YString m_name;      // empty in the root
    YSelectionManagerNode* m_parent = nullptr;
    Rules m_includes;
    Rules m_excludes;
};

BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream,
                                    const YSelectionManager::YSelectionManagerNode& node);

} // namespace Backup::File
