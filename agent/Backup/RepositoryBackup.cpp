#include "agent/Backup/RepositoryBackup.h"

#include "agent/Access/Session.h"
#include "agent/Access/SnapshotChoice.h"
#include "agent/Access/Unix/Process.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"
#include "agent/Walk/Roots.h"

#include "Krt/Environment/Host.h"
#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <set>

namespace Agent {

using Krt::YString;
using Repo::Id;
using Repo::Snapshot;
using Repo::StoredSnapshot;
using Repo::Timestamp;
using std::chrono::steady_clock;

namespace {

double SecondsSince(steady_clock::time_point begin)
{
    return std::chrono::duration<double>(steady_clock::now() - begin).count();
}

std::set<std::string> AsSet(const std::vector<std::string>& texts)
{
    return {texts.begin(), texts.end()};
}

class RepositoryBackup
{
public:
    RepositoryBackup(const BackupSettings& settings, Report& report, const BackupProgress& onProgress)
        : m_settings(settings), m_report(report), m_onProgress(onProgress)
    {}

    BackupOutcome Run();

private:
    void LoadRules();
    void BeginSnapshot();
    void ChooseParent(Session& session);
    void Store(Session& session);
    void SaveSnapshot(Session& session);
    Repo::SnapshotSummary Summarize() const;
    void SkipRepository(Walker& walker) const;

