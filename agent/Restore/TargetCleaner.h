// TargetCleaner: removes entries of a target that the restored snapshot does not have. Symlinks are removed
// themselves, never followed, and file systems that are mounted below the target are not entered.
#pragma once

#include "agent/Restore/RestoreSettings.h"
#include "agent/Restore/TargetLocation.h"
#include "agent/Run/Report.h"

#include "Krt/File/YDirectory.h"

#include <functional>
#include <string>
#include <unordered_set>

namespace Agent {

class TargetCleaner
{
public:
    using Visit = std::function<void(const std::string& path)>;

    /// Settings and report outlive this object. `onRemoved` is called for each entry that was removed, or in
    /// a dry run would be.
    TargetCleaner(const RestoreSettings& settings, Visit onRemoved, Report& report)
        : m_settings(settings), m_onRemoved(std::move(onRemoved)), m_report(report)
    {}

    /// Removes the entries of the directory at the location that are selected and whose names are not among
    /// `kept`. `path` is that of the directory, empty for the target. Does nothing if the directory does not
    /// exist; a null `root` is a target that does not. Entries that can't be removed are reported as failed.
    void Clean(const Krt::File::YDirectory* root, const TargetLocation& location, const std::string& path,
               const std::unordered_set<std::string>& kept) const;
    /// Removes an entry with all that is below it, as far as that is selected, but nothing more than 1,000
    /// levels below. Returns true if nothing of it is left.
    bool Remove(const Krt::File::YDirectory& parent, const Krt::YString& name, const std::string& path) const;

private:
    /// Directories that are open, and levels of the recursion, at most. Any user who can write into the
    /// target may have made the tree below it.
    static constexpr unsigned int DepthLimit = 1000;

    void CleanOpened(const Krt::File::YDirectory& directory, const std::string& path,
                     const std::unordered_set<std::string>& kept) const;
    bool RemoveEntry(const Krt::File::YDirectory& parent, const Krt::YString& name, const std::string& path,
                     unsigned int depth) const;
    bool RemoveBelow(const Krt::File::YDirectory& parent, const Krt::YString& name, const std::string& path,
                     unsigned int depth) const;

    const RestoreSettings& m_settings;
    Visit m_onRemoved;
    Report& m_report;
};

} // namespace Agent
