// PathExplanation: why a path is in a backup, or why not. The rules' part comes from the selection tree's own
// decision, and the walk's part from a walk.
#pragma once

#include "agent/Explain/MountFacts.h"
#include "agent/Explain/NearMisses.h"
#include "agent/Explain/WalkRecord.h"

#include "Backup/File/YSelectionExplanation.h"

#include <optional>
#include <string>
#include <vector>

namespace Agent {

enum class EntryKind
{
    Missing,
    File,
    Directory,
    Symlink,
    Socket,
    Other,
    Unknown ///< it can't be examined
};

/// Returns the kind of the entry itself.
EntryKind KindOf(const Krt::File::YPath& path);
/// Returns the reason why this user may not read a regular file; nothing if that is allowed.
std::optional<Krt::YString> FailureToRead(const Krt::File::YPath& path);
/// Returns a word such as "file".
const char* KindWord(EntryKind kind);

/// Why the walk does not reach a path.
enum class Obstacle
{
    None,        ///< the walk reaches the path
    NoStart,     ///< no walk starts at the path or above it
    Rules,       ///< the rules keep it out of a directory above
    Mount,       ///< a directory above is a mount point that is not entered
    Repository,  ///< a directory above is the repository
    Failure,     ///< a directory above fails
    NoDirectory, ///< an entry above is not a directory
    Missing      ///< the entry, or one above it, does not exist
};

/// Returns a word such as "mount".
const char* ObstacleWord(Obstacle obstacle);

struct PathExplanation
{
    std::string asked;     ///< the path as the user named it
    Krt::File::YPath path; ///< as resolved
    EntryKind kind = EntryKind::Missing;
    std::optional<Krt::File::YPath> start;      ///< the nearest start at the path or above it
    std::optional<Krt::File::YPath> startBelow; ///< the first start below the path
    WalkOutcome outcome;                        ///< what the walk does with the path, if it gets there

    std::optional<Backup::File::YSelectionExplanation> rules; ///< not for "/", to which no rule applies
    NearMisses misses;                                        ///< only if no include matches the path
    /// An include for all names whose path is this one. Only if the entry is not a directory, and is
    /// selected by this include, or would be without an exclude.
    std::optional<Backup::File::YSelectionPathDescriptor> ownInclude;

    Obstacle obstacle = Obstacle::None;
    Krt::File::YPath obstacleAt;                                      ///< for obstacles other than NoStart
    std::optional<Backup::File::YSelectionExplanation> obstacleRules; ///< why, for Rules
    std::optional<Krt::YString> failure; ///< for Failure: of the walk at obstacleAt, or to examine the path
    std::optional<MountFacts>
        mount; ///< of a mount that is an obstacle, or of the path if it is a mount point

    bool IsStored() const
    {
        return outcome.isSelected && !outcome.failure && !outcome.isRepository && kind != EntryKind::Socket;
    }
    /// Returns true for a directory that is not stored for its own sake, but as the parent directory of
    /// stored entries, if there are any.
    bool IsParentOnly() const
    {
        return !IsStored() && kind == EntryKind::Directory && (outcome.isEntered || startBelow);
    }
};

class Explainer
{
public:
    /// The job outlives the object. `repository` is the status of the directory that a walk leaves out.
    Explainer(const Job& job, const std::optional<struct stat>& repository)
        : m_job(job), m_repository(repository)
    {}

    /// Makes one walk, and explains each path. A path need not exist. Raises what ResolveAsFarAsPossible
    /// raises.
    std::vector<PathExplanation> Explain(const std::vector<std::string>& paths) const;

private:
    void Describe(PathExplanation& explanation, const WalkRecord& record) const;
    void FindObstacle(PathExplanation& explanation, const WalkRecord& record) const;

    const Job& m_job;
    const std::optional<struct stat> m_repository;
};

/// Resolves symlinks and ".." as far as the path exists, but keeps a symlink at its end. Raises the operating
/// system's error for a path with ".." after the name of an entry that does not exist.
Krt::File::YPath ResolveAsFarAsPossible(const std::string& path);

} // namespace Agent
