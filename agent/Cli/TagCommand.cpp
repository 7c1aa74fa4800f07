#include "agent/Cli/Command.h"

#include "agent/Access/TagChange.h"
#include "agent/Cli/NodeText.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace Agent {

using Repo::Id;
using Repo::StoredSnapshot;

namespace {

class TagCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RepositoryArguments m_repository;
    std::vector<std::string> m_set;
    std::vector<std::string> m_add;
    std::vector<std::string> m_remove;
    CLI::Option* m_ids = nullptr;
};

CLI::App* TagCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("tag", "Change the tags of snapshots");
    m_repository.AddTo(*command, LockOptions::Required);
    m_repository.AddSnapshotOptionsTo(*command);
    const auto lists = [command](const char* name, std::vector<std::string>& values, const char* text) {
        command->add_option(name, values, text)->type_name("LIST")->allow_extra_args(false);
    };
    lists("--set", m_set, "Replace all tags by these, as in a,b; \",\" leaves none");
    lists("--add", m_add, "Add tags, as in a,b");
    lists("--remove", m_remove, "Remove tags, as in a,b");
    m_ids = AddPathArguments(*command, "Change only these snapshots: first digits of IDs, or latest", "ID");
    command->footer(
        "Without an ID, all snapshots that --host, --tag and --path choose are changed. A snapshot\n"
        "whose tags change gets another ID, and notes its first one.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent tag --repo /backup/repository --add keep latest");
    return command;
}

void PrintChange(const Id& old, const Id& id, bool isOldLeft, const RepositoryOptions& options,
                 Report& report)
{
    if (options.isJson)
        report.Out() << ChangeJson(old, id) << "\n";
    else if (isOldLeft && !options.isQuiet)
        report.Out() << "saved new snapshot " << ShortId(id) << "\n";
    else if (options.isVerbose)
        report.Out() << "snapshot " << ShortId(old) << " is now " << ShortId(id) << "\n";
}

void TagCommand::Run(Report& report)
{
    const TagChange change(m_set, m_add, m_remove);
    const RepositoryOptions options = m_repository.Get();
    Session session(options, report, Access::Exclusive);
    std::uint64_t count = 0;
    const std::vector<StoredSnapshot> chosen =
        ChooseSnapshots(session, PathsOf(m_ids), m_repository.GetSnapshotOptions());
    const std::vector<StoredSnapshot> existing =
        session.GetRepository().LoadSnapshots({}, [](const Repo::FileName&, const Repo::RepositoryError&) {});
    for (const StoredSnapshot& stored : chosen) {
        std::optional<Repo::RepositoryError> left;
        const std::optional<Id> id = change.Apply(
            session.GetRepository(), stored, existing,
            [&left](const Repo::FileName&, const Repo::RepositoryError& error) { left.emplace(error); });
        if (!id)
            continue;
        const bool isNew = std::none_of(existing.begin(), existing.end(),
                                        [&id](const StoredSnapshot& each) { return each.id == *id; });
        if (isNew || !left) {
            ++count;
            PrintChange(stored.id, *id, left.has_value(), options, report);
        }
        if (left) {
            report.GoOnWithoutOutput();
            report.Out().Flush(); // before the error
            ReportLeft(report, stored.id, *id, *left);
        }
    }
    constexpr const char* Done = "The change of tags was made";
    if (options.isJson)
        report.Summary(Done, ChangeCountJson(count) + "\n");
    else if (!options.isQuiet)
        report.Summary(Done, "modified tags on " + CountText(count, "snapshot", "snapshots") + "\n");
}

} // namespace

std::unique_ptr<ICommand> MakeTagCommand()
{
    return std::make_unique<TagCommand>();
}

} // namespace Agent
