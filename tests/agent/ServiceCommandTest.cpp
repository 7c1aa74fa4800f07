// kbagent service, with the commands of the system recorded in place of being run.
#include "Backup/Util/ServiceManager.h"

#include "testing/Program.h"
#include "testing/Services.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <tuple>

using Testing::ProcessRecorder;

namespace {

Testing::SystemdServices* s_services = nullptr;

class ServiceCommandTest : public testing::Test
{
protected:
    ServiceCommandTest() { s_services = &services; }

    static int Call(std::vector<std::string> arguments)
    {
        arguments.insert(arguments.begin(), "service");
        return Testing::CallProgram(arguments);
    }
    // The exit code and all that was printed.
    static std::string Run(const std::vector<std::string>& arguments)
    {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int code = Call(arguments);
        const std::string output = testing::internal::GetCapturedStdout();
        return std::to_string(code) + " " + output + testing::internal::GetCapturedStderr();
    }

    Testing::SystemdServices services;
    const std::string m_unit = services.folder + "/kb.service";
};

TEST_F(ServiceCommandTest, ActionsChangeStatus)
{
    bool active = false;
    services.programs.answer = [&](const ProcessRecorder::Command& command) {
        active = command[1] == "start" || command[1] == "restart" || (active && command[1] != "stop");
        return command[1] == "is-active" && !active ? 3 : 0;
    };
    std::signal(SIGCHLD, SIG_IGN); // as inherited from a parent; it would hide the exit status of children
    EXPECT_EQ(Run({"status", "kb"}), "4 kb: not installed\n");
    EXPECT_EQ(std::signal(SIGCHLD, SIG_DFL), SIG_DFL);
    EXPECT_EQ(Run({"delete", "kb"}), "1 kbagent: error: Service kb is not installed\n");
    EXPECT_EQ(services.programs.lines.find(" stop "), std::string::npos);
    EXPECT_EQ(Run({"install", "kb", "--program", "/bin/../bin/sh", "--description", "Nightly", "--", "backup",
                   "--repo=x", "ssh://git@[a]", "--"}),
              "0 kb: installed\n");
    const std::string unit = Testing::ReadFile(m_unit);
    EXPECT_NE(unit.find("Description=Nightly\n"), std::string::npos) << unit;
    EXPECT_NE(unit.find("\"/bin/../bin/sh\" \"backup\" \"--repo=x\" \"ssh://git@[a]\" \"--\"\n"),
              std::string::npos)
        << unit;
    EXPECT_EQ(Run({"status", "kb"}), "4 kb: stopped\n");
    EXPECT_EQ(Run({"start", "kb"}), "0 kb: started\n");
    EXPECT_NE(Run({"status", "kb", "--json"}).find(R"("name":"kb","state":"running"})"), std::string::npos);
    EXPECT_EQ(Run({"status", "kb"}), "0 kb: running\n");
    EXPECT_EQ(Run({"restart", "kb"}), "0 kb: restarted\n");
    EXPECT_EQ(Run({"stop", "--force", "kb", "--timeout", "0"}), "0 kb: stopped\n");
    EXPECT_NE(services.programs.lines.find(" kill "), std::string::npos);
    EXPECT_EQ(Run({"delete", "kb"}), "0 kb: deleted\n");
    EXPECT_FALSE(std::filesystem::exists(m_unit));
}

TEST_F(ServiceCommandTest, FailuresNameCause)
{
    services.programs.answer = [](const ProcessRecorder::Command& command) {
        return command[1] == "start" ? 5 : command[1] == "is-active" ? 1 : 0;
    };
    const std::string noProgram = "1 kbagent: error: There is no program at ";
    const std::tuple<const char*, std::vector<std::string>, std::string> rows[] = {
        {"no action", {}, "2 kbagent: error: service: name an action"},
        {"unknown action", {"strat"}, "2 kbagent: error: service: unknown action strat; use install, "},
        {"missing program", {"install", "kb", "--program", "/none"}, noProgram + "/none"},
        {"no program but data", {"install", "kb", "--program", "/etc/passwd"}, noProgram},
        {"password",
         {"install", "kb", "--program", "/bin/sh", "--", "--repo=rest:https://u:p/w@h/"},
         "2 kbagent: error: An argument of the service has a password"},
        {"endless wait", {"start", "kb", "--timeout", "-1"}, "2 kbagent: error: "},
        {"path for a name", {"stop", "../kb"}, "2 kbagent: error: Not the name of a service: ../kb"},
        {"failing command", {"start", "kb"}, "1 kbagent: error: systemctl start exited with status: 5"},
    };
    for (const auto& [name, arguments, expected] : rows) {
        const std::string printed = Run(arguments);
        EXPECT_TRUE(printed.starts_with(expected)) << name << ": " << printed;
    }
    std::filesystem::remove_all(services.directory / "run");
    EXPECT_EQ(Run({"status", "kb"}),
              "1 kbagent: error: Services are systemd's, and this machine doesn't run systemd\n");
}

// The wait would last a second more.
TEST_F(ServiceCommandTest, InterruptEndsWait)
{
    services.programs.answer = [](const ProcessRecorder::Command& command) {
        if (command[1] == "is-active")
            std::raise(SIGTERM);
        return command[1] == "is-active" ? 3 : 0;
    };
    EXPECT_EXIT(Call({"start", "kb", "--timeout", "1"}), testing::KilledBySignal(SIGTERM), "");
}

} // namespace

// The program is linked with these in place of the library's. It gets the test's manager, without owning it.
std::unique_ptr<Backup::Util::IServiceManager> Backup::Util::CreateServiceManager()
{
    return s_services->MakeManager();
}

bool Backup::Util::DoServicesKeepArguments()
{
    return true;
}
