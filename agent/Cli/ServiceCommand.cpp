#include "agent/Cli/Command.h"

#include "agent/Http/Address.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Backup/Util/ServiceManager.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YTextWriter.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <filesystem>
#include <optional>

namespace Agent {

using Backup::Util::IServiceManager;
using Krt::YString;
using Krt::Time::YDuration;

namespace {

constexpr unsigned int LongestTimeout = 86400;

// Returns true if an argument has an address with a password. A user alone, as in ssh://git@host, is
// accepted.
bool HasPassword(const std::string& argument)
{
    const std::string hidden = Http::ArgumentWithoutCredentials(argument);
    return std::count(hidden.begin(), hidden.end(), ':') != std::count(argument.begin(), argument.end(), ':');
}

class ServiceCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    using Action = void (ServiceCommand::*)(IServiceManager& manager, Report& report) const;

    CLI::App* AddAction(CLI::App& service, const std::string& name, const std::string& description,
                        Action action);
    void AddTimeout(CLI::App& action);
    void AddForce(CLI::App& action);
    CLI::App* AddInstall(CLI::App& service);

    void Install(IServiceManager& manager, Report& report) const;
    void Start(IServiceManager& manager, Report& report) const;
    void Stop(IServiceManager& manager, Report& report) const;
    void Restart(IServiceManager& manager, Report& report) const;
    void Delete(IServiceManager& manager, Report& report) const;
    void Status(IServiceManager& manager, Report& report) const;

    YString Name() const { return m_name.c_str(); }
    YDuration Timeout() const { return YDuration::Seconds(m_timeout); }
    void ReportState(Report& report, const char* state) const
    {
        if (!m_isJson) {
            report.Out() << Printable(m_name) << ": " << state << "\n";
            return;
        }
        std::string json = R"({"message_type":"summary","name":)";
        Krt::JSON::YTextWriter(json).String(m_name);
        report.Out() << PrintableJson(json + ",\"state\":\"" + state + "\"}") << "\n";
    }

