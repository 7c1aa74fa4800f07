#include "agent/Inspect/TreeCheck.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Access/WorkList.h"
#include "agent/Access/Workers.h"
#include "agent/Record/NodeRecord.h"
#include "agent/Repository/Tree.h"
#include "agent/Run/Interrupt.h"

#include "Krt/Thread/ThreadSafety.h"
#include "Krt/Util/YScope.h"

#include <algorithm>
#include <mutex>
#include <unordered_map>

namespace Agent {

using Krt::Thread::AnnotatedLock;
using Repo::BlobType;
using Repo::Id;
using Repo::Node;
using Repo::NodeType;
using Repo::RepositoryError;

namespace {

// The trees that are to be checked. Each is given out once.
class TreeQueue
{
public:
    void Add(const Id& tree, const Id* parent = nullptr)
    {
        const AnnotatedLock lock(m_mutex);
        const auto [known, isNew] = m_numbers.emplace(tree, static_cast<std::uint32_t>(m_numbers.size()));
        if (parent != nullptr)
            m_edges.emplace_back(m_numbers.at(*parent), known->second);
        if (isNew)
            m_trees.Add(tree);
    }

    // Calls `work` with the ID of each tree, until all are done or a thread has failed.
    template <class Work>
    void Process(const std::function<bool()>& hasFailed, const Work& work)
    {
        m_trees.Process(hasFailed, work);
    }

    // The trees, all done, that are so deep that their directories are too deep to be read.
    std::vector<Id> FindDeepest()
    {
        const AnnotatedLock lock(m_mutex);
        std::vector<Id> deepest;
        if (m_numbers.size() < DepthLimit)
            return deepest;
        // A tree follows when all that have it are done, so that its level is that of its longest path.
        std::sort(m_edges.begin(), m_edges.end());
        std::vector<std::uint32_t> levels(m_numbers.size(), 1), waitsFor(m_numbers.size());
        for (const auto& edge : m_edges)
            ++waitsFor[edge.second];
        std::vector<std::uint32_t> ready;
        for (std::uint32_t i = 0; i < waitsFor.size(); ++i)
            if (waitsFor[i] == 0)
                ready.push_back(i);
        std::vector<bool> isDeepest(m_numbers.size());
        while (!ready.empty()) {
            const std::uint32_t tree = ready.back();
            ready.pop_back();
            auto edge = std::lower_bound(m_edges.begin(), m_edges.end(), std::pair(tree, std::uint32_t(0)));
            for (; edge != m_edges.end() && edge->first == tree; ++edge) {
                const std::uint32_t below = edge->second;
                levels[below] = std::max(levels[below], levels[tree] + 1);
                if (levels[below] == DepthLimit + 1)
                    isDeepest[tree] = true;
                if (--waitsFor[below] == 0)
                    ready.push_back(below);
            }
        }
        for (const auto& [id, number] : m_numbers) {
            if (isDeepest[number])
                deepest.push_back(id);
        }
        return deepest;
    }

private:
    Krt::Thread::AnnotatedMutex m_mutex;
    std::unordered_map<Id, std::uint32_t, Repo::IdHash> m_numbers KRT_GUARDED_BY(m_mutex);
    std::vector<std::pair<std::uint32_t, std::uint32_t>> m_edges KRT_GUARDED_BY(m_mutex); // to subtrees
    WorkList<Id> m_trees;
};

// Checks one tree after the other. One thread.
class TreeWorker
{
public:
    TreeWorker(CheckState& state, TreeQueue& queue) : m_state(state), m_queue(queue) {}

