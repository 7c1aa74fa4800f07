#include "agent/Cli/Command.h"

#include "agent/Cli/RepositoryArguments.h"
#include "agent/Dump/DumpRun.h"
#include "agent/Run/Output.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

namespace Agent {

using Krt::YString;
using Repo::NodeType;

namespace {

class DumpCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RepositoryArguments m_repository;
    CLI::Option* m_snapshot = nullptr;
    CLI::Option* m_path = nullptr;
    std::string m_format = "tar";
    std::string m_target;
};

CLI::App* DumpCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("dump", "Write a file of a snapshot, or a directory as an archive");
    m_repository.AddTo(*command);
    m_repository.AddSnapshotOptionsTo(*command);
    command->add_option("-a,--archive", m_format, "The format of the archive: tar or zip")
        ->type_name("FORMAT")
        ->check(CLI::IsMember({"tar", "zip"}));
    command->add_option("-t,--target", m_target, "Write to this file instead of standard output")
        ->type_name("FILE");
    m_snapshot = AddPathArgument(*command, "SNAPSHOT",
                                 "The snapshot, by first digits of its ID or as latest; or "
                                 "SNAPSHOT:DIRECTORY");
    m_snapshot->required();
    m_path = AddPathArgument(*command, "PATH",
                             "The path of an entry of the snapshot, or below the directory; / is all of it");
    m_path->required();
    command->footer(
        "A tar archive has the entries below the directory with their owners, times, access lists and\n"
        "extended attributes, and hard links; tar --acls --xattrs restores all of them. A zip archive has\n"
        "none of them, and no devices and FIFOs. A file of an archive whose content is damaged is filled\n"
        "with zeros, and the exit code is 3. A file that is dumped alone ends before the damage, and the\n"
        "exit code is 1. The file of --target gets its name, and replaces one that exists, only when the\n"
        "dump is complete.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent dump --repo /backup/repository latest /etc | tar -t");
    return command;
}

void DumpCommand::Run(Report& report)
{
    const std::string source = PathsOf(m_snapshot).front();
    const std::size_t colon = source.find(':');
    const std::string folder = colon == std::string::npos ? "" : source.substr(colon + 1);
    Session session(m_repository.Get(), report, Access::Read, OldFormat::Refused, Settling::Later);
    const Repo::StoredSnapshot stored =
        ChooseSnapshot(session, source.substr(0, colon), m_repository.GetSnapshotOptions());
    session.LoadIndex();
    const FoundEntry top = FindEntry(session.GetRepository(), stored.snapshot.tree, folder);
    KRT_RAISE_UNLESS(top.node.subtree, Krt::ErrorCode::InvalidArgument,
                     "Not a directory: " << YString(std::string_view(top.path)));
    const FoundEntry found = FindEntry(session.GetRepository(), *top.node.subtree, PathsOf(m_path).front());
    const bool isDirectory = found.node.type == NodeType::Directory;
    KRT_RAISE_UNLESS(isDirectory || found.node.type == NodeType::File, Krt::ErrorCode::InvalidArgument,
                     "Neither a file nor a directory: " << YString(std::string_view(found.path)));
    if (isDirectory && m_target.empty() && OutputWidth() != 0)
        throw UsageError("An archive is not written to a terminal. Redirect the output, or use --target");
    DumpTarget target(m_target, report);
    DumpRun run(session.GetRepository(), target, report);
    if (isDirectory)
        run.WriteDirectory(found, m_format == "zip" ? ArchiveFormat::Zip : ArchiveFormat::Tar);
    else
        run.WriteFile(found);
}

} // namespace

std::unique_ptr<ICommand> MakeDumpCommand()
{
    return std::make_unique<DumpCommand>();
}

} // namespace Agent