    std::vector<std::pair<CLI::App*, Action>> m_actions;
    std::string m_name;
    bool m_isJson = false;
    std::string m_program;
    std::string m_description;
    CLI::Option* m_arguments = nullptr;
    unsigned int m_timeout = 30;
    bool m_force = false;
};

CLI::App* ServiceCommand::Register(CLI::App& program)
{
    CLI::App* const service =
        program.add_subcommand("service", "Install a program as a service of the system, and control it");
    service->require_subcommand(0, 1); // an unknown word is reported separately
    AddTimeout(*AddInstall(*service));
    AddTimeout(*AddAction(*service, "start", "Start the service", &ServiceCommand::Start));
    CLI::App* const stop = AddAction(*service, "stop", "Stop the service", &ServiceCommand::Stop);
    AddForce(*stop);
    AddTimeout(*stop);
    CLI::App* const restart =
        AddAction(*service, "restart", "Stop and start the service", &ServiceCommand::Restart);
    AddForce(*restart);
    AddTimeout(*restart);
    AddAction(*service, "status", "Print whether the service is running", &ServiceCommand::Status)
        ->footer("Prints NAME: running, stopped or not installed. Exit codes: 0 running, 4 not running,\n"
                 "1 could not be determined.");
    AddTimeout(*AddAction(*service, "delete", "Stop the service and remove it", &ServiceCommand::Delete));
    service->footer(
        "Services are those of launchd on macOS and of systemd elsewhere. All actions except status\n"
        "require root privileges.\n\n"
        "Examples: kbagent service install nightly --program /usr/local/bin/nightly -- --verbose\n"
        "          kbagent service start nightly\n"
        "          kbagent service status nightly");
    return service;
}

CLI::App* ServiceCommand::AddAction(CLI::App& service, const std::string& name,
                                    const std::string& description, Action action)
{
    CLI::App* const command = service.add_subcommand(name, description);
    command->add_option("NAME", m_name, "The service's name")->required();
    command->add_flag("--json", m_isJson, "Print a JSON document");
    command->footer(""); // without the footer of the program
    m_actions.emplace_back(command, action);
    return command;
}

void ServiceCommand::AddTimeout(CLI::App& action)
{
    action.add_option("--timeout", m_timeout, "How long to wait for the service's new state")
        ->type_name("SECONDS")
        ->check(CLI::Range(LongestTimeout))
        ->capture_default_str();
}

void ServiceCommand::AddForce(CLI::App& action)
{
    action.add_flag("--force", m_force, "Kill the service instead of waiting for it to finish");
}

CLI::App* ServiceCommand::AddInstall(CLI::App& service)
{
    CLI::App* const install =
        AddAction(service, "install", "Create or replace a service that starts with the machine",
                  &ServiceCommand::Install);
    install->add_option("--program", m_program, "The program that the service runs")
        ->type_name("PATH")
        ->required();
    install->add_option("--description", m_description, "The purpose of the service, in one line")
        ->type_name("TEXT");
    m_arguments = AddPathArguments(*install, "Arguments for the program, after --", "ARG");
    install->footer("The service is not started. Example:\n"
                    "  kbagent service install nightly --program /usr/local/bin/nightly -- --verbose");
    return install;
}

void ServiceCommand::Run(Report& report)
{
    if (m_name.find('/') != std::string::npos)
        throw UsageError("Not the name of a service: " + m_name);
    const std::unique_ptr<IServiceManager> manager = Backup::Util::CreateServiceManager();
    for (const auto& [command, action] : m_actions) {
        if (!command->parsed())
            continue;
        // The user may interrupt a wait for a service. Writing the service's file is not interrupted.
        std::optional<EndingOnInterrupts> ending;
        if (action != &ServiceCommand::Install)
            ending.emplace();
        (this->*action)(*manager, report);
        return;
    }
    throw UsageError("service: name an action: install, start, stop, restart, status, delete");
}

void ServiceCommand::Install(IServiceManager& manager, Report& report) const
{
    namespace fs = std::filesystem;
    // Not normalised, since "a/.." differs from "" if "a" is a symlink.
    const fs::path program = fs::absolute(m_program);
    std::error_code ignored; // a file that cannot be reached is not a program
    const fs::file_status status = fs::status(program, ignored);
    constexpr fs::perms executable = fs::perms::owner_exec | fs::perms::group_exec | fs::perms::others_exec;
    KRT_RAISE_UNLESS(fs::is_regular_file(status) && (status.permissions() & executable) != fs::perms::none,
                     Krt::ErrorCode::InvalidArgument, "There is no program at " << program.c_str());
    std::vector<YString> arguments;
    for (const std::string& argument : PathsOf(m_arguments)) {
        if (HasPassword(argument))
            throw UsageError("An argument of the service has a password in an address, which other users "
                             "could read; --repository-file names a file that has the address");
        arguments.emplace_back(argument.c_str());
    }
    KRT_RAISE_UNLESS(arguments.empty() || Backup::Util::DoServicesKeepArguments(),
                     Krt::ErrorCode::NotSupported, "Services of this system run a program without arguments");
    manager.Install(Name(), YString(), m_description.c_str(), program.c_str(), arguments, Timeout());
    ReportState(report, "installed");
}

void ServiceCommand::Start(IServiceManager& manager, Report& report) const
{
    manager.Start(Name(), Timeout());
    ReportState(report, "started");
}

void ServiceCommand::Stop(IServiceManager& manager, Report& report) const
{
    manager.Stop(Name(), m_force, Timeout());
    ReportState(report, "stopped");
}

void ServiceCommand::Restart(IServiceManager& manager, Report& report) const
{
    manager.Restart(Name(), m_force, Timeout());
    ReportState(report, "restarted");
}

// Refuses a service without a file here: it is another program's, and would only be stopped.
void ServiceCommand::Delete(IServiceManager& manager, Report& report) const
{
    KRT_RAISE_UNLESS(manager.Exists(Name()), Krt::ErrorCode::NotFound,
                     "Service " << Name() << " is not installed");
    manager.Delete(Name(), Timeout());
    ReportState(report, "deleted");
}

// A service that is not installed may run if another program created it.
void ServiceCommand::Status(IServiceManager& manager, Report& report) const
{
    if (manager.IsRunning(Name())) {
        ReportState(report, "running");
        return;
    }
    ReportState(report, manager.Exists(Name()) ? "stopped" : "not installed");
    report.AnswerNo();
}

} // namespace

std::unique_ptr<ICommand> MakeServiceCommand()
{
    return std::make_unique<ServiceCommand>();
}

} // namespace Agent
