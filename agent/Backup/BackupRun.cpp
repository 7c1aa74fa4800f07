#include "agent/Backup/BackupRun.h"

#include "agent/Access/Session.h"
#include "agent/Access/SnapshotChoice.h"
#include "agent/Access/TreeWalk.h"
#include "agent/Backup/NewSnapshotText.h"
#include "agent/Backup/SnapshotRun.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"
#include "agent/Walk/Roots.h"

#include "Krt/Environment/Host.h"
#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <cstdio>
#include <set>

namespace Agent {

using Krt::YString;
using Repo::Id;
using Repo::Snapshot;
using Repo::StoredSnapshot;

namespace {

std::set<std::string> AsSet(const std::vector<std::string>& texts)
{
    return {texts.begin(), texts.end()};
}

// Returns false if the tree has none of the paths, as that of a snapshot of relative paths, which restic
// makes. A tree that can't be read may have them.
bool HasAnyOf(const Repo::Repository& repository, const Id& tree, const std::vector<std::string>& paths)
{
    return std::any_of(paths.begin(), paths.end(), [&](const std::string& path) {
        try {
            FindEntry(repository, tree, path);
            return true;
        } catch (const Repo::RepositoryError&) {
            return true;
        } catch (const Krt::Exception::YError& error) {
            if (error.GetCode() != Krt::ErrorCode::InvalidArgument)
                throw;
            return false;
        }
    });
}

class BackupRun
{
public:
    BackupRun(const BackupSettings& settings, Report& report, ISnapshotObserver& observer)
        : m_settings(settings), m_report(report), m_observer(observer)
    {}

    SnapshotOutcome Run();

private:
    void LoadRules();
    void BeginSnapshot();
    std::vector<StoredSnapshot> FindParents(const Repo::Repository& repository) const;
    void ChooseParent(const Repo::Repository& repository, std::vector<StoredSnapshot> candidates);
    void Store(Session& session);
    struct stat SkippedDirectory() const;

