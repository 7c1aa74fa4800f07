#include "agent/Cli/Command.h"

#include "agent/Access/Session.h"
#include "agent/Cli/RepositoryArguments.h"

#include <CLI/CLI.hpp>

#include <cstdint>
#include <map>

namespace Agent {

using Repo::FileKind;

namespace {

const std::map<std::string, FileKind> FilesOf = {{"snapshots", FileKind::Snapshot},
                                                 {"packs", FileKind::Pack},
                                                 {"index", FileKind::Index},
                                                 {"keys", FileKind::Key},
                                                 {"locks", FileKind::Lock}};

class ListCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void Print(Report& report, const std::string& type, const Repo::Id& id) const;

    RepositoryArguments m_repository;
    std::string m_kind;
};

CLI::App* ListCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("list", "List the IDs of the objects of a repository");
    m_repository.AddTo(*command);
    command->add_option("KIND", m_kind, "snapshots, packs, index, keys, locks or blobs")
        ->required()
        ->check(CLI::IsMember({"snapshots", "packs", "index", "keys", "locks", "blobs"}));
    command->footer("A blob is listed with its type, once for each pack that has it according to the index.\n"
                    "'snapshots' describes snapshots, and 'ls' lists their entries.\n\n" +
                    std::string(RepositoryHelp) + "Example: kbagent list --repo /backup/repository packs");
    return command;
}

void ListCommand::Run(Report& report)
{
    RepositoryOptions options = m_repository.Get();
    options.isUnlocked |= m_kind == "locks"; // its own is not listed
    Session session(options, report);
    if (const auto files = FilesOf.find(m_kind); files != FilesOf.end()) {
        for (const Repo::Id& id : session.GetRepository().ListIds(files->second))
            Print(report, "", id);
        return;
    }
    session.LoadIndex();
    const Repo::Index& index = session.GetRepository().GetIndex();
    for (std::uint32_t i = 0; i < index.CountBlobs(); ++i) {
        const Repo::BlobHandle blob = index.At(i).blob.handle;
        Print(report, blob.type == Repo::BlobType::Tree ? "tree" : "data", blob.id);
    }
}

void ListCommand::Print(Report& report, const std::string& type, const Repo::Id& id) const
{
    if (m_repository.IsJson())
        report.Out() << (type.empty() ? "{" : R"({"type":")" + type + R"(",)") << R"("id":")" << id.ToHex()
                     << "\"}\n";
    else
        report.Out() << (type.empty() ? "" : type + " ") << id.ToHex() << "\n";
}

} // namespace

std::unique_ptr<ICommand> MakeListCommand()
{
    return std::make_unique<ListCommand>();
}

} // namespace Agent
