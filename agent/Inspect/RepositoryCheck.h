// RepositoryCheck: checks whether all snapshots of a repository can be restored. It continues after damage,
// and names the entries of snapshots that the damage affects.
#pragma once

#include "agent/Inspect/CheckState.h"
#include "agent/Inspect/PackSubset.h"

#include "agent/Access/Session.h"
#include "agent/Run/Progress.h"

#include <optional>
#include <string>
#include <vector>

namespace Agent {

/// Receives what a check finds, on the thread that runs it.
class ICheckObserver
{
public:
    virtual ~ICheckObserver() = default;
    /// A part of the check begins.
    virtual void OnStage(const std::string& text) = 0;
    /// Something is damaged or missing. Not made printable.
    virtual void OnError(const std::string& text) = 0;
    /// Something is unusual, but not damaged. Not made printable.
    virtual void OnHint(const std::string& text) = 0;
    /// An entry of a snapshot can't be restored as it was. Not made printable.
    virtual void OnTouched(const Repo::StoredSnapshot& snapshot, const std::string& path,
                           const std::string& reason) = 0;
    /// How much of the current part is done.
    virtual void OnProgress(const ProgressFacts& facts) = 0;
};

/// What a check found.
struct CheckSummary
{
    std::uint64_t errors = 0;
    std::vector<Repo::Id> brokenPacks;     ///< damaged or missing
    std::vector<Repo::Id> damagedPacks;    ///< those of them that exist and that the disk can read
    std::vector<Repo::Id> unreadablePacks; ///< those of them of which the disk can't read a part
    std::vector<Repo::Id> badSnapshots;    ///< whose files are damaged
    std::size_t unknownPacks = 0;  ///< in no index, with headers that can't be read; snapshots may need them
    bool hasReadErrors = false;    ///< the disk can't read a part of a file
    bool hasDamage = false;        ///< an entry of a snapshot is touched
    bool losesDirectories = false; ///< the entries of a directory of a snapshot can't be read
    bool isIndexWrong = false;     ///< an index file is damaged or missing, or does not fit the packs
    bool lacksSnapshots = false;   ///< the directory of snapshots does not exist
    bool isDenied = false;         ///< the user may not read a file; then isIndexWrong is false
    bool isUnavailable = false;    ///< as isDenied, for another reason that is not in the file
    bool hasUnusedPacks = false;   ///< packs that nothing needs, or entries that are there twice
};

/// Checks the repository: key files, snapshots, index files, packs, trees, and then the content of a subset
/// of the packs. Raises what ends the check, such as InvalidState when the user interrupts. `onLoaded`, which
/// may be empty, is called after the snapshots and the index were read.
CheckSummary CheckRepository(Repo::Repository& repository, const std::optional<PackSubset>& readData,
                             ICheckObserver& observer, const std::function<void()>& onLoaded = {});

} // namespace Agent
