// TargetTree: the directory that a restore writes into, reached by descriptors that follow no link, so
// nothing is ever made outside it. The directories on the way to the current entry stay open. A directory
// gets its attributes when the restore leaves it, the deepest first, so that what is made in it doesn't
// change them.
#pragma once

#include "agent/Restore/Attributes.h"
#include "agent/Restore/Place.h"
#include "agent/Restore/Staging.h"

#include <functional>
#include <map>
#include <optional>
#include <vector>

namespace Agent {

class TargetTree
{
public:
    /// Called with what a directory did not get of its attributes.
    using RefusalReport =
        std::function<void(const Place& directory, const std::vector<Krt::YString>& refused)>;

    /// `staging` is a name that no entry has.
    TargetTree(Krt::File::YDirectory root, Krt::YString staging, RefusalReport report);
    /// Finishes, so that a restore that is cut short leaves no directory as it stood meanwhile.
    ~TargetTree();

    /// The directory that holds the entry of this place, made with its parents where it is missing, with mode
    /// 0755 unless attributes follow. Raises InvalidState where something else than a directory, or a link,
    /// stands in the way. Valid until the next call.
    const Krt::File::YDirectory& ParentOf(const Place& place);
    /// Beside the entry of this place; made when it is first asked for, and removed when the restore leaves
    /// the directory. Valid until the next call.
    const Staging& StagingFor(const Place& place);
    /// Makes the place a directory, if it is none yet, that gets the attributes in the end.
    void MakeDirectory(const Place& place, Attributes attributes);
    /// Gives what stands at `from`, which is no directory, the further name `name` beside `place`. Raises the
    /// operating system's error.
    void MakeHardLink(const Place& from, const Place& place, const Krt::YString& name);
    /// Gives all directories that are still open their attributes.
    void Finish();
    /// Returns once what was made is on the medium, also on file systems that are mounted below the target.
    /// Raises the operating system's error.
    void Sync() const;

private:
    struct Level
    {
        Krt::YString name;
        Krt::File::YDirectory directory;
        bool isNew = false;
        bool isWidened = false; // its owner was let in for the time being
        struct stat before
        {};                                   // what an existing directory without a record gets back
        std::optional<Attributes> attributes; // of its record
        std::optional<Staging> staging;
    };

    const Krt::File::YDirectory& Descend(const Place& place, std::size_t depth);
    const Krt::File::YDirectory& Top() const;
    Level OpenLevel(const Krt::File::YDirectory& parent, const Krt::YString& name);
    void Leave();
    void RemoveStaging(std::optional<Staging>& staging, std::vector<Krt::YString>& refused) const;
    static void GiveBack(const Level& level);

    Krt::File::YDirectory m_root;
    dev_t m_device;
    std::map<dev_t, Krt::File::YDirectory> m_mounted; // a directory of each other file system
    Krt::YString m_stagingName;
    RefusalReport m_report;
    std::optional<Staging> m_staging; // of the root
    std::vector<Level> m_levels;
};

} // namespace Agent
