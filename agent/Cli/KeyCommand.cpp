#include "agent/Cli/Command.h"

#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/TextTable.h"
#include "agent/Run/Output.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

namespace Agent {

using Repo::FileKind;
using Repo::Id;

namespace {

class KeyCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RepositoryArguments m_repository;
    CLI::App* m_list = nullptr;
};

CLI::App* KeyCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("key", "List the passwords of a repository");
    command->require_subcommand(1);
    m_list = command->add_subcommand("list", "List the key files; * marks that of the password in use");
    m_repository.AddTo(*m_list);
    m_list->footer(std::string(RepositoryHelp) + "Example: kbagent key list --repo /backup/repository");
    return command;
}

void KeyCommand::Run(Report& report)
{
    Session session(m_repository.Get(), report);
    const Repo::Repository& repository = session.GetRepository();
    std::vector<TextRow> rows;
    std::string json;
    Repo::JsonWriter writer(json);
    writer.BeginArray();
    const auto text = [&](const char* key, const std::string& value) {
        writer.Key(key);
        writer.String(value);
    };
    for (const Id& id : repository.ListIds(FileKind::Key)) {
        Repo::KeyFile key;
        try {
            Repo::Bytes content;
            repository.LoadStored({FileKind::Key, id}, content);
            key = Repo::KeyFile::Parse(Repo::AsText(content));
        } catch (const Repo::RepositoryError& error) {
            ReportFailure(report, {FileKind::Key, id}, error);
            continue;
        }
        const bool isCurrent = id == repository.GetKeyId();
        rows.push_back({(isCurrent ? "*" : " ") + ShortId(id), Printable(key.username),
                        Printable(key.hostname), LocalTime(key.created)});
        writer.BeginObject();
        writer.Key("current");
        writer.Bool(isCurrent);
        text("id", ShortId(id));
        text("userName", key.username);
        text("hostName", key.hostname);
        text("created", LocalTime(key.created));
        writer.EndObject();
    }
    writer.EndArray();
    report.Out() << (m_repository.IsJson() ? PrintableJson(json) + "\n"
                                           : TableText({{" ID"}, {"User"}, {"Host"}, {"Created"}},
                                                       std::move(rows), OutputWidth()));
}

} // namespace

std::unique_ptr<ICommand> MakeKeyCommand()
{
    return std::make_unique<KeyCommand>();
}

} // namespace Agent
