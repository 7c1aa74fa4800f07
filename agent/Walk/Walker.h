// Walks the file system as a job's rules ask. It goes down by directory descriptors and follows no link, asks
// the rules about each entry, and hands the selected ones to a visitor. Nothing that the rules leave out is
// opened or looked at. Depth, not the number of files, bounds its memory: the names of the directories on the
// way down are held, and a bounded number of descriptors.
#pragma once

#include "agent/Walk/NameList.h"

#include "Backup/File/YSelectionManager.h"

#include "Krt/File/Unix/Status.h"
#include "Krt/File/YDirectory.h"

#include <deque>
#include <optional>
#include <set>

namespace Agent {

/// An entry that the walk has come to. Everything is valid during the call alone.
class WalkedEntry
{
public:
    /// `listedType` is a DT_ constant of <dirent.h>.
    WalkedEntry(const Krt::File::YPath& ofPath, const Krt::File::YDirectory& inParent,
                const Krt::YString& ofName, unsigned char listedType)
        : path(ofPath), parent(inParent), name(ofName), m_listedType(listedType)
    {}

    /// Of the entry itself, through `parent`; looked up at the first asking. Raises the system's error.
    const struct stat& Status() const
    {
        if (!m_status)
            m_status = parent.Stat(name);
        return *m_status;
    }
    /// Nothing until somebody asked for it.
    const std::optional<struct stat>& KnownStatus() const { return m_status; }
    /// By the status where it is known, else by the listing where that tells, else by the status.
    bool IsDirectory() const;

    const Krt::File::YPath& path;
    const Krt::File::YDirectory& parent;
    const Krt::YString& name;

private:
    unsigned char m_listedType;
    mutable std::optional<struct stat> m_status;
};

/// What a walk tells. A YError that OnSelected raises is a failure of that entry; the walk goes on.
class IWalkVisitor
{
public:
    virtual ~IWalkVisitor() = default;
    /// Whether it is a directory that the descent policy lets the walk enter. A visitor that asks for the
    /// status has the walk check that it enters the very directory of that status.
    virtual bool OnSelected(const WalkedEntry& entry) = 0;
    /// Selected, but excluded by a rule that wants it told.
    virtual void OnExcluded(const Krt::File::YPath& path) = 0;
    /// A mount point that the policy keeps the walk out of.
    virtual void OnMountNotEntered(const Krt::File::YPath& path) = 0;
    /// A mount point that the policy would not follow, entered since the user named it.
    virtual void OnMountEntered(const Krt::File::YPath& path) = 0;
    /// A symbolic link at the place of a rule that selects all that is there. The link itself is selected;
    /// what it leads to is not walked.
    virtual void OnLinkTaken(const Krt::File::YPath& path) = 0;
    /// The directory that must not be walked, or a root below it.
    virtual void OnStoreSkipped(const Krt::File::YPath& path) = 0;
    virtual void OnFailed(const Krt::File::YPath& path, const Krt::YString& reason) = 0;
    /// Asked between entries; true ends the walk.
    virtual bool IsCancelled() = 0;
};

class Walker
{
public:
    /// Both outlive the walker. `roots` are where walks start: each is an entry, or "/". A walk that comes
    /// upon another root leaves it to that root's own walk, so nothing is visited twice.
    Walker(const Backup::File::YSelectionManager& rules, std::set<Krt::File::YPath> roots,
           IWalkVisitor& visitor);
    ~Walker();

    /// The directory with this status is neither visited nor entered, and no walk starts below it.
    void Skip(const struct stat& directory);
    /// Walks every root in order. Entries of a directory come in the order of their names' bytes, a directory
    /// before what it holds.
    void Run();

private:
    struct Level
    {
        Krt::File::YPath path;
        std::optional<Krt::File::YDirectory> directory; // closed while too many are open below
        Krt::File::FileId closed;                       // which directory was closed
        NameList names;
        std::size_t next = 0;
    };

    bool IsSkipped(const struct stat& directory) const;
    bool LiesInSkipped(const Krt::File::YPath& root) const;
    void WalkRoot(const Krt::File::YPath& root);
    void VisitEntry(const Krt::File::YPath& path, const Krt::File::YDirectory& parent,
                    const Krt::YString& name, unsigned char type, bool isRoot);
    bool IsPlaceOfAll(const Krt::File::YPath& path) const;
    bool IsSelectedByPlace(const WalkedEntry& entry);
    bool MayEnter(const WalkedEntry& entry, bool selected, bool isRoot);
    void Enter(const Krt::File::YPath& path, Krt::File::YDirectory directory);
    void Close(Level& level);
    const Krt::File::YDirectory& DirectoryOf(Level& level);

    const Backup::File::YSelectionManager& m_rules;
    std::set<Krt::File::YPath> m_roots;
    IWalkVisitor& m_visitor;
    std::optional<Krt::File::FileId> m_skipped;
    std::deque<Level> m_levels; // the directories on the way down
};

} // namespace Agent
