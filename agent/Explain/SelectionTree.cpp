#include "agent/Explain/SelectionTree.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/Report.h"
#include "agent/Walk/NameList.h"

#include "Krt/File/Unix/Status.h"

#include <deque>
#include <set>
#include <sys/stat.h>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;
using Krt::File::YPath;

namespace {

TreeAmount AmountOf(const struct stat& status)
{
    return {1, S_ISREG(status.st_mode) ? static_cast<unsigned long long>(status.st_size) : 0};
}

// Counts the visited entries for the progress.
class Visits
{
public:
    explicit Visits(Report& report) : m_report(report) {}
    void Add(const YPath& current)
    {
        ++m_count;
        m_report.Progress(
            [&] { return ProgressFacts{.items = m_count, .unit = "entries", .current = current.Bytes()}; });
    }

private:
    Report& m_report;
    std::uint64_t m_count = 0;
};

// Counts entries without regard to rules, on one file system.
class Measure
{
public:
    explicit Measure(Visits& visits) : m_visits(visits) {}

    // Counts the entry and all that is below it on the file system of its parent directory. What can't be
    // read makes the count incomplete.
    void Count(const YPath& path)
    {
        struct stat status = {};
        if (lstat(path.CStr(), &status) != 0)
            return;
        amount.Add(AmountOf(status));
        if (!S_ISDIR(status.st_mode))
            return;
        struct stat above = {};
        isComplete = stat(path.GetParent().CStr(), &above) == 0 && above.st_dev == status.st_dev;
        if (!isComplete)
            return;
        m_device = status.st_dev;
        Try([&] { Enter(YDirectory::Open(path)); });
        while (!m_open.empty() && !IsInterrupted()) {
            Open& open = m_open.back();
            if (open.next == open.names.Size())
                m_open.pop_back();
            else
                Try([&] { Visit(open, path); });
        }
    }

    TreeAmount amount;
    bool isComplete = true;

private:
    struct Open
    {
        YDirectory directory;
        NameList names;
        std::size_t next = 0;
    };

    template <class Call>
    void Try(Call call)
    {
        try {
            call();
        } catch (const Krt::Exception::YError&) {
            isComplete = false;
        }
    }
    void Enter(YDirectory directory)
    {
        NameList names(directory);
        m_open.push_back({std::move(directory), std::move(names)});
    }
    void Visit(Open& open, const YPath& top)
    {
        m_visits.Add(top);
        const YString name(open.names.NameAt(open.next++));
        const struct stat status = open.directory.Stat(name);
        amount.Add(AmountOf(status));
        if (S_ISDIR(status.st_mode) && status.st_dev != m_device)
            isComplete = false;
        else if (S_ISDIR(status.st_mode))
            Enter(open.directory.OpenDirectory(name));
    }

    Visits& m_visits;
    std::deque<Open> m_open;
    dev_t m_device = 0;
};

class TreeRun : private IWalkVisitor
{
public:
    TreeRun(const Job& job, const std::optional<struct stat>& repository, const YPath& top,
            unsigned int depth, Report& report)
        : m_depth(depth), m_starts(job.roots), m_visits(report)
    {
        m_top.path = top;
        m_top.name = top.Bytes();
        m_top.kind = KindOf(top);
        Walker walker(job.rules, job.roots, *this);
        walker.Restrict(
            [&top](const YPath& path) { return path.IsChildOf(top, true) || top.IsChildOf(path, true); });
        if (repository)
            walker.Skip(*repository);
        walker.Run();
        Settle();
        RaiseIfInterrupted();
        AddUp(m_top);
    }

    TreeNode Take() { return std::move(m_top); }

private:
    bool OnSelected(const WalkedEntry& entry) override
    {
        m_visits.Add(entry.path);
        TreeNode* const node = Begin(entry.path);
        const struct stat& status = entry.Status();
        const auto failure = S_ISREG(status.st_mode) ? FailureToRead(entry.path) : std::optional<YString>();
        if (node != nullptr)
            (failure || S_ISSOCK(status.st_mode) ? node->left : node->stored).Add(AmountOf(status));
        Mark(entry.path, [&failure](WalkOutcome& outcome) {
            outcome.isSelected = true;
            outcome.failure = failure;
        });
        if (S_ISDIR(status.st_mode))
            m_unopened = entry.path;
        return MayEnter(entry);
    }
    void OnExcluded(const YPath& path) override
    {
        OnNotSelected(path);
        Mark(path, [](WalkOutcome& outcome) { outcome.isExcluded = true; });
    }
    void OnNotSelected(const YPath& path) override
    {
        m_visits.Add(path);
        Begin(path);
        m_pending = path;
    }
    void OnMountNotEntered(const YPath& path) override
    {
        Leave(path);
        TreeNode* const node = OwnNodeOf(path);
        if (node == nullptr)
            return;
        node->outcome.isMountCut = true;
        node->mount = FindMountFacts(path);
        if (node->mount)
            node->usage = FindMountUsage(path, *node->mount);
    }
    void OnMountEntered(const YPath& path) override
    {
        Begin(path);
        Mark(path, [](WalkOutcome& outcome) { outcome.isMountEntered = true; });
    }
    void OnLinkTaken(const YPath&) override {}
    void OnSkipped(const YPath& path) override
    {
        Begin(path);
        Mark(path, [](WalkOutcome& outcome) { outcome.isRepository = true; });
        m_pending = path;
    }
    void OnFailed(const YPath& path, const YString& reason) override
    {
        Leave(path);
        Mark(path, [&](WalkOutcome& outcome) { outcome.failure = reason; });
        TreeNode* const node = NodeOf(path);
        if (node != nullptr && m_unopened == path) { // it is not stored
            --node->stored.entries;
            ++node->left.entries;
        }
        m_unopened.reset();
    }
    void OnEntered(const YPath& path) override
    {
        Begin(path);
        Mark(path, [](WalkOutcome& outcome) { outcome.isEntered = true; });
        m_unopened.reset();
    }
    bool IsCancelled() override { return IsInterrupted(); }

