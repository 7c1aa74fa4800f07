#include "agent/Explain/PathExplanation.h"

#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/YDirectory.h"

#include <algorithm>
#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionExplanation;
using Backup::File::YSelectionPathDescriptor;
using Krt::YString;
using Krt::File::YPath;

namespace {

bool IsIncluded(const YSelectionExplanation& explanation)
{
    return std::any_of(explanation.rules.begin(), explanation.rules.end(), [](const auto& rule) {
        return rule.effect == YSelectionExplanation::Effect::Includes;
    });
}

// The include for all names whose path is the given one.
std::optional<YSelectionPathDescriptor> FindIncludeForAllNames(const Backup::File::YSelectionManager& rules,
                                                               const YPath& path)
{
    std::optional<YSelectionPathDescriptor> found;
    rules.VisitPathsAndDescriptors(
        YSelectionDescriptor::Include, path,
        [&](const YPath& rulePath, const YSelectionDescriptor& rule) {
            if (rulePath == path && rule.CoversAllNames())
                found = YSelectionPathDescriptor(rulePath, rule);
            return found.has_value() || rulePath != path;
        },
        false);
    return found;
}

// The reason why a walk that visited an entry did not enter it.
Obstacle ObstacleOf(const WalkOutcome& outcome, YSelectionDescriptor::SelectionType answer)
{
    if (outcome.failure)
        return Obstacle::Failure;
    if (outcome.isRepository)
        return Obstacle::Repository;
    if (outcome.isMountCut)
        return Obstacle::Mount;
    const bool mayEnter =
        answer == YSelectionDescriptor::Include || answer == YSelectionDescriptor::NotSelectedDoRecurse;
    return mayEnter ? Obstacle::NoDirectory : Obstacle::Rules;
}

// The reason why the entry can't be examined, as a backup reports it.
YString FailureToExamine(const YPath& path)
{
    try {
        Krt::File::YDirectory::OpenToSearch(path.GetParent()).Stat(YPath::GetFileFromPath(path, "/"));
    } catch (const Krt::Exception::YError& error) {
        return ReasonOf(error);
    }
    return "";
}

} // namespace

EntryKind KindOf(const YPath& path)
{
    struct stat status = {};
    if (lstat(path.CStr(), &status) != 0)
        return errno == ENOENT || errno == ENOTDIR ? EntryKind::Missing : EntryKind::Unknown;
    switch (status.st_mode & S_IFMT) {
    case S_IFREG:
        return EntryKind::File;
    case S_IFDIR:
        return EntryKind::Directory;
    case S_IFLNK:
        return EntryKind::Symlink;
    case S_IFSOCK:
        return EntryKind::Socket;
    default:
        return EntryKind::Other;
    }
}

std::optional<YString> FailureToRead(const YPath& path)
{
    if (access(path.CStr(), R_OK) == 0)
        return std::nullopt;
    return YString("Permission to read the file is denied");
}

const char* KindWord(EntryKind kind)
{
    constexpr const char* Words[] = {"missing", "file", "directory", "symlink", "socket", "other", "unknown"};
    return Words[static_cast<std::size_t>(kind)];
}

const char* ObstacleWord(Obstacle obstacle)
{
    constexpr const char* Words[] = {"none",       "no_start", "rules",         "mount",
                                     "repository", "failure",  "not_directory", "missing"};
    return Words[static_cast<std::size_t>(obstacle)];
}

YPath ResolveAsFarAsPossible(const std::string& path)
{
    std::vector<YString> missing; // names at the end of the path, the last one first
    std::string existing = path;
    for (;;) {
        try {
            YPath resolved = ResolveNamedPath(existing);
            for (auto name = missing.rbegin(); name != missing.rend(); ++name)
                resolved = resolved.Append(*name);
            return resolved;
        } catch (const Krt::Exception::YError&) {
            while (existing.size() > 1 && existing.back() == '/')
                existing.pop_back();
            const std::size_t slash = existing.rfind('/');
            const bool isOnlyName = slash == std::string::npos;
            const std::string name = isOnlyName ? existing : existing.substr(slash + 1);
            if (name.empty() || name == ".." || (isOnlyName && name == "."))
                throw;
            if (name != ".")
                missing.emplace_back(std::string_view(name));
            existing = isOnlyName ? "." : existing.substr(0, std::max<std::size_t>(slash, 1));
        }
    }
}

