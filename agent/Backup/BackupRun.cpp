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

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <memory>
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

// The handle can be closed.
std::shared_ptr<const Krt::Util::YUnxHandle> OpenStandardInput()
{
    const int descriptor =
        KRT_SYSCALL(fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, STDERR_FILENO + 1), "Can't use standard input");
    return std::make_shared<const Krt::Util::YUnxHandle>(descriptor, true);
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
    void WarnOfMatchingPaths();
    void BeginSnapshot();
    std::vector<StoredSnapshot> FindParents(Session& session) const;
    void ChooseParent(Session& session, std::vector<StoredSnapshot> candidates);
    void Store(Session& session);
    void KeepLargest(const StoredItem& item);
    std::optional<struct stat> SkippedDirectory() const;

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
    Session session(m_settings.repository, m_report, m_settings.isDryRun ? Access::DryRun : Access::Append,
                    OldFormat::Refused, Settling::Later);
    BeginSnapshot();
    std::vector<StoredSnapshot> candidates;
    if (!m_settings.isForced)
        candidates = FindParents(session);
    session.LoadIndex(Settling::Later);
    session.FindLostPacks();
    ChooseParent(session, std::move(candidates));
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
    if (!m_settings.streamPath.empty()) {
        m_job.paths = {m_settings.streamPath};
        return;
    }
    std::vector<std::string> paths = PathsOf(m_settings.lists, [this](const std::string& pattern) {
        m_report.Note(YString("Warning: no path matches " + pattern));
    });
    KRT_RAISE_UNLESS(!paths.empty() || !m_settings.paths.empty() || !m_settings.jobFile.empty(),
                     Krt::ErrorCode::InvalidArgument, "The lists name no path, so no snapshot was created");
    paths.insert(paths.end(), m_settings.paths.begin(), m_settings.paths.end());
    m_job = LoadJob(m_settings.jobFile, paths, [this](const std::string& path, const YString& reason) {
        m_report.EntryFailed(YString(std::string_view(path)), reason);
    });
    for (const YString& warning : m_job.warnings)
        m_report.Note(warning);
    WarnOfMatchingPaths();
    KRT_RAISE_UNLESS(!m_job.roots.empty(), Krt::ErrorCode::InvalidArgument,
                     "None of the paths can be stored, so no snapshot was created");
}

// A named path is never left out, but a pattern that matches it matches everything below it, too.
void BackupRun::WarnOfMatchingPaths()
{
    if (m_settings.filter.patterns.IsEmpty())
        return;
    for (const Krt::File::YPath& path : m_job.named) {
        struct stat status = {};
        if (m_settings.filter.patterns.Match(path.Bytes()).matches && lstat(path.CStr(), &status) == 0 &&
            S_ISDIR(status.st_mode))
            m_report.Note(YString("Warning: ") + path +
                          " matches an exclude pattern, which therefore applies to everything below it");
    }
}

void BackupRun::BeginSnapshot()
{
    m_snapshot = MakeSnapshot(m_settings, m_outcome);
    m_snapshot.paths = m_job.paths;
    m_snapshot.excludes = m_settings.excludes;
    m_snapshot.excludes.insert(m_snapshot.excludes.end(), m_job.ruleTexts.begin(), m_job.ruleTexts.end());
}

// The snapshots of the same host and the same paths, from the oldest to the newest; or the one that the user
// named.
std::vector<StoredSnapshot> BackupRun::FindParents(Session& session) const
{
    const Repo::Repository& repository = session.GetRepository();
    // Names that are not UTF-8 are not stored as they are.
    const std::vector<std::string> stored = Snapshot::Parse(m_snapshot.ToJson()).paths;
    Repo::SnapshotFilter filter;
    filter.hosts = {m_snapshot.hostname};
    filter.paths = stored;
    if (!m_settings.parent.empty())
        return {repository.FindSnapshot(m_settings.parent, filter)};
    std::vector<StoredSnapshot> candidates =
        repository.LoadSnapshots(filter, [&](const Repo::FileName& file, const Repo::RepositoryError& error) {
            session.Settle();
            ReportFailure(m_report, file, error);
        });
    std::erase_if(candidates, [&](const StoredSnapshot& each) {
        return each.snapshot.time > m_snapshot.time || AsSet(each.snapshot.paths) != AsSet(stored);
    });
    return candidates;
}

void BackupRun::ChooseParent(Session& session, std::vector<StoredSnapshot> candidates)
{
    while (m_settings.parent.empty() && !candidates.empty() &&
           !HasAnyOf(session.GetRepository(), candidates.back().snapshot.tree, m_snapshot.paths))
        candidates.pop_back();
    if (candidates.empty())
        return;
    m_parent = std::move(candidates.back());
    m_snapshot.parent = m_outcome.parent = m_parent->id;
    const bool hasText = !m_settings.repository.isJson && !m_settings.repository.isQuiet;
    if (!m_settings.repository.isVerbose || hasText) // the summary names it
        return;
    session.Settle();
    m_report.Note(YString("using parent snapshot " + ShortId(m_parent->id)));
}

