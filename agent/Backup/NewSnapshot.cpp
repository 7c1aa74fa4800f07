#include "agent/Backup/NewSnapshot.h"

#include "agent/Access/Unix/Process.h"
#include "agent/Run/Interrupt.h"

#include "Krt/Environment/Host.h"

namespace Agent {

using Repo::Timestamp;

namespace {

Repo::SnapshotSummary Summarize(const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    Repo::SnapshotSummary summary;
    summary.backupStart = outcome.begin;
    summary.backupEnd = outcome.end;
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

} // namespace

Repo::Snapshot MakeSnapshot(const SnapshotSettings& settings, const SnapshotOutcome& outcome)
{
    const ProcessIdentity identity = CurrentProcess();
    Repo::Snapshot snapshot;
    snapshot.time = settings.time.value_or(outcome.begin);
    snapshot.hostname = settings.host.empty() ? Krt::Environment::GetHostName().Bytes() : settings.host;
    snapshot.username = identity.userName;
    snapshot.uid = identity.uid;
    snapshot.gid = identity.gid;
    snapshot.tags = settings.tags;
    snapshot.programVersion = "kbagent " KBAGENT_VERSION;
    return snapshot;
}

void FinishSnapshot(Repo::Repository& repository, Repo::Snapshot snapshot, bool isSaved,
                    SnapshotOutcome& outcome)
{
    RaiseIfInterrupted();
    outcome.end = Timestamp::Now();
    snapshot.summary = Summarize(outcome);
    if (isSaved)
        outcome.id = repository.SaveText(Repo::FileKind::Snapshot, snapshot.ToJson());
    outcome.seconds = SecondsSince(outcome.start);
}

} // namespace Agent
