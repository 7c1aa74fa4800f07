// Walks the file system according to a job's rules. It descends by directory descriptors without following
// symlinks, evaluates the rules for each entry, and passes the selected ones to a visitor. Entries that the
// rules exclude are neither opened nor examined. Memory depends on the depth, not on the number of files: the
// walk keeps the names of the directories on the current path and a bounded number of descriptors.
#pragma once

#include "agent/Walk/EntryFilter.h"
#include "agent/Walk/NameList.h"

#include "Backup/File/YSelectionManager.h"

#include "Krt/File/Unix/Status.h"
#include "Krt/File/YDirectory.h"

#include <deque>
#include <functional>
#include <optional>
#include <set>
#include <string_view>

namespace Agent {

/// An entry that the walk has reached. Everything is valid only during the call.
class WalkedEntry
{
public:
    /// `listedType` is a DT_ constant of <dirent.h>.
    WalkedEntry(const Krt::File::YPath& ofPath, const Krt::File::YDirectory& inParent,
                const Krt::YString& ofName, unsigned char listedType)
        : path(ofPath), parent(inParent), name(ofName), m_listedType(listedType)
    {}

    /// Returns the status of the entry itself, found through `parent` at the first call. Raises the system's
    /// error.
    const struct stat& Status() const
    {
        if (!m_status)
            m_status = parent.Stat(name);
        return *m_status;
    }
    /// Returns the status if Status was called before.
    const std::optional<struct stat>& KnownStatus() const { return m_status; }
    /// Uses the status if it is known, otherwise the listing if that contains a type, otherwise the status.
    bool IsDirectory() const;
    /// Records that this directory is not entered, whatever the descent policy says.
    void SetBoundary() { m_isBoundary = true; }
    bool IsBoundary() const { return m_isBoundary; }

    const Krt::File::YPath& path;
    const Krt::File::YDirectory& parent;
    const Krt::YString& name;

private:
    unsigned char m_listedType;
    bool m_isBoundary = false;
    mutable std::optional<struct stat> m_status;
};

/// Receives the results of a walk. If OnSelected raises a YError, that entry has failed; the walk continues.
class IWalkVisitor
{
public:
    virtual ~IWalkVisitor() = default;
    /// Returns true if the entry is a directory that the descent policy lets the walk enter; the policy is
    /// not asked for a boundary. If the visitor calls Status, the walk checks that it enters the directory
    /// with that status.
    virtual bool OnSelected(const WalkedEntry& entry) = 0;
    /// The entry was selected, but is excluded by a rule that asks for a report.
    virtual void OnExcluded(const Krt::File::YPath& path) = 0;
    /// A mount point that the policy does not let the walk enter.
    virtual void OnMountNotEntered(const Krt::File::YPath& path) = 0;
    /// A mount point that the policy would not let the walk enter; entered because the user named it.
    virtual void OnMountEntered(const Krt::File::YPath& path) = 0;
    /// A symlink at the path of a rule that selects everything there. The symlink itself is selected, but its
    /// target is not walked.
    virtual void OnLinkTaken(const Krt::File::YPath& path) = 0;
    /// The directory that must not be walked, or a root below it.
    virtual void OnSkipped(const Krt::File::YPath& path) = 0;
    virtual void OnFailed(const Krt::File::YPath& path, const Krt::YString& reason) = 0;
    /// The rules neither select the entry nor exclude it reportably. The walk may still enter it, or select
    /// it for a rule at its path.
    virtual void OnNotSelected(const Krt::File::YPath&) {}
    /// A filter leaves the entry out, which the rules select or enter. `by` is "a pattern", the option
    /// otherwise, or the name of the file that marks the directory.
    virtual void OnLeftOut(const Krt::File::YPath&, std::string_view /*by*/) {}
    /// The directory was listed, and its entries follow.
    virtual void OnEntered(const Krt::File::YPath&) {}
    /// Called between entries; true ends the walk.
    virtual bool IsCancelled() = 0;
};

class Walker
{
public:
    /// `rules` and `visitor` must outlive the walker. `roots` are the entries where walks start, or "/". If a
    /// walk reaches another root, that root's walk follows at once, so no entry is visited twice.
    Walker(const Backup::File::YSelectionManager& rules, std::set<Krt::File::YPath> roots,
           IWalkVisitor& visitor);
    ~Walker();

    /// The directory with this status is neither visited nor entered, and no walk starts below it.
    void Skip(const struct stat& directory);
    /// Entries for which `visits` returns false are left out, with all that is below them.
    void Restrict(std::function<bool(const Krt::File::YPath&)> visits) { m_visits = std::move(visits); }
    /// Entries are left out that the filter names, with all that is below them, except for those in `named`.
    /// `filter` and `named` must outlive the walker. No walk is left out because a mark is in the directory
    /// where it starts.
    void Filter(const EntryFilter& filter, const std::set<Krt::File::YPath>& named);
    /// Walks every root. Entries of a directory are visited in the order of the bytes of their names, and a
    /// directory precedes its entries, also if they are visited by several walks.
    void Run();

private:
    // A directory whose entries are being visited.
    struct VisitedDirectory
    {
        Krt::File::YPath path;
        std::optional<Krt::File::YDirectory> directory; // closed while too many directories are open below it
        Krt::File::FileId closed;                       // identifies the closed directory
        NameList names;
        std::size_t next = 0;
        dev_t device = 0;               // of the directory; set if the walk stays on its file system
        std::vector<std::string> marks; // see EntryFilter
    };

    bool IsSkipped(const struct stat& directory) const;
    bool IsBelowSkipped(const Krt::File::YPath& root) const;
    void TryRoot(const Krt::File::YPath& root);
    void TryRootsBelow(const Krt::File::YPath& path);
    void WalkRoot(const Krt::File::YPath& root);
    void WalkEntered(std::size_t depth);
    void VisitEntry(const Krt::File::YPath& path, const Krt::File::YDirectory& parent,
                    const Krt::YString& name, unsigned char type, bool isRoot);
    std::string_view LeftOutByName(const Krt::File::YPath& path, const Krt::YString& name, bool isRoot) const;
    std::string_view LeftOutByStatus(WalkedEntry& entry, bool isRoot) const;
    bool HasIncludeForAllNames(const Krt::File::YPath& path) const;
    bool IsSelectedByRulesAtPath(const WalkedEntry& entry);
    bool MayEnter(const WalkedEntry& entry, bool selected, bool isRoot);
    void Enter(const Krt::File::YPath& path, Krt::File::YDirectory directory);
    void Close(VisitedDirectory& visited);
    const Krt::File::YDirectory& DirectoryOf(VisitedDirectory& visited);

    const Backup::File::YSelectionManager& m_rules;
    std::vector<Krt::File::YPath> m_roots;  // sorted, a directory before its entries
    std::set<Krt::File::YPath> m_rootsToDo; // those whose walks have not begun
    IWalkVisitor& m_visitor;
    std::optional<Krt::File::FileId> m_skipped;
    std::function<bool(const Krt::File::YPath&)> m_visits; // empty for all entries
    const EntryFilter* m_filter = nullptr;                 // null if no entry is left out
    const std::set<Krt::File::YPath>* m_named = nullptr;   // which the filter does not apply to
    std::deque<VisitedDirectory> m_visited;                // those on the current path, the outermost first
};

} // namespace Agent