    void Check(const Id& tree)
    {
        m_faulty = 0;
        m_odd = 0;
        const Repo::LargeBlobTurn turn =
            Repo::Repository::TakeTurnFor(m_state.GetIndex().LengthOf({BlobType::Tree, tree}));
        const Krt::Util::YScope atEnd([&] {
            if (turn)
                Repo::Bytes().swap(m_text);
        });
        try {
            Load({BlobType::Tree, tree});
            Repo::TreeReader reader(
                Repo::AsText(m_text), Repo::UnknownMembers::Keep,
                [&](const RepositoryError& error) { Fail(tree, error.GetMessage().Bytes()); });
            std::string last;
            for (bool isFirst = true; reader.Next(m_node); isFirst = false) {
                CheckNode(tree, isFirst ? nullptr : &last);
                last = m_node.name;
            }
        } catch (const RepositoryError& error) {
            m_state.NoteUnread(error);
            m_state.MarkLostDirectory();
            if (error.GetFailure() != Repo::Failure::Missing) {
                Fail(tree, error.GetMessage().Bytes());
            } else {
                LookUp({BlobType::Tree, tree});
                m_state.MarkFaulty(tree);
                m_state.AddConsequence("tree " + tree.ToHex() + ": " + error.GetMessage().Bytes());
            }
        }
        ReportFaults(tree);
        ++m_state.items;
    }

private:
    // A pack whose copy of the blob is damaged is broken.
    void Load(const Repo::BlobHandle& handle)
    {
        try {
            m_state.GetRepository().LoadBlob(handle, m_text);
            m_state.bytes += m_text.size();
        } catch (const RepositoryError& error) {
            if (error.IsOfFile() && !IsDenied(error)) {
                for (const Repo::IndexedBlob& copy : m_state.GetIndex().FindAll(handle)) {
                    m_state.MarkBroken(copy.pack);
                    if (IsReadError(error))
                        m_state.MarkUnreadable(copy.pack);
                }
            }
            throw;
        }
    }

    void CheckNode(const Id& tree, const std::string* last)
    {
        if (last != nullptr && m_node.name <= *last)
            Fail(tree, "entry \"" + m_node.name + "\": it is not in the order of names");
        if (std::string fault = m_state.FaultOf(m_node); !fault.empty()) {
            if (m_node.content) {
                for (const Id& id : *m_node.content)
                    LookUp({BlobType::Data, id});
            }
            if (++m_faulty == 1)
                m_fault = "entry \"" + m_node.name + "\": " + fault;
        }
        if (std::string fault = FaultOfKbagentMember(m_node); !fault.empty() && ++m_odd == 1)
            m_oddMember = "entry \"" + m_node.name + "\": " + fault;
        if (m_node.type == NodeType::Directory && m_node.subtree)
            m_queue.Add(*m_node.subtree, &tree);
    }

    void LookUp(const Repo::BlobHandle& handle)
    {
        if (!m_state.GetIndex().Has(handle))
            m_state.MarkLacking();
    }

    // One error for all entries that can't be restored, since they often have the same cause.
    void ReportFaults(const Id& tree)
    {
        const auto describe = [&tree](const std::string& fault, std::uint64_t count) {
            return "tree " + tree.ToHex() + ": " + fault +
                   (count == 1 ? "" : "; further entries with faults: " + std::to_string(count - 1));
        };
        if (m_odd != 0)
            m_state.AddHint(describe(m_oddMember, m_odd));
        if (m_faulty == 0)
            return;
        m_state.MarkFaulty(tree);
        m_state.AddConsequence(describe(m_fault, m_faulty));
    }

    void Fail(const Id& tree, const std::string& reason)
    {
        m_state.MarkFaulty(tree);
        m_state.AddError("tree " + tree.ToHex() + ": " + reason);
    }

    CheckState& m_state;
    TreeQueue& m_queue;
    Repo::Bytes m_text;
    Node m_node;
    std::uint64_t m_faulty = 0; // entries of the tree
    std::string m_fault;        // of the first of them
    std::uint64_t m_odd = 0;    // entries of the tree whose member "kbagent" can't be used
    std::string m_oddMember;    // of the first of them
};

// Finds out which trees are damaged or have damage below them.
class TouchedTrees
{
public:
    explicit TouchedTrees(const CheckState& state) : m_state(state) {}

