#include "agent/Cli/Command.h"

#include "agent/Access/Password.h"
#include "agent/Access/Unix/Process.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Repository/Unix/SecretPages.h"
#include "agent/Run/Text.h"

#include "Krt/Environment/Host.h"

#include <CLI/CLI.hpp>

namespace Agent {

namespace {

class InitCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void RequireVersion() const;
    std::optional<Repo::Polynomial> CopiedPolynomial(Report& report) const;

    RepositoryArguments m_repository;
    std::string m_version = "stable";
    bool m_copiesChunking = false;
};

CLI::App* InitCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("init", "Create a repository");
    m_repository.AddTo(*command, LockOptions::None);
    command->add_option("--repository-version", m_version, "The version of the format: 2, latest or stable")
        ->type_name("VERSION")
        ->capture_default_str();
    command->add_flag("--copy-chunker-params", m_copiesChunking,
                      "Cut files as the source repository does, so that copies of its snapshots and new\n"
                      "backups share their data");
    m_repository.AddSourceTo(*command);
    command->footer(
        "The directory is created if it does not exist. The password is that of --password-file or\n"
        "--password-command, or of the variables that 'kbagent snapshots --help' lists; otherwise it\n"
        "is asked for twice. Without it, the repository can't be read.\n\n"
        "Example: kbagent init --repo /backup/repository --password-file /root/password");
    return command;
}

void InitCommand::RequireVersion() const
{
    if (m_version == "1")
        throw UsageError(
            "Version 1 of the format has no compression; kbagent reads it and does not write it");
    if (m_version != "2" && m_version != "stable" && m_version != "latest")
        throw UsageError("--repository-version is 2, latest or stable: '" + m_version + "'");
}

std::optional<Repo::Polynomial> InitCommand::CopiedPolynomial(Report& report) const
{
    const RepositoryOptions source = m_repository.GetSource();
    if (m_copiesChunking)
        return Session(source, report).GetRepository().GetConfig().polynomial;
    if (!source.location.empty() || !source.locationFile.empty())
        throw UsageError("A source repository needs --copy-chunker-params");
    return std::nullopt;
}

void InitCommand::Run(Report& report)
{
    RequireVersion();
    const RepositoryOptions options = m_repository.Get();
    if (options.isJson)
        report.UseJson();
    Repo::HideProcess();
    const std::shared_ptr<Repo::IBackend> backend = BackendOf(options, report);
    report.NoteLocation(backend->Describe());
    Repo::CreateOptions creation;
    creation.polynomial = CopiedPolynomial(report);
    creation.username = CurrentProcess().userName;
    creation.hostname = Krt::Environment::GetHostName().Bytes();
    const Password password = ReadPasswordForCreation(options, report);
    const auto repository = Repo::Repository::Create(backend, password.text, creation);
    const std::string id = repository.GetConfig().id.ToHex();
    const std::string location = backend->Describe().Bytes();
    const std::string done = "The repository " + location + " was created";
    if (options.isJson) {
        std::string json;
        Repo::JsonWriter writer(json);
        writer.BeginObject();
        writer.Key("message_type");
        writer.String("initialized");
        writer.Key("id");
        writer.String(id);
        writer.Key("repository");
        writer.String(location);
        writer.EndObject();
        report.Summary(done, PrintableJson(json) + "\n");
    } else if (!options.isQuiet) {
        report.Summary(done,
                       "created repository " + id.substr(0, 10) + " at " + Printable(location) +
                           "\n\nKeep its password: without it, nothing in the repository can be restored.\n");
    }
}

} // namespace

std::unique_ptr<ICommand> MakeInitCommand()
{
    return std::make_unique<InitCommand>();
}

} // namespace Agent
