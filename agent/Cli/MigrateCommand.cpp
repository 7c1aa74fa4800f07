#include "agent/Cli/Command.h"

#include "agent/Cli/CheckObserver.h"
#include "agent/Cli/RepositoryArguments.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

namespace Agent {

namespace {

constexpr const char* Upgrade = "upgrade_repo_v2";

class MigrateCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void List(Report& report) const;
    void Apply(Report& report) const;

    RepositoryArguments m_repository;
    std::string m_name;
};

CLI::App* MigrateCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand(
        "migrate", "List the changes of the format that a repository can take, or make one");
    m_repository.AddTo(*command, LockOptions::Required);
    command->add_option("NAME", m_name, "The change to be made: upgrade_repo_v2");
    command->footer(
        "upgrade_repo_v2 changes a repository of version 1 to version 2, so that kbagent writes to it.\n"
        "The repository is checked before. Data that it has is not compressed by that. Versions of\n"
        "restic before 0.14 can't read the repository any more.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent migrate --repo /backup/repository upgrade_repo_v2");
    return command;
}

void MigrateCommand::Run(Report& report)
{
    if (m_name.empty())
        List(report);
    else if (m_name == Upgrade)
        Apply(report);
    else
        throw UsageError("There is no change of the name '" + m_name + "', but " + Upgrade);
}

void MigrateCommand::List(Report& report) const
{
    Session session(m_repository.Get(), report);
    const bool isOld = session.GetRepository().GetConfig().version == 1;
    if (m_repository.IsJson())
        report.Out() << R"({"message_type":"migrations","available":[)"
                     << (isOld ? "\"" + std::string(Upgrade) + "\"" : "") << "]}\n";
    else if (isOld)
        report.Out() << "available migrations:\n  " << Upgrade << "  upgrade a repository to version 2\n";
    else
        report.Out() << "no migrations found\n";
}

void MigrateCommand::Apply(Report& report) const
{
    const RepositoryOptions options = m_repository.Get();
    Session session(options, report, Access::Exclusive, OldFormat::Accepted);
    Repo::Repository& repository = session.GetRepository();
    KRT_RAISE_UNLESS(repository.GetConfig().version == 1, Krt::ErrorCode::InvalidArgument,
                     "The repository already has version 2 of the format");
    CheckObserver observer(report, options);
    const CheckSummary summary = CheckRepository(repository, std::nullopt, observer);
    KRT_RAISE_UNLESS(summary.errors == 0, Krt::ErrorCode::InvalidState,
                     "The repository has errors, so it is not changed: "
                         << static_cast<unsigned long long>(summary.errors));
    repository.UpgradeFormat();
    constexpr const char* Done = "The repository was upgraded";
    const std::string name = Upgrade;
    if (options.isJson)
        report.Summary(Done, R"({"message_type":"summary","migration":")" + name + "\"}\n");
    else if (!options.isQuiet)
        report.Summary(Done, "migration " + name + ": success\n");
}

} // namespace

std::unique_ptr<ICommand> MakeMigrateCommand()
{
    return std::make_unique<MigrateCommand>();
}

} // namespace Agent
