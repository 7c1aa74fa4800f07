#include "agent/Cli/Command.h"

#include "agent/Cli/NodeText.h"
#include "agent/Cli/PatternArguments.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Repository/BlobSaver.h"
#include "agent/Rewrite/SnapshotReplacement.h"
#include "agent/Rewrite/TreeFilter.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace Agent {

using Krt::YString;
using Repo::Id;
using Repo::StoredSnapshot;

namespace {

class RewriteCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    std::optional<Repo::Snapshot> Filter(const StoredSnapshot& stored, const Patterns& excludes,
                                         Session& session, Repo::BlobSaver& saver,
                                         const std::function<void()>& onStep) const;
    void Save(const StoredSnapshot& stored, const Repo::Snapshot& changed, const StoredSnapshot* before,
              Session& session, Repo::BlobSaver& saver) const;

    RepositoryArguments m_repository;
    CLI::Option* m_ids = nullptr;
    PatternArguments m_excludes;
    bool m_forgets = false;
    bool m_isDryRun = false;
};

CLI::App* RewriteCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("rewrite", "Leave entries out of existing snapshots");
    m_repository.AddTo(*command, LockOptions::Required);
    m_repository.AddSnapshotOptionsTo(*command);
    m_excludes.AddTo(*command, 'e', "exclude", "Leave out entries that match a pattern, and all below them");
    command->add_flag("--forget", m_forgets, "Remove the snapshots that are replaced");
    command->add_flag("-n,--dry-run", m_isDryRun, "Write nothing, and print what would be done");
    m_ids = AddPathArguments(*command, "Rewrite only these snapshots: first digits of IDs, or latest", "ID");
    command->footer(
        "A snapshot that has a matching entry is saved without it, as another snapshot with the tag\n"
        "rewrite, or without that tag if the old one is removed. Contents remain in the repository until\n"
        "nothing refers to them and they are pruned. A snapshot of which nothing would be left stays as\n"
        "it is, which is a failure. Patterns are those of restic, as in restore.\n\n" +
        std::string(RepositoryHelp) +
        "Example: kbagent rewrite --repo /backup/repository --exclude /home/anna/secret --forget");
    return command;
}

void RewriteCommand::Run(Report& report)
{
    const Patterns excludes = m_excludes.Get();
    if (excludes.IsEmpty())
        throw UsageError("Name what is to be left out, with --exclude and a pattern");
    const RepositoryOptions options = m_repository.Get();
    Session session(options, report,
                    m_isDryRun  ? Access::DryRun
                    : m_forgets ? Access::Exclusive
                                : Access::Append);
    const std::vector<StoredSnapshot> snapshots =
        ChooseSnapshots(session, PathsOf(m_ids), m_repository.GetSnapshotOptions());
    session.LoadIndex();
    Repo::SaveOptions save;
    save.onWait = [] {
        RaiseIfInterrupted();
    };
    Repo::BlobSaver saver(session.GetRepository(), save);
    const std::vector<StoredSnapshot> existing =
        session.GetRepository().LoadSnapshots({}, [](const Repo::FileName&, const Repo::RepositoryError&) {});
    std::size_t count = 0;
    if (!m_isDryRun)
        report.GoOnWithoutOutput();
    std::uint64_t done = 0;
    const auto onStep = [&] {
        report.Progress([&] { return ProgressFacts{done, snapshots.size(), "snapshots"}; });
    };
    for (const StoredSnapshot& stored : snapshots) {
        if (!options.isJson && !options.isQuiet)
            report.Out() << Printable(DescribeSnapshot(stored)) << "\n";
        report.Out().Flush(); // before errors
        const std::optional<Repo::Snapshot> changed = Filter(stored, excludes, session, saver, onStep);
        ++done;
        if (!changed)
            continue;
        const StoredSnapshot* const before = FindRewritten(existing, stored.id, *changed);
        if (before != nullptr && !options.isJson && !options.isQuiet)
            report.Out() << "it was rewritten before, as snapshot " << ShortId(before->id) << "\n";
        if (before != nullptr && !m_forgets)
            continue;
        ++count;
        if (!m_isDryRun)
            Save(stored, *changed, before, session, saver);
        else if (!options.isJson && !options.isQuiet)
            report.Out() << (before != nullptr ? "would remove this one\n"
                             : m_forgets       ? "would save a new snapshot and remove this one\n"
                                               : "would save a new snapshot\n");
    }
    if (options.isJson)
        report.PrintAndLog(ChangeCountJson(count) + "\n");
    else if (!options.isQuiet && count == 0)
        report.PrintAndLog("no snapshots were modified\n");
    else if (!options.isQuiet)
        report.PrintAndLog((m_isDryRun ? "would modify " : "modified ") +
                           CountText(count, "snapshot", "snapshots") + "\n");
}