// Returns the status of the repository's directory, if it is on this machine. It is not backed up, since it
// grows with the backup.
std::optional<struct stat> BackupRun::SkippedDirectory() const
{
    const std::optional<std::string> path = DirectoryOf(FindLocation(m_settings.repository));
    if (!path)
        return std::nullopt;
    return Krt::File::YDirectory::OpenFollowing(Krt::File::YPath(YString(*path))).Stat();
}

void BackupRun::Store(Session& session)
{
    Repo::SaveOptions save = m_settings.save;
    std::function<void()> whileFinishing = [] {
    };
    save.onWait = [&whileFinishing] {
        RaiseIfInterrupted();
        whileFinishing();
    };
    save.writers = session.TransferCount(save.writers);
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
    options.beforeLoss = [&session] {
        session.Settle();
    };
    const std::optional<struct stat> skipped = SkippedDirectory();
    std::optional<Scan> scan;
    const RepositoryOptions& access = m_settings.repository;
    const bool usesTotals = (access.isJson && !access.isQuiet) || m_report.IsProgressWatched();
    if (m_settings.scans && usesTotals && m_settings.streamPath.empty())
        scan.emplace(m_job, m_settings.filter, skipped);
    const auto reportProgress = [&] {
        if (running != nullptr)
            m_observer.OnProgress({running->GetProgress(), scan ? scan->Get() : ScanTotals(),
                                   m_report.GetFailed(), SecondsSince(m_outcome.start),
                                   running->GetReading()});
    };
    // Later, a lock that excluded this one may be gone again, and packs of the loaded index with it.
    options.onTick = [&] {
        session.SettleIfDue();
        reportProgress();
    };
    if (m_settings.reportsStored || m_settings.isDryRun) {
        options.onStored = [this](const StoredItem& item) {
            if (m_settings.reportsStored)
                m_observer.OnStored(item);
            if (m_settings.isDryRun)
                KeepLargest(item);
        };
    }
    SnapshotRun run(session.GetRepository(), saver, m_report, options);
    running = &run;
    if (m_settings.streamPath.empty()) {
        Walker walker(m_job.rules, m_job.roots, run);
        if (skipped)
            walker.Skip(*skipped);
        walker.Filter(m_settings.filter, m_job.named);
        walker.Run();
    } else {
        run.AddStream(m_settings.streamPath, OpenStandardInput());
    }
    run.RaiseFailure();
    session.Settle();
    reportProgress();
    const std::optional<Id> tree = run.Finish();
    KRT_RAISE_UNLESS(tree, Krt::ErrorCode::InvalidArgument,
                     "Nothing was selected that could be stored, so no snapshot was created");
    m_snapshot.tree = *tree;
    if (!m_settings.isDryRun) {
        whileFinishing = reportProgress; // this thread alone waits from here on
        saver.Finish();
    }
    m_outcome.counts = run.GetCounts();
}

void BackupRun::KeepLargest(const StoredItem& item)
{
    std::vector<StoredItem>& largest = m_outcome.largest;
    const auto at = std::find_if(largest.begin(), largest.end(),
                                 [&item](const StoredItem& each) { return each.dataAdded < item.dataAdded; });
    if (item.dataAdded == 0 || (at == largest.end() && largest.size() == SnapshotOutcome::MostLargest))
        return;
    largest.insert(at, item);
    if (largest.size() > SnapshotOutcome::MostLargest)
        largest.pop_back();
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

std::string LeftOutLine(const char* title, const LeftOut& counts)
{
    if (counts.others == 0 && counts.dirs == 0)
        return "";
    return std::string(title) + CountText(counts.others, "file or other entry", "files and other entries") +
           ", " + ShortSize(counts.bytes) + ", and " +
           CountText(counts.dirs, "directory with all below it", "directories with all below them") + "\n";
}

// What only a dry run finds out.
std::string ForeseenText(const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    std::string text = "Bytes:     " + ShortSize(counts.bytesNew) + " new, " +
                       ShortSize(counts.bytesChanged) + " changed, " + ShortSize(counts.bytesUnmodified) +
                       " unmodified\n";
    text += LeftOutLine("Left out by rules:   ", counts.byRules);
    text += LeftOutLine("Left out by options: ", counts.byOptions);
    for (const StoredItem& item : outcome.largest)
        text += "Largest:   " + ShortSize(item.dataAdded) + " " + Printable(item.path) + "\n";
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
            std::to_string(counts.sockets) + " sockets not stored, " +
            std::to_string(counts.excluded + counts.leftOut) + " excluded, " +
            std::to_string(outcome.failed) + " failed\n";
    return text + (settings.isDryRun ? ForeseenText(outcome) : "") + AddedText(settings, outcome);
}

} // namespace Agent
