// TargetTree: the directory that a restore writes into. Its directories are opened by descriptors, without
// following symlinks, so nothing is created outside it. The parent directories of the current entry stay
// open, up to a limit from which the outermost ones are closed and opened again later. A directory gets its
// attributes when the restore leaves it, the deepest first, because creating entries in it changes its times.
#pragma once

#include "agent/Restore/Attributes.h"
#include "agent/Restore/Staging.h"
#include "agent/Restore/TargetLocation.h"

#include "Krt/File/Unix/Status.h"

#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace Agent {

class TargetTree
{
public:
    /// Called with the reasons if a directory did not get all its attributes. `hasRecord` is false if
    /// MakeDirectory was not called for it.
    using RefusalReport = std::function<void(const TargetLocation& directory, bool hasRecord,
                                             const std::vector<Krt::YString>& refused)>;

    /// `staging` is the name of temporary directories, which no entry has.
    TargetTree(Krt::File::YDirectory root, Krt::YString staging, RefusalReport report);
    /// Calls Finish, so that an interrupted restore leaves no directory with the mode it needed meanwhile.
    ~TargetTree();

    /// Returns the parent directory of the location. It and its own parents are created if they are missing,
    /// with mode 0700 unless MakeDirectory gives attributes later. Raises InvalidState if one of them exists
    /// and is not a directory. Valid until the next call.
    const Krt::File::YDirectory& ParentOf(const TargetLocation& location);
    /// ParentOf without creating anything: raises NotFound if a directory is missing.
    const Krt::File::YDirectory& ExistingParentOf(const TargetLocation& location);
    /// Returns the staging directory in the parent directory of the location. It is created by the first call
    /// and removed when the restore leaves the parent directory. Valid until the next call.
    const Staging& StagingFor(const TargetLocation& location);
    /// Creates the directory if it is missing. It gets the attributes when the restore leaves it.
    void MakeDirectory(const TargetLocation& location, Attributes attributes);
    /// Creates a hard link `name` to the entry at `from`, in the parent directory of `location`. Raises the
    /// operating system's error.
    void MakeHardLink(const TargetLocation& from, const TargetLocation& location, const Krt::YString& name);
    /// The target itself.
    const Krt::File::YDirectory& GetRoot() const { return m_root; }
    /// Leaves all directories, which gives them their attributes.
    void Finish();
    /// Returns once everything that was created is durable, also on file systems that are mounted below the
    /// target. Raises the operating system's error.
    void Sync() const;

private:
    struct EnteredDirectory
    {
        Krt::YString name;
        std::optional<Krt::File::YDirectory> directory; // nothing while it is closed
        bool isNew = false;
        bool isWidened = false; // its owner got all rights for the duration of the restore
        struct stat before
        {};                                   // restored at an existing directory without a record
        std::optional<Attributes> attributes; // of its record
        std::optional<Staging> staging;
        Krt::File::FileId closed;          // the identity of a directory that is closed
        std::vector<Krt::YString> refused; // before the restore leaves it
    };

    const Krt::File::YDirectory& Descend(const TargetLocation& location, std::size_t depth,
                                         bool mayCreate = true);
    const Krt::File::YDirectory& Top() const;
    EnteredDirectory OpenOrMake(const Krt::File::YDirectory& parent, const Krt::YString& name,
                                bool mayCreate);
    void CloseOutermost();
    void OpenClosed();
    void ForgetClosed(const Krt::YString& reason);
    TargetLocation LocationAt(std::size_t depth) const;
    void Leave();
    void RemoveStaging(const Krt::File::YDirectory& directory, std::optional<Staging>& staging,
                       std::vector<Krt::YString>& refused) const;
    static void RestoreStatus(const EnteredDirectory& entered);

    Krt::File::YDirectory m_root;
    dev_t m_device;
    std::map<dev_t, Krt::File::YDirectory> m_mounted; // a directory of each other file system
    Krt::YString m_stagingName;
    RefusalReport m_report;
    std::optional<Staging> m_staging; // of the root
    std::vector<EnteredDirectory> m_entered;
    std::size_t m_closed = 0; // of m_entered, the outermost ones; never the last
};

} // namespace Agent