// Returns nothing if no entry matches, or if the snapshot can't be read, which is reported.
std::optional<Repo::Snapshot> RewriteCommand::Filter(const StoredSnapshot& stored, const Patterns& excludes,
                                                     Session& session, Repo::BlobSaver& saver,
                                                     const std::function<void()>& onStep) const
{
    Report& report = session.GetReport();
    const bool prints = !session.GetOptions().isJson && !session.GetOptions().isQuiet;
    bool isSaving = false;
    std::string excluded; // printed if the snapshot is not kept as it is
    TreeFilter filter(session.GetRepository(), excludes, onStep);
    try {
        Repo::Snapshot changed = stored.snapshot;
        changed.tree = filter.Apply(
            stored.snapshot.tree,
            [&](std::string_view text) {
                isSaving = true;
                if (!m_isDryRun)
                    saver.SaveTree(text);
                isSaving = false;
            },
            [&](const std::string& path) {
                if (prints)
                    excluded += "excluding " + Printable(path) + "\n";
            });
        if (changed.tree == stored.snapshot.tree)
            return std::nullopt;
        KRT_RAISE_UNLESS(filter.GetEntries() != 0, Krt::ErrorCode::InvalidArgument,
                         "The patterns leave nothing of the snapshot, so it stays as it is; 'kbagent forget' "
                         "removes it");
        report.Out() << excluded;
        changed.original = stored.id;
        if (changed.summary) {
            changed.summary->totalFilesProcessed = filter.GetFiles();
            changed.summary->totalBytesProcessed = filter.GetBytes();
        }
        const bool isTagged =
            std::find(changed.tags.begin(), changed.tags.end(), RewriteTag) != changed.tags.end();
        if (!m_forgets && !isTagged)
            changed.tags.push_back(RewriteTag);
        return changed;
    } catch (const Krt::Exception::YError& error) {
        RaiseIfInterrupted();
        if (isSaving)
            throw;
        report.EntryFailed(YString("snapshot " + ShortId(stored.id)), ReasonOf(error));
        return std::nullopt;
    }
}

// Saves a snapshot that replaces the stored one, unless the one that was saved `before` does.
void RewriteCommand::Save(const StoredSnapshot& stored, const Repo::Snapshot& changed,
                          const StoredSnapshot* before, Session& session, Repo::BlobSaver& saver) const
{
    const RepositoryOptions& options = session.GetOptions();
    Report& report = session.GetReport();
    std::optional<Repo::RepositoryError> left;
    const Id id = ReplaceSnapshot(
        session.GetRepository(), saver, stored.id, changed,
        before != nullptr ? std::optional(before->id) : std::nullopt, m_forgets,
        [&left](const Repo::FileName&, const Repo::RepositoryError& error) { left.emplace(error); });
    const bool isRemoved = m_forgets && !left;
    if (options.isJson)
        report.Out() << ChangeJson(stored.id, id) << "\n";
    else if (!options.isQuiet)
        report.Out() << (before == nullptr ? "saved new snapshot " + ShortId(id) + "\n" : "")
                     << (isRemoved ? "removed old snapshot " + ShortId(stored.id) + "\n" : "");
    report.Out().Flush(); // before errors
    if (left)
        ReportLeft(report, stored.id, id, *left);
}

} // namespace

std::unique_ptr<ICommand> MakeRewriteCommand()
{
    return std::make_unique<RewriteCommand>();
}

} // namespace Agent
