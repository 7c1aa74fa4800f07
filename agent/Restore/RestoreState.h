// RestoreState: what the parts of a restore from a repository share.
#pragma once

#include "agent/Repository/Repository.h"
#include "agent/Restore/EntryMaker.h"
#include "agent/Restore/ExistingEntries.h"
#include "agent/Restore/RestoreProgress.h"
#include "agent/Restore/RestoredLinks.h"
#include "agent/Restore/TargetCleaner.h"

#include <memory>
#include <unordered_set>

namespace Agent {

struct RestoreState
{
    /// `source` and `observer` outlive this object. `target` is open; without one, as if it were empty, only
    /// a dry run is possible.
    RestoreState(const Repo::Repository& source, std::optional<Krt::File::YDirectory> target,
                 RestoreSettings wanted, Report& observer);
    RestoreState(const RestoreState&) = delete;
    RestoreState& operator=(const RestoreState&) = delete;

    const Repo::Repository& repository;
    const RestoreSettings settings;
    Report& report;
    std::unique_ptr<EntryMaker> maker;              ///< null in a dry run
    std::optional<Krt::File::YDirectory> dryTarget; ///< of a dry run
    ExistingEntries existing;
    RestoreProgress progress;
    TargetCleaner cleaner;
    RestoredLinks links;
    /// With `settings.verifies`: paths of files that were kept or failed, which are not verified.
    std::unordered_set<std::string> unverified;
};

/// Returns the location below the target of an entry's path, which begins with "/".
TargetLocation LocationOf(std::string_view path);

} // namespace Agent