    bool IsTouched(const Id& root)
    {
        Enter(root);
        while (!m_visited.empty()) {
            RaiseIfInterrupted();
            VisitedTree& visited = m_visited.back();
            if (!visited.subtrees.empty()) {
                const Id next = visited.subtrees.back();
                visited.subtrees.pop_back();
                Enter(next);
                continue;
            }
            const VisitedTree done = std::move(visited);
            m_visited.pop_back();
            m_isTouched[done.tree] = done.isTouched;
            if (done.isTouched && !m_visited.empty())
                m_visited.back().isTouched = true;
        }
        return m_isTouched[root];
    }

private:
    struct VisitedTree
    {
        Id tree;
        std::vector<Id> subtrees; // not examined yet
        bool isTouched = false;
    };

    void Enter(const Id& tree)
    {
        if (const auto known = m_isTouched.find(tree); known != m_isTouched.end()) {
            if (!m_visited.empty())
                m_visited.back().isTouched |= known->second;
            return;
        }
        VisitedTree visited{tree, {}, m_state.IsFaulty(tree) || !m_state.IsReadable({BlobType::Tree, tree})};
        try {
            Repo::Bytes text;
            m_state.GetRepository().LoadBlob({BlobType::Tree, tree}, text);
            Repo::TreeReader reader(Repo::AsText(text), Repo::UnknownMembers::Ignore,
                                    [&visited](const RepositoryError&) { visited.isTouched = true; });
            for (Node node; reader.Next(node);) {
                visited.isTouched |= !m_state.FaultOf(node).empty();
                if (node.type == NodeType::Directory && node.subtree)
                    visited.subtrees.push_back(*node.subtree);
            }
        } catch (const RepositoryError&) {
            visited.isTouched = true; // and reported by the check of the tree
        }
        m_visited.push_back(std::move(visited));
    }

    const CheckState& m_state;
    std::vector<VisitedTree> m_visited;
    std::unordered_map<Id, bool, Repo::IdHash> m_isTouched;
};

bool FindTouchedEntriesOf(const CheckState& state, TouchedTrees& touched, const Repo::StoredSnapshot& stored,
                          unsigned int most, ICheckObserver& observer)
{
    unsigned int count = 0;
    const auto add = [&](const std::string& path, const std::string& reason) {
        if (++count < most)
            observer.OnTouched(stored, path, reason);
        else if (count == most)
            observer.OnTouched(stored, path, reason + " (further entries are not listed)");
    };
    const auto visit = [&](const std::string& path, Node& node) {
        if (const std::string fault = state.FaultOf(node); !fault.empty()) {
            add(path, fault);
            return count < most ? Step::Past : Step::End;
        }
        const bool goesOn = node.type == NodeType::Directory && touched.IsTouched(*node.subtree);
        return count >= most ? Step::End : goesOn ? Step::Into : Step::Past;
    };
    const auto fail = [&](const std::string& path, const Krt::Exception::YError& error) {
        add(path, "not all of its entries can be read: " + error.GetMessage().Bytes());
    };
    const bool isTouched = touched.IsTouched(stored.snapshot.tree);
    if (isTouched)
        WalkTree(state.GetRepository(), stored.snapshot.tree, "", visit, fail);
    return isTouched;
}

} // namespace

void CheckTrees(CheckState& state, const std::vector<Repo::StoredSnapshot>& snapshots,
                const std::function<void()>& report)
{
    TreeQueue queue;
    for (const Repo::StoredSnapshot& stored : snapshots)
        queue.Add(stored.snapshot.tree);
    RunOnThreads(
        WorkerCount(),
        [&](const std::function<bool()>& hasFailed) {
            TreeWorker worker(state, queue);
            queue.Process(hasFailed, [&](const Id& tree) { worker.Check(tree); });
        },
        report);
    for (const Id& tree : queue.FindDeepest()) {
        state.MarkFaulty(tree);
        state.AddConsequence("tree " + tree.ToHex() + ": its directories are more than " +
                             std::to_string(DepthLimit) + " levels deep");
    }
    report();
}

bool FindTouchedEntries(const CheckState& state, const std::vector<Repo::StoredSnapshot>& snapshots,
                        unsigned int most, ICheckObserver& observer)
{
    TouchedTrees touched(state);
    bool isAnyTouched = false;
    for (const Repo::StoredSnapshot& stored : snapshots)
        isAnyTouched |= FindTouchedEntriesOf(state, touched, stored, most, observer);
    return isAnyTouched;
}

} // namespace Agent
