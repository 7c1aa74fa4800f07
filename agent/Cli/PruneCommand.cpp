#include "agent/Cli/Command.h"

#include "agent/Cli/PruneArguments.h"
#include "agent/Cli/RepositoryArguments.h"

#include <CLI/CLI.hpp>

namespace Agent {

namespace {

class PruneCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RepositoryArguments m_repository;
    PruneArguments m_arguments;
    bool m_hasNoFreeSpace = false;
    bool m_isDryRun = false;
};

CLI::App* PruneCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("prune", "Remove what no snapshot of a repository needs");
    m_repository.AddTo(*command);
    m_arguments.AddTo(*command);
    command->add_flag("--recover-no-free-space", m_hasNoFreeSpace,
                      "For a full disk: write no lock, repack nothing, and remove what is unused");
    command->add_flag("-n,--dry-run", m_isDryRun, "Only print what would be done");
    command->footer(
        "Packs without anything that a snapshot needs are removed. Of other packs, those with the largest\n"
        "unused share are replaced, until the unused part is within --max-unused. Packs with trees are\n"
        "replaced whenever they have anything unused. If a snapshot or a tree can't be read, nothing is\n"
        "removed. The repository remains whole whenever the command is interrupted, and the next prune\n"
        "continues. With --recover-no-free-space, no other process may use the repository; a run that is\n"
        "interrupted has to be repeated before the next backup.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent prune --repo /backup/repository --max-unused 10%");
    return command;
}

void PruneCommand::Run(Report& report)
{
    PruneOptions options = m_arguments.Get();
    options.hasNoFreeSpace = m_hasNoFreeSpace;
    options.isDryRun = m_isDryRun;
    RepositoryOptions access = m_repository.Get();
    access.mayRecoverSpace = true;
    Session session(access, report,
                    m_hasNoFreeSpace ? Access::Recovery
                    : m_isDryRun     ? Access::DryRun
                                     : Access::Exclusive);
    PruneAndPrint(session, options);
}

} // namespace

std::unique_ptr<ICommand> MakePruneCommand()
{
    return std::make_unique<PruneCommand>();
}

} // namespace Agent
