#include "agent/Import/RepositoryImport.h"

#include "agent/Access/Session.h"
#include "agent/Backup/NewSnapshotText.h"
#include "agent/Convert/Convert.h"
#include "agent/Import/ImportRun.h"
#include "agent/Run/Interrupt.h"

#include "Krt/Environment/Host.h"
#include "Krt/Exception/Raise.h"

namespace Agent {

SnapshotOutcome ImportRecords(const ImportSettings& settings, Report& report, ISnapshotObserver& observer)
{
    SnapshotOutcome outcome;
    Krt::Environment::RaiseDescriptorLimit(); // all directories on the path to a content are kept open
    ContentFolder contents(Krt::File::YDirectory::OpenFollowing(Krt::File::YPath(settings.contents.c_str())));
    Session session(settings.repository, report, settings.isDryRun ? Access::DryRun : Access::Append);
    // Now, since the password may be the first line of standard input.
    ConvertedRecords records(settings.file, settings.base, report);
    session.LoadIndex();
    session.FindLostPacks();

    Repo::SaveOptions save = settings.save;
    save.onWait = [] {
        RaiseIfInterrupted();
    };
    Repo::BlobSaver saver(session.GetRepository(), save);
    const ImportRun* running = nullptr;
    SnapshotBuildOptions options;
    options.isDryRun = settings.isDryRun;
    options.readers = settings.readers;
    options.onTick = [&] {
        if (running != nullptr)
            observer.OnProgress({running->GetProgress(), ScanTotals(), report.GetFailed(),
                                 SecondsSince(outcome.start), running->GetReading()});
    };
    if (settings.reportsStored) {
        options.onStored = [&observer](const StoredItem& item) {
            observer.OnStored(item);
        };
    }
    ImportRun run(session.GetRepository(), saver, report, std::move(contents), options);
    running = &run;
    while (const auto metadata = records.Next())
        run.Import(*metadata, records.GetLine());
    const std::optional<Repo::Id> tree = run.Finish();
    KRT_RAISE_UNLESS(tree, Krt::ErrorCode::InvalidArgument,
                     "No record was imported, so no snapshot was created");
    if (!settings.isDryRun)
        saver.Finish();
    outcome.counts = run.GetCounts();

    Repo::Snapshot snapshot = MakeSnapshot(settings, outcome);
    snapshot.tree = *tree;
    snapshot.paths = run.GetTops();
    FinishSnapshot(session.GetRepository(), std::move(snapshot), !settings.isDryRun, outcome);
    outcome.failed = report.GetFailed();
    outcome.repositoryFailures = report.GetRepositoryFailures();
    return outcome;
}

std::string SummaryText(const ImportSettings& settings, const SnapshotOutcome& outcome)
{
    const SnapshotCounts& counts = outcome.counts;
    return std::to_string(counts.Files()) + " files, " + std::to_string(counts.Directories()) +
           " directories, " + std::to_string(counts.others) + " links and pipes imported, " +
           std::to_string(outcome.failed) + " failed\n" + AddedText(settings, outcome);
}

} // namespace Agent
