// WalkRecord: what the walk of a backup does with some paths. The walk itself is made, but visits only these
// paths and the directories above them, and stores nothing.
#pragma once

#include "agent/Walk/Roots.h"
#include "agent/Walk/Walker.h"

#include <map>
#include <optional>
#include <string>
#include <unordered_set>

namespace Agent {

/// What a walk did with an entry.
struct WalkOutcome
{
    bool isSelected = false;     ///< its record is stored
    bool isExcluded = false;     ///< it is reported as excluded
    bool isEntered = false;      ///< a directory whose entries are visited
    bool isMountCut = false;     ///< a mount point that the descent policy does not enter
    bool isMountEntered = false; ///< a mount point that is entered because the walk starts there
    bool isLinkTaken = false;    ///< a symlink that is stored for a rule at its path
    bool isRepository = false;   ///< the directory that must not be walked, or a start below it
    std::optional<Krt::YString> failure;
};

/// Returns whether a walk may enter a selected entry. Raises what the descent policy raises.
bool MayEnter(const WalkedEntry& entry);

class WalkRecord : private IWalkVisitor
{
public:
    /// Walks. `repository` is the status of the directory that must not be walked. Raises InvalidState if the
    /// user interrupts.
    WalkRecord(const Job& job, const std::optional<struct stat>& repository,
               const std::vector<Krt::File::YPath>& paths);

    /// Returns nullptr for a path that the walk did not reach.
    const WalkOutcome* Find(const Krt::File::YPath& path) const;

private:
    bool OnSelected(const WalkedEntry& entry) override;
    void OnExcluded(const Krt::File::YPath& path) override { Of(path).isExcluded = true; }
    void OnMountNotEntered(const Krt::File::YPath& path) override { Of(path).isMountCut = true; }
    void OnMountEntered(const Krt::File::YPath& path) override { Of(path).isMountEntered = true; }
    void OnLinkTaken(const Krt::File::YPath& path) override { Of(path).isLinkTaken = true; }
    void OnSkipped(const Krt::File::YPath& path) override { Of(path).isRepository = true; }
    void OnFailed(const Krt::File::YPath& path, const Krt::YString& reason) override
    {
        Of(path).failure = reason;
    }
    void OnNotSelected(const Krt::File::YPath& path) override { Of(path); }
    void OnEntered(const Krt::File::YPath& path) override { Of(path).isEntered = true; }
    bool IsCancelled() override;

    WalkOutcome& Of(const Krt::File::YPath& path) { return m_outcomes[path.Bytes()]; }

    std::unordered_set<std::string> m_wanted; // the paths and the directories above them
    std::map<std::string, WalkOutcome> m_outcomes;
};

} // namespace Agent
