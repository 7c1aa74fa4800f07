#include "agent/Cli/Command.h"

#include "agent/Access/StaleLocks.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

namespace Agent {

namespace {

class UnlockCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RepositoryArguments m_repository;
    bool m_removesAll = false;
};

CLI::App* UnlockCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("unlock", "Remove the locks of processes that have died");
    m_repository.AddTo(*command, LockOptions::None);
    command->add_flag("--remove-all", m_removesAll, "Remove all locks, also those of running processes");
    command->footer(
        "A lock is removed if it was not refreshed for 30 minutes, or if its process ran on this\n"
        "host and has died.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent unlock --repo /backup/repository");
    return command;
}

void UnlockCommand::Run(Report& report)
{
    RepositoryOptions options = m_repository.Get();
    options.isUnlocked = true;
    Session session(options, report);
    const Repo::Repository& repository = session.GetRepository();
    const std::size_t count =
        m_removesAll ? RemoveAllLocks(repository)
                     : RemoveStaleLocks(repository, [&report](const Repo::FileName& file,
                                                              const Repo::RepositoryError& error) {
                           ReportFailure(report, file, error);
                       });
    constexpr const char* Done = "The repository was unlocked";
    if (options.isJson)
        report.Summary(Done, R"({"message_type":"summary","removed_locks":)" + std::to_string(count) + "}\n");
    else if (!options.isQuiet)
        report.Summary(Done, "removed " + CountText(count, "lock", "locks") + "\n");
}

} // namespace

std::unique_ptr<ICommand> MakeUnlockCommand()
{
    return std::make_unique<UnlockCommand>();
}

} // namespace Agent