    const BackupSettings& m_settings;
    Report& m_report;
    ISnapshotObserver& m_observer;
    Job m_job;
    Snapshot m_snapshot;
    std::optional<StoredSnapshot> m_parent;
    SnapshotOutcome m_outcome;
};

SnapshotOutcome BackupRun::Run()
{
    Krt::Environment::RaiseDescriptorLimit(); // files wait open to be read
    LoadRules();
    Session session(m_settings.repository, m_report, m_settings.isDryRun ? Access::DryRun : Access::Append);
    BeginSnapshot();
    std::vector<StoredSnapshot> candidates;
    if (!m_settings.isForced)
        candidates = FindParents(session.GetRepository());
    session.LoadIndex();
    session.FindLostPacks();
    ChooseParent(session.GetRepository(), std::move(candidates));
    Store(session);
    const bool isUnchanged = m_parent && m_parent->snapshot.tree == m_snapshot.tree;
    const bool isSaved = !m_settings.isDryRun && !(m_settings.skipsIfUnchanged && isUnchanged);
    FinishSnapshot(session.GetRepository(), std::move(m_snapshot), isSaved, m_outcome);
    m_outcome.failed = m_report.GetFailed();
    m_outcome.repositoryFailures = m_report.GetRepositoryFailures();
    return m_outcome;
}

void BackupRun::LoadRules()
{
    m_job = LoadJob(m_settings.jobFile, m_settings.paths,
                    [this](const std::string& path, const Krt::Exception::YError& error) {
                        std::string reason = ReasonOf(error).Bytes();
                        if (const std::size_t at = reason.find(": " + path + ": "); at != std::string::npos)
                            reason.erase(at, path.size() + 2); // it precedes the reason
                        m_report.EntryFailed(YString(std::string_view(path)), YString(reason));
                    });
    for (const YString& warning : m_job.warnings)
        m_report.Note(warning);
    KRT_RAISE_UNLESS(!m_job.roots.empty(), Krt::ErrorCode::InvalidArgument,
                     "None of the paths can be stored, so no snapshot was created");
}

void BackupRun::BeginSnapshot()
{
    m_snapshot = MakeSnapshot(m_settings, m_outcome);
    m_snapshot.paths = m_job.paths;
    m_snapshot.excludes = m_job.ruleTexts;
}

// The snapshots of the same host and the same paths, from the oldest to the newest; or the one that the user
// named.
std::vector<StoredSnapshot> BackupRun::FindParents(const Repo::Repository& repository) const
{
    // Names that are not UTF-8 are not stored as they are.
    const std::vector<std::string> stored = Snapshot::Parse(m_snapshot.ToJson()).paths;
    Repo::SnapshotFilter filter;
    filter.hosts = {m_snapshot.hostname};
    filter.paths = stored;
    if (!m_settings.parent.empty())
        return {repository.FindSnapshot(m_settings.parent, filter)};
    std::vector<StoredSnapshot> candidates = repository.LoadSnapshots(
        filter, [this](const Repo::FileName& file, const Repo::RepositoryError& error) {
            ReportFailure(m_report, file, error);
        });
    std::erase_if(candidates, [&](const StoredSnapshot& each) {
        return each.snapshot.time > m_snapshot.time || AsSet(each.snapshot.paths) != AsSet(stored);
    });
    return candidates;
}

void BackupRun::ChooseParent(const Repo::Repository& repository, std::vector<StoredSnapshot> candidates)
{
    while (m_settings.parent.empty() && !candidates.empty() &&
           !HasAnyOf(repository, candidates.back().snapshot.tree, m_snapshot.paths))
        candidates.pop_back();
    if (candidates.empty())
        return;
    m_parent = std::move(candidates.back());
    m_snapshot.parent = m_outcome.parent = m_parent->id;
    const bool hasText = !m_settings.repository.isJson && !m_settings.repository.isQuiet;
    if (m_settings.repository.isVerbose && !hasText) // otherwise the summary names it
        m_report.Note(YString("using parent snapshot " + ShortId(m_parent->id)));
}

// Returns the status of the repository's directory. It is not backed up, since it grows with the backup.
struct stat BackupRun::SkippedDirectory() const
{
    std::string path = FindLocation(m_settings.repository);
    if (path.starts_with("local:"))
        path.erase(0, path.find(':') + 1);
    return Krt::File::YDirectory::OpenFollowing(Krt::File::YPath(YString(path))).Stat();
}

void BackupRun::Store(Session& session)
{
    Repo::SaveOptions save = m_settings.save;
    save.onWait = [] {
        RaiseIfInterrupted();
    };
    Repo::BlobSaver saver(session.GetRepository(), save);
    const SnapshotRun* running = nullptr;
    SnapshotRunOptions options;
    if (m_parent)
        options.parent = m_parent->snapshot;
    options.ignoresChangeTime = m_settings.ignoresChangeTime;
    options.ignoresInode = m_settings.ignoresInode;
    options.isDryRun = m_settings.isDryRun;
    options.reportsExcluded = m_settings.repository.isVerbose;
    options.readers = m_settings.readers;
    const struct stat skipped = SkippedDirectory();
    std::optional<Scan> scan;
    if (m_settings.scans)
        scan.emplace(m_job, skipped);
    const auto reportProgress = [&] {
        if (running != nullptr)
            m_observer.OnProgress({running->GetProgress(), scan ? scan->Get() : ScanTotals(),
                                   m_report.GetFailed(), SecondsSince(m_outcome.start),
                                   running->GetReading()});
    };
    options.onTick = reportProgress;
    if (m_settings.reportsStored) {
        options.onStored = [this](const StoredItem& item) {
            m_observer.OnStored(item);
        };
    }
    SnapshotRun run(session.GetRepository(), saver, m_report, options);
    running = &run;
    Walker walker(m_job.rules, m_job.roots, run);
    walker.Skip(skipped);
    walker.Run();
    reportProgress();
    const std::optional<Id> tree = run.Finish();
    KRT_RAISE_UNLESS(tree, Krt::ErrorCode::InvalidArgument,
                     "Nothing was selected that could be stored, so no snapshot was created");
    m_snapshot.tree = *tree;
    if (!m_settings.isDryRun)
        saver.Finish();
    m_outcome.counts = run.GetCounts();
}

std::string ChangeLine(const char* title, std::uint64_t isNew, std::uint64_t isChanged,
                       std::uint64_t isUnmodified)
{
    char text[128];
    std::snprintf(text, sizeof text, "%-10s %10llu new, %5llu changed, %5llu unmodified\n", title,
                  static_cast<unsigned long long>(isNew), static_cast<unsigned long long>(isChanged),
                  static_cast<unsigned long long>(isUnmodified));
    return text;
}

} // namespace

SnapshotOutcome BackUp(const BackupSettings& settings, Report& report, ISnapshotObserver& observer)
{
    return BackupRun(settings, report, observer).Run();
}

std::string SummaryText(const BackupSettings& settings, const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    std::string text =
        outcome.parent ? "parent snapshot " + ShortId(*outcome.parent) + "\n" : "no parent snapshot\n";
    text += ChangeLine("Files:", counts.filesNew, counts.filesChanged, counts.filesUnmodified);
    text += ChangeLine("Dirs:", counts.dirsNew, counts.dirsChanged, counts.dirsUnmodified);
    text += "Others: " + std::to_string(counts.others) + " links, devices and pipes, " +
            std::to_string(counts.sockets) + " sockets not stored, " + std::to_string(counts.excluded) +
            " excluded, " + std::to_string(outcome.failed) + " failed\n";
    return text + AddedText(settings, outcome);
}

} // namespace Agent
