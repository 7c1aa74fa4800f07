#pragma once

/// @file
/// What the decision about a path records while it is made. The functions of the decision have a trace as a
/// template parameter, so an answer and its explanation come from the same code.

#include "Backup/File/YSelectionExplanation.h"
#include "Backup/File/YSelectionTree.h"

#include <boost/container/small_vector.hpp>

#include <algorithm>
#include <optional>

namespace Backup::File {

/// A path's components with its nodes.
class KRT_HIDDEN YSelectionManager::NodesOnPath
{
public:
    using Node = YSelectionManagerNode;

    NodesOnPath(const Node& root, const Components& path) : components(path)
    {
        m_nodes.push_back(&root);
        for (const YString& component : components) {
            const Node::Children* const children = m_nodes.back()->m_children.get();
            const Node* const child = children != nullptr ? children->Find(component) : nullptr;
            if (child == nullptr)
                break;
            m_nodes.push_back(child);
        }
    }

    /// Returns the node of the first `depth` components, or nullptr if it does not exist.
    const Node* At(std::size_t depth) const { return depth < m_nodes.size() ? m_nodes[depth] : nullptr; }
    const Node& Deepest() const { return *m_nodes.back(); }

    /// Returns true if the node of the components before this one has an explicit include of the component.
    bool IsExplicitName(std::size_t component) const
    {
        return At(component)->MatchesExplicitExactNonRecursiveInclude(components[component]);
    }
    /// Returns true if the node of the component has an explicit include of everything below it.
    bool IsExplicitAll(std::size_t component) const
    {
        return At(component + 1) != nullptr && At(component + 1)->SelectsAllExplicitly();
    }
    /// The number of components up to the last one that is selected explicitly; 0 if there is none. What is
    /// below the path has no part in it. Determined once.
    std::size_t ExplicitEnd() const
    {
        if (!m_explicitEnd) {
            std::size_t end = std::min(components.size(), m_nodes.size());
            while (end != 0 && !IsExplicitName(end - 1) && !IsExplicitAll(end - 1))
                --end;
            m_explicitEnd = end;
        }
        return *m_explicitEnd;
    }
    /// ExplicitEnd, or 0 if it is not determined yet.
    std::size_t KnownExplicitEnd() const { return m_explicitEnd.value_or(0); }

    const Components& components;

private:
    boost::container::small_vector<const Node*, 24> m_nodes;
    mutable std::optional<std::size_t> m_explicitEnd;
};

/// Records nothing. It is an empty class with empty functions, so a query with it is one without a trace.
struct KRT_HIDDEN YSelectionManager::NoTrace
{
    using Reason = YSelectionExplanation::Reason;

    static constexpr bool RecordsAll = false; ///< matches without effect are reported to the trace, too

    /// The node at this depth has an include that matches the last component.
    void Include(const NodesOnPath&, std::size_t /*depth*/) const {}
    /// The node at this depth has an exclude that matches the component.
    void Exclude(const NodesOnPath&, std::size_t /*depth*/, std::size_t /*component*/,
                 bool /*isOverridden*/) const
    {}
    /// This component, or a later one, is selected explicitly.
    void Explicit(const NodesOnPath&, std::size_t /*component*/) const {}
    /// The path has silent excludes for all names.
    void EntriesExcluded(const NodesOnPath&) const {}
    /// The node at this depth, which is that of the path or one above it, has an include that applies below
    /// the path.
    void IncludeBelow(const NodesOnPath&, std::size_t /*depth*/) const {}
    /// The step that gives the answer.
    void Decided(Reason) const {}
};

/// Records in an explanation what NoTrace ignores. A copy refers to the same explanation.
class KRT_HIDDEN YSelectionManager::PathTrace
{
public:
    using Reason = YSelectionExplanation::Reason;
    using Effect = YSelectionExplanation::Effect;

    static constexpr bool RecordsAll = true;

    /// The depth of a node, and the index of the component that a rule of it matches.
    struct ExcludeMatch
    {
        std::size_t depth;
        std::size_t component;
    };

    /// The state of all copies.
    struct State
    {
        YSelectionExplanation explanation;
        std::optional<std::size_t> including;  // the depth of the include at which the decision ended
        std::optional<ExcludeMatch> excluding; // the exclude at which it ended
        bool isDecided = false;
    };

    /// The state outlives the trace.
    explicit PathTrace(State& state) : m_state(&state) {}

    void Include(const NodesOnPath& nodes, std::size_t depth) const;
    void Exclude(const NodesOnPath& nodes, std::size_t depth, std::size_t component, bool isOverridden) const;
    void Explicit(const NodesOnPath& nodes, std::size_t component) const;
    void EntriesExcluded(const NodesOnPath& nodes) const;
    void IncludeBelow(const NodesOnPath& nodes, std::size_t depth) const;
    void Decided(Reason reason) const;

private:
    class Found;

    void ExplicitName(const NodesOnPath& nodes, std::size_t component) const;
    void ExplicitAll(const NodesOnPath& nodes, std::size_t component) const;
    void Add(const YSelectionManagerNode& node, const Found& rules, Effect effect,
             std::size_t component) const;

    State* m_state;
};

} // namespace Backup::File