    const BackupSettings& m_settings;
    Report& m_report;
    const BackupProgress& m_onProgress;
    const steady_clock::time_point m_begin = steady_clock::now();
    Job m_job;
    Snapshot m_snapshot;
    std::optional<StoredSnapshot> m_parent;
    BackupOutcome m_outcome;
};

BackupOutcome RepositoryBackup::Run()
{
    m_outcome.begin = Timestamp::Now();
    Krt::Environment::RaiseDescriptorLimit(); // files wait open to be read
    LoadRules();
    Session session(m_settings.repository, m_report, m_settings.isDryRun ? Access::Read : Access::Append);
    BeginSnapshot();
    if (!m_settings.isForced)
        ChooseParent(session);
    session.LoadIndex();
    Store(session);
    m_outcome.end = Timestamp::Now();
    const bool isUnchanged = m_parent && m_parent->snapshot.tree == m_snapshot.tree;
    if (!m_settings.isDryRun && !(m_settings.skipsIfUnchanged && isUnchanged))
        SaveSnapshot(session);
    m_outcome.seconds = SecondsSince(m_begin);
    m_outcome.failed = m_report.GetFailed();
    return m_outcome;
}

void RepositoryBackup::LoadRules()
{
    m_job = LoadJob(m_settings.jobFile, m_settings.paths,
                    [this](const std::string& path, const Krt::Exception::YError& error) {
                        m_report.EntryFailed(YString(std::string_view(path)), ReasonOf(error));
                    });
    for (const YString& warning : m_job.warnings)
        m_report.Note(warning);
    KRT_RAISE_UNLESS(!m_job.roots.empty(), Krt::ErrorCode::InvalidArgument,
                     "None of the paths can be stored, so no snapshot was created");
}

void RepositoryBackup::BeginSnapshot()
{
    const ProcessIdentity identity = CurrentProcess();
    m_snapshot.time = m_settings.time.value_or(m_outcome.begin);
    m_snapshot.paths = m_job.paths;
    m_snapshot.hostname = m_settings.host.empty() ? Krt::Environment::GetHostName().Bytes() : m_settings.host;
    m_snapshot.username = identity.userName;
    m_snapshot.uid = identity.uid;
    m_snapshot.gid = identity.gid;
    m_snapshot.excludes = m_job.ruleTexts;
    m_snapshot.tags = m_settings.tags;
    m_snapshot.programVersion = "kbagent " KBAGENT_VERSION;
}

// The newest snapshot of the same host and the same paths, or the one that the user named.
void RepositoryBackup::ChooseParent(Session& session)
{
    const Repo::Repository& repository = session.GetRepository();
    Repo::SnapshotFilter filter;
    filter.hosts = {m_snapshot.hostname};
    filter.paths = m_snapshot.paths;
    if (!m_settings.parent.empty()) {
        m_parent = repository.FindSnapshot(m_settings.parent, filter);
    } else {
        const auto ignore = [this](const Repo::FileName& file, const Repo::RepositoryError& error) {
            m_report.Note("Warning: " + YString(file.Path()) + ": " + ReasonOf(error));
        };
        const std::set<std::string> paths = AsSet(m_snapshot.paths);
        for (StoredSnapshot& stored : repository.LoadSnapshots(filter, ignore)) {
            if (stored.snapshot.time <= m_snapshot.time && AsSet(stored.snapshot.paths) == paths)
                m_parent = std::move(stored);
        }
    }
    if (m_parent) {
        m_snapshot.parent = m_outcome.parent = m_parent->id;
        if (m_settings.repository.isVerbose)
            m_report.Note(YString("using parent snapshot " + ShortId(m_parent->id)));
    }
}

// The repository itself must not be part of the backup, since it grows with it.
void RepositoryBackup::SkipRepository(Walker& walker) const
{
    std::string path = FindLocation(m_settings.repository);
    if (path.starts_with("local:"))
        path.erase(0, path.find(':') + 1);
    walker.Skip(Krt::File::YDirectory::OpenFollowing(Krt::File::YPath(YString(path))).Stat());
}

void RepositoryBackup::Store(Session& session)
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
    options.onTick = [&] {
        if (running != nullptr)
            m_onProgress(running->GetProgress(), m_report.GetFailed());
    };
    SnapshotRun run(session.GetRepository(), saver, m_report, options);
    running = &run;
    Walker walker(m_job.rules, m_job.roots, run);
    SkipRepository(walker);
    walker.Run();
    const std::optional<Id> tree = run.Finish();
    KRT_RAISE_UNLESS(tree, Krt::ErrorCode::InvalidArgument,
                     "Nothing was selected that could be stored, so no snapshot was created");
    m_snapshot.tree = *tree;
    if (!m_settings.isDryRun)
        saver.Finish();
    m_outcome.counts = run.GetCounts();
}

void RepositoryBackup::SaveSnapshot(Session& session)
{
    RaiseIfInterrupted();
    m_snapshot.summary = Summarize();
    m_outcome.id = session.GetRepository().SaveText(Repo::FileKind::Snapshot, m_snapshot.ToJson());
}

Repo::SnapshotSummary RepositoryBackup::Summarize() const
{
    const SnapshotCounts& counts = m_outcome.counts;
    Repo::SnapshotSummary summary;
    summary.backupStart = m_outcome.begin;
    summary.backupEnd = m_outcome.end;
    summary.filesNew = counts.filesNew;
    summary.filesChanged = counts.filesChanged;
    summary.filesUnmodified = counts.filesUnmodified;
    summary.dirsNew = counts.dirsNew;
    summary.dirsChanged = counts.dirsChanged;
    summary.dirsUnmodified = counts.dirsUnmodified;
    summary.dataBlobs = counts.data.blobs;
    summary.treeBlobs = counts.trees.blobs;
    summary.dataAdded = counts.data.bytes + counts.trees.bytes;
    summary.dataAddedPacked = counts.data.stored + counts.trees.stored;
    summary.totalFilesProcessed = counts.Files();
    summary.totalBytesProcessed = counts.bytes;
    return summary;
}

// "1:02:03" or "0:12".
std::string DurationText(double seconds)
{
    const auto whole = static_cast<unsigned long long>(seconds);
    char text[64];
    if (whole >= 3600)
        std::snprintf(text, sizeof text, "%llu:%02llu:%02llu", whole / 3600, whole / 60 % 60, whole % 60);
    else
        std::snprintf(text, sizeof text, "%llu:%02llu", whole / 60, whole % 60);
    return text;
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

void AddNumber(std::string& json, const char* key, std::uint64_t number)
{
    json += (json.ends_with('{') ? "\"" : ",\"") + std::string(key) + "\":" + std::to_string(number);
}

std::string Fraction(double number)
{
    char text[64];
    std::snprintf(text, sizeof text, "%.3f", number);
    return text;
}

} // namespace

BackupOutcome BackUp(const BackupSettings& settings, Report& report, const BackupProgress& onProgress)
{
    return RepositoryBackup(settings, report, onProgress).Run();
}

std::string SummaryText(const BackupSettings& settings, const BackupOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    const auto rate =
        static_cast<unsigned long long>(static_cast<double>(counts.bytes) / std::max(outcome.seconds, 0.001));
    std::string text =
        outcome.parent ? "parent snapshot " + ShortId(*outcome.parent) + "\n" : "no parent snapshot\n";
    text += ChangeLine("Files:", counts.filesNew, counts.filesChanged, counts.filesUnmodified);
    text += ChangeLine("Dirs:", counts.dirsNew, counts.dirsChanged, counts.dirsUnmodified);
    text += "Others: " + std::to_string(counts.others) + " links, devices and pipes, " +
            std::to_string(counts.sockets) + " sockets not stored, " + std::to_string(counts.excluded) +
            " excluded, " + std::to_string(outcome.failed) + " failed\n";
    text += settings.isDryRun ? "Would be added to the repository: " : "Added to the repository: ";
    text += ShortSize(counts.data.bytes + counts.trees.bytes);
    if (!settings.isDryRun)
        text += " (" + ShortSize(counts.data.stored + counts.trees.stored) + " stored)";
    text += "\nprocessed " + std::to_string(counts.Files()) + " files, " + ShortSize(counts.bytes) + " in " +
            DurationText(outcome.seconds) + ", " + ShortSize(rate) + "/s\n";
    if (outcome.id)
        text += "snapshot " + ShortId(*outcome.id) + " saved\n";
    else if (!settings.isDryRun)
        text += "skipped creating snapshot\n";
    return text;
}

std::string SummaryJson(const BackupSettings& settings, const BackupOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    std::string json = R"({"message_type":"summary")";
    if (settings.isDryRun)
        json += R"(,"dry_run":true)";
    AddNumber(json, "files_new", counts.filesNew);
    AddNumber(json, "files_changed", counts.filesChanged);
    AddNumber(json, "files_unmodified", counts.filesUnmodified);
    AddNumber(json, "dirs_new", counts.dirsNew);
    AddNumber(json, "dirs_changed", counts.dirsChanged);
    AddNumber(json, "dirs_unmodified", counts.dirsUnmodified);
    AddNumber(json, "data_blobs", counts.data.blobs);
    AddNumber(json, "tree_blobs", counts.trees.blobs);
    AddNumber(json, "data_added", counts.data.bytes + counts.trees.bytes);
    AddNumber(json, "data_added_packed", counts.data.stored + counts.trees.stored);
    AddNumber(json, "total_files_processed", counts.Files());
    AddNumber(json, "total_bytes_processed", counts.bytes);
    json += ",\"total_duration\":" + Fraction(outcome.seconds);
    json += ",\"backup_start\":\"" + outcome.begin.ToText() + "\"";
    json += ",\"backup_end\":\"" + outcome.end.ToText() + "\"";
    if (outcome.id)
        json += ",\"snapshot_id\":\"" + outcome.id->ToHex() + "\"";
    return json + "}";
}

std::string StatusJson(const SnapshotCounts& counts, std::uint64_t failed, double seconds)
{
    std::string json = R"({"message_type":"status")";
    AddNumber(json, "seconds_elapsed", static_cast<std::uint64_t>(seconds));
    json += R"(,"percent_done":0)"; // the total is not known
    AddNumber(json, "files_done", counts.Files());
    AddNumber(json, "bytes_done", counts.bytes);
    AddNumber(json, "error_count", failed);
    return json + "}";
}

} // namespace Agent
