#include "agent/Cli/Command.h"

#include "agent/Cli/NodeText.h"
#include "agent/Cli/PatternArguments.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Repository/BlobSaver.h"
#include "agent/Rewrite/TreeFilter.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace Agent {

using Krt::YString;
using Repo::Id;
using Repo::StoredSnapshot;

namespace {

constexpr const char* RewriteTag = "rewrite";

class RewriteCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    std::optional<Repo::Snapshot> Filter(const StoredSnapshot& stored, const Patterns& excludes,
                                         Session& session, Repo::BlobSaver& saver) const;
    void Save(const StoredSnapshot& stored, const Repo::Snapshot& changed, Session& session,
              Repo::BlobSaver& saver) const;

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
        "nothing refers to them and they are pruned. Patterns are those of restic, as in restore.\n\n" +
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
    std::size_t count = 0;
    for (const StoredSnapshot& stored : snapshots) {
        if (!options.isJson && !options.isQuiet)
            report.Out() << Printable(DescribeSnapshot(stored)) << "\n";
        const std::optional<Repo::Snapshot> changed = Filter(stored, excludes, session, saver);
        if (!changed)
            continue;
        ++count;
        if (!m_isDryRun)
            Save(stored, *changed, session, saver);
        else if (!options.isJson && !options.isQuiet)
            report.Out() << (m_forgets ? "would save a new snapshot and remove this one\n"
                                       : "would save a new snapshot\n");
    }
    if (options.isJson)
        report.Out() << ChangeCountJson(count) << "\n";
    else if (!options.isQuiet)
        report.Out() << (m_isDryRun ? "would modify " : "modified ") << count << " snapshots\n";
}

// Returns nothing if no entry matches, or if the snapshot can't be read, which is reported.
std::optional<Repo::Snapshot> RewriteCommand::Filter(const StoredSnapshot& stored, const Patterns& excludes,
                                                     Session& session, Repo::BlobSaver& saver) const
{
    Report& report = session.GetReport();
    const bool prints = !session.GetOptions().isJson && !session.GetOptions().isQuiet;
    bool isSaving = false;
    TreeFilter filter(session.GetRepository(), excludes);
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
                    report.Out() << "excluding " << Printable(path) << "\n";
            });
        if (changed.tree == stored.snapshot.tree)
            return std::nullopt;
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

void RewriteCommand::Save(const StoredSnapshot& stored, const Repo::Snapshot& changed, Session& session,
                          Repo::BlobSaver& saver) const
{
    const Repo::Repository& repository = session.GetRepository();
    const RepositoryOptions& options = session.GetOptions();
    saver.Finish();
    const Id id = repository.SaveText(Repo::FileKind::Snapshot, changed.ToJson());
    if (m_forgets)
        repository.GetBackend().Remove({Repo::FileKind::Snapshot, stored.id});
    if (options.isJson)
        session.GetReport().Out() << ChangeJson(stored.id, id) << "\n";
    else if (!options.isQuiet)
        session.GetReport().Out() << "saved new snapshot " << ShortId(id) << "\n"
                                  << (m_forgets ? "removed old snapshot " + ShortId(stored.id) + "\n" : "");
}

} // namespace

std::unique_ptr<ICommand> MakeRewriteCommand()
{
    return std::make_unique<RewriteCommand>();
}

} // namespace Agent