    // Counts what is left out at the path before, unless this is another event of that path. Returns the node
    // of the path, or that of the nearest directory above it that has one; nullptr for a path outside of the
    // tree.
    TreeNode* Begin(const YPath& path)
    {
        if (m_pending && *m_pending != path)
            Settle();
        m_pending.reset();
        return NodeOf(path);
    }
    // Begins at a path whose contents are neither stored nor counted.
    void Leave(const YPath& path)
    {
        if (TreeNode* const node = Begin(path))
            node->isCounted = false;
    }
    // Calls `mark` if the path has a node of its own.
    template <class Change>
    void Mark(const YPath& path, Change mark)
    {
        if (TreeNode* const node = OwnNodeOf(path))
            mark(node->outcome);
    }
    TreeNode* OwnNodeOf(const YPath& path)
    {
        TreeNode* const node = NodeOf(path);
        return node != nullptr && node->path == path ? node : nullptr;
    }
    TreeNode* NodeOf(const YPath& path)
    {
        if (!path.IsChildOf(m_top.path, true))
            return nullptr;
        TreeNode* node = &m_top;
        const auto& components = path.PopulateComponents();
        const std::size_t first = m_top.path.PopulateComponents().size();
        for (std::size_t i = first; i < components.size() && i - first < m_depth; ++i) {
            const std::string& name = components[i].Bytes();
            // A walk visits the entries of a directory in their order.
            if (node->entries.empty() || node->entries.back().name != name) {
                TreeNode& entry = node->entries.emplace_back();
                entry.name = name;
                entry.path = node->path.Append(components[i]);
                entry.kind = KindOf(entry.path);
            }
            node = &node->entries.back();
        }
        return node;
    }

    // Counts the last entry that is left out, if the walk has not entered it.
    void Settle()
    {
        if (!m_pending)
            return;
        const YPath path = *m_pending;
        m_pending.reset();
        TreeNode* const node = NodeOf(path);
        if (node == nullptr)
            return;
        Measure measure(m_visits);
        measure.Count(path);
        node->left.Add(measure.amount);
        node->isCounted = node->isCounted && measure.isComplete;
    }

    // No walk lists a directory that only leads to a start, so its other entries are missing.
    bool OnlyLeadsToStart(const YPath& path) const
    {
        bool isAbove = false;
        for (const YPath& start : m_starts) {
            if (path.IsChildOf(start, true))
                return false;
            isAbove = isAbove || start.IsChildOf(path, true);
        }
        return isAbove;
    }

    void AddUp(TreeNode& node, bool mayLeadToStart = true) const
    {
        const bool leads = mayLeadToStart && node.kind == EntryKind::Directory && !node.outcome.isEntered &&
                           OnlyLeadsToStart(node.path);
        node.isCounted = node.isCounted && !leads;
        for (TreeNode& entry : node.entries) {
            AddUp(entry, leads);
            node.stored.Add(entry.stored);
            node.left.Add(entry.left);
            node.isCounted = node.isCounted && entry.isCounted;
        }
    }

    TreeNode m_top;
    const std::size_t m_depth;
    const std::set<YPath>& m_starts;
    Visits m_visits;
    std::optional<YPath> m_unopened; // the last selected directory, until the walk has opened it
    std::optional<YPath> m_pending;  // an entry that is left out, unless the walk enters it next
};

} // namespace

TreeNode BuildSelectionTree(const Job& job, const std::optional<struct stat>& repository, const YPath& top,
                            unsigned int depth, Report& report)
{
    return TreeRun(job, repository, top, depth, report).Take();
}

} // namespace Agent