std::vector<PathExplanation> Explainer::Explain(const std::vector<std::string>& paths) const
{
    std::vector<PathExplanation> explanations(paths.size());
    std::vector<YPath> resolved;
    for (std::size_t i = 0; i < paths.size(); ++i) {
        explanations[i].asked = paths[i];
        explanations[i].path = ResolveAsFarAsPossible(paths[i]);
        resolved.push_back(explanations[i].path);
    }
    const WalkRecord record(m_job, m_repository, resolved);
    for (PathExplanation& explanation : explanations)
        Describe(explanation, record);
    return explanations;
}

void Explainer::Describe(PathExplanation& explanation, const WalkRecord& record) const
{
    const YPath& path = explanation.path;
    explanation.kind = KindOf(path);
    for (YPath above = path; !explanation.start; above = above.GetParent()) {
        if (m_job.roots.contains(above))
            explanation.start = above;
        else if (above == "/")
            break;
    }
    const auto below = std::find_if(m_job.roots.begin(), m_job.roots.end(),
                                    [&path](const YPath& root) { return root.IsChildOf(path, false); });
    if (below != m_job.roots.end())
        explanation.startBelow = *below;
    if (path != "/") {
        explanation.rules = m_job.rules.Explain(path);
        if (!IsIncluded(*explanation.rules))
            explanation.misses = FindNearMisses(m_job.rules, path);
    }
    if (const WalkOutcome* const outcome = record.Find(path)) {
        explanation.outcome = *outcome;
        if (outcome->isMountCut || outcome->isMountEntered)
            explanation.mount = FindMountFacts(path);
        if (explanation.IsStored() && explanation.kind == EntryKind::File)
            explanation.outcome.failure = FailureToRead(path);
        const bool isTaken = outcome->isSelected || outcome->isExcluded;
        if (isTaken && explanation.kind != EntryKind::Directory && explanation.rules &&
            explanation.rules->answer == YSelectionDescriptor::NotSelectedDoRecurse)
            explanation.ownInclude = FindIncludeForAllNames(m_job.rules, path);
    } else {
        FindObstacle(explanation, record);
        if (explanation.kind == EntryKind::Unknown && explanation.obstacle == Obstacle::NoStart) {
            explanation.obstacle = Obstacle::Failure;
            explanation.obstacleAt = path;
            explanation.failure = FailureToExamine(path);
        }
    }
}

// Finds the nearest directory above the path that the walk reached.
void Explainer::FindObstacle(PathExplanation& explanation, const WalkRecord& record) const
{
    explanation.obstacle = Obstacle::NoStart;
    for (YPath below = explanation.path; below != "/";) {
        const YPath above = below.GetParent();
        const WalkOutcome* const outcome = record.Find(above);
        if (outcome == nullptr) {
            below = above;
            continue;
        }
        if (outcome->isEntered) { // its entries were listed
            explanation.obstacle = Obstacle::Missing;
            explanation.obstacleAt = below;
            return;
        }
        explanation.obstacleAt = above;
        auto answer = YSelectionDescriptor::NotSelectedDoRecurse;
        if (above != "/") {
            explanation.obstacleRules = m_job.rules.Explain(above);
            answer = explanation.obstacleRules->answer;
        }
        explanation.obstacle = ObstacleOf(*outcome, answer);
        explanation.failure = outcome->failure;
        if (explanation.obstacle == Obstacle::Mount)
            explanation.mount = FindMountFacts(above);
        return;
    }
}

} // namespace Agent
