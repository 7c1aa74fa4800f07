#include "agent/Cli/Command.h"

#include "agent/Access/Password.h"
#include "agent/Access/Unix/Process.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/TextTable.h"
#include "agent/Run/Output.h"
#include "agent/Run/Text.h"

#include "Krt/Environment/Host.h"

#include <CLI/CLI.hpp>

#include <optional>

namespace Agent {

using Repo::FileKind;
using Repo::Id;

namespace {

std::string Member(const std::string& name, const Id& id)
{
    return ",\"" + name + "\":\"" + id.ToHex() + "\"";
}

class KeyCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    using Action = void (KeyCommand::*)(Report& report) const;

    CLI::App* AddAction(CLI::App& key, const char* name, const char* description, Action action,
                        LockOptions lock);
    void AddNewPassword(CLI::App& action);
    Repo::KeyOptions NewKey() const;

    void Print(Session& session, const std::string& done, const std::string& text,
               const std::string& members) const;
    void List(Report& report) const;
    void Add(Report& report) const;
    void Remove(Report& report) const;
    void Change(Report& report) const;

    std::vector<std::pair<CLI::App*, Action>> m_actions;
    RepositoryArguments m_repository;
    NewPasswordOptions m_newPassword;
    std::string m_user;
    std::string m_host;
    std::string m_id;
};

CLI::App* KeyCommand::AddAction(CLI::App& key, const char* name, const char* description, Action action,
                                LockOptions lock)
{
    CLI::App* const command = key.add_subcommand(name, description);
    m_repository.AddTo(*command, lock);
    command->footer(std::string(RepositoryHelp) + "Example: kbagent key " + name +
                    " --repo /backup/repository" + (action == &KeyCommand::Remove ? " 1a2b3c4d" : ""));
    m_actions.emplace_back(command, action);
    return command;
}

void KeyCommand::AddNewPassword(CLI::App& action)
{
    action.add_option("--new-password-file", m_newPassword.file, "A file that has the new password")
        ->type_name("FILE");
    action.add_flag("--new-insecure-no-password", m_newPassword.hasNoPassword, "The new password is empty");
    action.add_option("--user", m_user, "The user that the key notes; yours by default")->type_name("NAME");
    action.add_option("--host", m_host, "The host that the key notes; this one by default")
        ->type_name("NAME");
}

CLI::App* KeyCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("key", "List, add, remove and change the passwords of a repository");
    command->require_subcommand(0, 1); // an unknown word is reported separately
    AddAction(*command, "list", "List the key files; * marks that of the password in use", &KeyCommand::List,
              LockOptions::Optional);
    AddNewPassword(*AddAction(*command, "add", "Add a password", &KeyCommand::Add, LockOptions::Required));
    AddAction(*command, "remove", "Remove the password of a key file", &KeyCommand::Remove,
              LockOptions::Required)
        ->add_option("ID", m_id, "The first digits of the key file's ID")
        ->required();
    AddNewPassword(*AddAction(*command, "passwd", "Replace the password in use by another",
                              &KeyCommand::Change, LockOptions::Required));
    return command;
}

void KeyCommand::Run(Report& report)
{
    for (const auto& [command, action] : m_actions) {
        if (command->parsed())
            return (this->*action)(report);
    }
    throw UsageError("key: name an action, as in 'kbagent key list'; list, add, remove or passwd");
}

Repo::KeyOptions KeyCommand::NewKey() const
{
    Repo::KeyOptions key;
    key.username = m_user.empty() ? CurrentProcess().userName : m_user;
    key.hostname = m_host.empty() ? Krt::Environment::GetHostName().Bytes() : m_host;
    return key;
}

void KeyCommand::Add(Report& report) const
{
    Session session(m_repository.Get(), report, Access::Append, OldFormat::Accepted);
    const Repo::Secret password = ReadNewPassword(m_newPassword, report);
    const Id id = session.GetRepository().AddKey(password, NewKey());
    Print(session, "The key " + ShortId(id) + " was added", "saved new key with ID " + ShortId(id),
          Member("key_id", id));
}

void KeyCommand::Remove(Report& report) const
{
    Session session(m_repository.Get(), report, Access::Exclusive, OldFormat::Accepted);
    const Id id = FindFile(session.GetRepository(), FileKind::Key, m_id);
    session.GetRepository().RemoveKey(id);
    Print(session, "The key " + ShortId(id) + " was removed", "removed key " + ShortId(id),
          Member("removed_key_id", id));
}

void KeyCommand::Change(Report& report) const
{
    Session session(m_repository.Get(), report, Access::Exclusive, OldFormat::Accepted);
    const Repo::Secret password = ReadNewPassword(m_newPassword, report);
    const Id old = session.GetRepository().GetKeyId();
    std::optional<Repo::RepositoryError> left;
    const Id id = session.GetRepository().ReplaceKey(
        password, NewKey(),
        [&left](const Repo::FileName&, const Repo::RepositoryError& error) { left.emplace(error); });
    Print(session, "The new key " + ShortId(id) + " was saved" + (left ? "" : ", and the old one removed"),
          "saved new key as " + ShortId(id),
          Member("key_id", id) + (left ? "" : Member("removed_key_id", old)));
    if (left)
        ReportFailure(
            report, {FileKind::Key, old}, *left,
            "the new key " + ShortId(id) +
                " was saved, but the old one remains with its password, since it can't be removed: ");
}

// Prints what was done: a line, or a summary of these members as JSON.
void KeyCommand::Print(Session& session, const std::string& done, const std::string& text,
                       const std::string& members) const
{
    if (session.GetOptions().isJson)
        session.GetReport().Summary(done, R"({"message_type":"summary")" + members + "}\n");
    else if (!session.GetOptions().isQuiet)
        session.GetReport().Summary(done, text + "\n");
}

void KeyCommand::List(Report& report) const
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
