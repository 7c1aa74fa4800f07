// TargetCleaner: removes entries of a target that the restored snapshot does not have. Symlinks are removed
// themselves, never followed, and file systems that are mounted below the target are not entered.
#pragma once

#include "agent/Run/Report.h"

#include "Krt/File/YDirectory.h"

#include <functional>
#include <string>
#include <unordered_set>

namespace Agent {

/// Whether a restore deals with an entry.
struct Selection
{
    bool isSelected = false;
    bool mayHaveSelected = false; ///< entries below it may be selected
};

class TargetCleaner
{
public:
    using Select = std::function<Selection(const std::string& path, bool isDirectory)>;
    using Visit = std::function<void(const std::string& path)>;

    /// The report outlives this object. `onRemoved` is called for each entry that was removed, or in a dry
    /// run would be.
    TargetCleaner(Select select, Visit onRemoved, bool isDryRun, Report& report)
        : m_select(std::move(select)), m_onRemoved(std::move(onRemoved)), m_isDryRun(isDryRun),
          m_report(report)
    {}

    /// Removes the entries of the directory that are selected and whose names are not among `kept`. `path` is
    /// that of the directory, empty for the target. Entries that can't be removed are reported as failed.
    void Clean(const Krt::File::YDirectory& directory, const std::string& path,
               const std::unordered_set<std::string>& kept) const;
    /// Removes an entry with all that is below it, as far as that is selected. Returns true if nothing of it
    /// is left.
    bool Remove(const Krt::File::YDirectory& parent, const Krt::YString& name, const std::string& path) const;

private:
    bool RemoveBelow(const Krt::File::YDirectory& parent, const Krt::YString& name,
                     const std::string& path) const;

    Select m_select;
    Visit m_onRemoved;
    bool m_isDryRun;
    Report& m_report;
};

} // namespace Agent
