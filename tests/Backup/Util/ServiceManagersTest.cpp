// The service managers: the commands that each operation runs, the files it leaves, and its failures.
#include "testing/OrdinaryUser.h"
#include "testing/Services.h"

#include "Krt/Util/Quotify.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <memory>

using Backup::Util::IServiceManager;
using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YPath;
using Krt::Time::YDuration;
using Testing::LaunchdServices;
using Testing::ProcessRecorder;
using Testing::Services;
using Testing::SystemdServices;

namespace {

constexpr YDuration s_noTime = YDuration::Zero();

// One call on the service "kbagent", and the commands and the error that it should give.
struct Step
{
    void (*call)(IServiceManager&);
    int active;          // the exit status of systemctl's is-active
    const char* failing; // the first argument of a command that exits with status 7
    const char* expected;
    bool exists; // whether the service is installed afterwards
};

struct Kind
{
    const char* label;
    std::unique_ptr<Services> (*make)();
    const char* golden;
    const char* program;
    std::vector<std::pair<std::string, std::string>> shortened; // in the steps' texts
    std::vector<Step> steps;

    friend void PrintTo(const Kind& kind, std::ostream* out) { *out << kind.label; }
};

void Install(IServiceManager& manager, const char* program)
{
    manager.Install("kbagent", "Agent", "100% backup\nof it", program, {"a", "$b"}, s_noTime);
}

const auto install = [](IServiceManager& manager) {
    Install(manager, "/bin/x");
};
const auto start = [](IServiceManager& manager) {
    manager.Start("kbagent", s_noTime);
};
const auto stop = [](IServiceManager& manager) {
    manager.Stop("kbagent", false, s_noTime);
};
const auto kill = [](IServiceManager& manager) {
    manager.Stop("kbagent", true, s_noTime);
};
const auto restart = [](IServiceManager& manager) {
    manager.Restart("kbagent", false, s_noTime);
};
const auto killAndStart = [](IServiceManager& manager) {
    manager.Restart("kbagent", true, s_noTime);
};
const auto remove = [](IServiceManager& manager) {
    manager.Delete("kbagent", s_noTime);
};

const Kind s_kinds[] = {
    {"Launchd",
     []() -> std::unique_ptr<Services> { return std::make_unique<LaunchdServices>(); },
     "kbagent.plist",
     "/usr/local/bin/kbagent",
     {{"/bin/launchctl ", ""},
      {"/bin/sh -c ", ""},
      {"mv TEMPORARY FILE && chown root:wheel FILE && chmod 644 FILE", "MOVE"},
      {" exited with status: 7", ": 7"}},
     {{install, 0, "-c", "MOVE; Install: mv chown chmod (for launchd plist): 7", false},
      {install, 0, "", "MOVE; ", true},
      {start, 0, "", "load -w PATH; ", true},
      {start, 0, "load", "load -w PATH; Start: launchctl load: 7", true},
      {kill, 0, "unload", "unload PATH; Stop: launchctl unload: 7", true},
      {restart, 0, "", "unload PATH; load -w PATH; ", true},
      {restart, 0, "unload", "unload PATH; Stop: launchctl unload: 7", true},
      {remove, 0, "unload", "unload PATH; Stop: launchctl unload: 7", true},
      {remove, 0, "-c", "unload PATH; rm FILE; Delete: rm (for launchd plist): 7", true},
      {remove, 0, "", "unload PATH; rm FILE; ", false},
      {remove, 0, "", "unload PATH; ", false}}}, // there is no list
    {"Systemd",
     []() -> std::unique_ptr<Services> { return std::make_unique<SystemdServices>(); },
     "kbagent.service",
     "/opt/kb agent$%",
     {{"/bin/systemctl ", ""},
      {"is-active --quiet -- kbagent.service", "LOOK"},
      {"kill --signal=SIGKILL", "KILL"},
      {" -- kbagent.service", ""},
      {" exited with status: ", ": "}},
     {{install, 0, "", "daemon-reload; enable --quiet; ", true},
      {start, 0, "", "start; LOOK; ", true},
      {start, 0, "start", "start; Start: systemctl start: 7", true},
      {start, 3, "", "start; LOOK; WaitForServiceStart: Service kbagent isn't running after 0 ms", true},
      {stop, 3, "", "stop; LOOK; ", true},
      {stop, 1, "", "stop; LOOK; IsRunning: systemctl is-active: 1", true},
      {kill, 4, "kill", "KILL; stop; LOOK; ", true}, // there may be no process to be killed
      {restart, 0, "", "restart; LOOK; ", true},
      {killAndStart, 0, "", "KILL; restart; LOOK; ", true},
      {remove, 3, "stop", "stop; Stop: systemctl stop: 7", true},
      {remove, 3, "disable", "stop; LOOK; disable --quiet; Delete: systemctl disable: 7", true},
      {remove, 3, "", "stop; LOOK; disable --quiet; daemon-reload; ", false},
      {remove, 3, "", "stop; LOOK; ", false}}}, // the unit is in another directory
};

std::string Quoted(const std::string& path)
{
    return Krt::Util::QuotifyEx(path.c_str(), '"').Bytes();
}

std::string Replaced(std::string text, const std::string& from, const std::string& to)
{
    for (std::size_t at = text.find(from); at != std::string::npos; at = text.find(from))
        text.replace(at, from.size(), to);
    return text;
}

// Runs what goes to the shell, with the caller for an owner: few systems have a group wheel.
int Shell(const ProcessRecorder::Command& command)
{
    const std::string owner = std::to_string(geteuid()) + ":" + std::to_string(getegid());
    const int status =
        command[0] == "/bin/sh" ? std::system(Replaced(command.at(2), "root:wheel", owner).c_str()) : 0;
    return WEXITSTATUS(status); // macOS takes its address
}

class ServiceManagers : public testing::TestWithParam<Kind>
{
protected:
    const std::unique_ptr<Services> services = GetParam().make();
};

TEST_P(ServiceManagers, OperationRunsCommandsUntilOneFails)
{
    if (GetParam().label[0] == 'L' && !Krt::Environment::IsRoot())
        GTEST_SKIP() << "only root may start and stop services of launchd";
    for (const Step& step : GetParam().steps) {
        std::string moved;
        services->programs.answer = [&](const ProcessRecorder::Command& command) {
            if (command[1] == "-c" && command.at(2).starts_with("mv "))
                moved = std::filesystem::directory_iterator(services->temporary)->path();
            if (command[1] == step.failing)
                return 7;
            return command[1] == "is-active" ? step.active : Shell(command);
        };
        std::string lines = services->programs.LinesOf([&] { step.call(*services->manager); });
        if (!moved.empty())
            lines = Replaced(lines, Quoted(moved), "TEMPORARY");
        lines = Replaced(Replaced(lines, Quoted(services->file), "FILE"), services->file, "PATH");
        lines = Replaced(lines, "\n", "; ");
        for (const auto& [from, to] : GetParam().shortened)
            lines = Replaced(lines, from, to);
        EXPECT_EQ(lines, step.expected);
        EXPECT_EQ(services->manager->Exists("kbagent"), step.exists) << step.expected;
        std::filesystem::remove(moved); // which a failed install leaves
    }
}

TEST_P(ServiceManagers, InstallReplacesFile)
{
    services->programs.answer = Shell;
    std::filesystem::copy_file(GOLDEN_DIRECTORY "/kbagent.conf", services->file);
    Install(*services->manager, GetParam().program);
    EXPECT_TRUE(services->programs.elevated);
    EXPECT_EQ(Testing::ReadFile(services->file),
              Testing::ReadFile(std::string(GOLDEN_DIRECTORY "/") + GetParam().golden));
    EXPECT_EQ(Testing::StatusOf(services->file).st_mode, mode_t{S_IFREG | 0644});
    std::filesystem::remove(services->file);
    EXPECT_TRUE(std::filesystem::is_empty(services->folder) &&
                std::filesystem::is_empty(services->temporary));
}

INSTANTIATE_TEST_SUITE_P(Kinds, ServiceManagers, testing::ValuesIn(s_kinds),
                         [](const auto& kind) { return kind.param.label; });

TEST(Launchd, PlistutilReadsGoldenList)
{
    if (std::system("command -v plistutil >/dev/null") != 0)
        GTEST_SKIP() << "plistutil isn't installed";
    EXPECT_EQ(std::system("cd '" GOLDEN_DIRECTORY "' && plistutil -i kbagent.plist -f bin | "
                          "plistutil -f xml | cmp - kbagent.plist"),
              0);
}

TEST(Launchd, FailedInstallLeavesUnescapedFile)
{
    LaunchdServices services;
    services.programs.answer = [](const auto&) {
        return 5;
    };
    for (int i = 0; i < 2; ++i)
        EXPECT_THROW(Install(*services.manager, "/a<b>&amp;\"'"), Krt::Exception::YError);
    std::size_t found = 0;
    for (const auto& entry : std::filesystem::directory_iterator(services.temporary))
        found +=
            Testing::ReadFile(entry.path()).find("\t<string>/a<b>&amp;\"'</string>\n") != std::string::npos;
    EXPECT_EQ(found, 2U);
}

TEST(Launchd, OrdinaryUserCannotStartOrStop)
{
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([] {
        LaunchdServices services;
        const auto isRefused = [&](auto call, const char* function) {
            const auto error = Testing::CatchError(call);
            return error && error->GetOsError() == EPERM && error->GetMessage().IsEmpty() &&
                   error->GetFunction() == function && services.programs.lines.empty();
        };
        return isRefused([&] { services.manager->Start("kbagent", s_noTime); }, "Start") &&
               isRefused([&] { services.manager->Delete("kbagent", s_noTime); }, "Stop");
    }));
}

TEST(Launchd, WaitForStartAndStopRaises)
{
    LaunchdServices services;
    IServiceManager& manager = *services.manager;
    EXPECT_FALSE(manager.IsRunning("no process has this name"));
    manager.WaitForServiceCreate("kbagent", YDuration::Seconds(1000));
    manager.WaitForServiceDelete("kbagent", YDuration::Seconds(1000));
    EXPECT_RAISES(manager.WaitForServiceStart("kbagent", s_noTime), ErrorCode::NotImplemented,
                  "WaitForServiceStart", "WaitForServiceStart not implemented for Mac");
    EXPECT_RAISES(manager.WaitForServiceStop("kbagent", s_noTime), ErrorCode::NotImplemented,
                  "WaitForServiceStop", "WaitForServiceStop not implemented for Mac");
    EXPECT_EQ(Backup::Util::YMacServiceManager().GetConfigFilePath("kbagent").Bytes(),
              "/Library/LaunchDaemons/kbagent.plist");
}

class Systemd : public testing::Test
{
protected:
    void Install(const YString& name, const YPath& program, const std::vector<YString>& arguments = {},
                 const YString& title = "A title")
    {
        manager.Install(name, title, "", program, arguments, s_noTime);
    }

    SystemdServices services;
    IServiceManager& manager = *services.manager;
};

TEST_F(Systemd, SystemdReadsInstalledUnit)
{
    if (std::system("command -v systemd-analyze >/dev/null") != 0)
        GTEST_SKIP() << "systemd-analyze isn't installed";
    Install("kbagent", "/bin/sh",
            {"a b", "c\"d'", "e\\f", "g\nh\t", "$i", "${J}k$L", "%n%%", ";", "", "\xC3\xA9", "\xFF", "#"},
            "50% \xC3\xA9 of C:\\");
    const std::string output = services.directory / "output";
    const std::string command = "SYSTEMD_UNIT_PATH='" + services.folder +
                                ":' SYSTEMD_LOG_LEVEL=debug systemd-analyze --man=no verify kbagent.service "
                                ">'" +
                                output + "' 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::string read = Testing::ReadFile(output);
    // Variables are replaced only when the process begins; until then "$$" remains.
    for (const char* wanted :
         {"Description: 50% \xC3\xA9 of C:\\\n", "Command Line: /bin/sh \"a b\" \"c\\\"d'\" \"e\\\\f\" "
                                                 "\"g\\nh\\t\" \"\\$\\$i\" \"\\$\\${J}k\\$\\$L\" "
                                                 "%n%% \";\" \"\" \xC3\xA9 \"\\377\" #\n"})
        EXPECT_NE(read.find(wanted), std::string::npos) << wanted << read.substr(0, read.find("\n\t\tAsync"));
}

TEST_F(Systemd, InvalidUnitRaises)
{
    const std::string longest(247, 'n');
    using Names = std::vector<std::string>;
    for (const std::string& name : Names{"a-b_c:d.e\\x2d", "a@b", longest})
        Install(name.c_str(), "/bin/x");
    services.programs.lines.clear();
    for (const std::string& name :
         Names{"", "a b", "../a", "a/b", "\xC3\xA9", "a\n", "@a", "a@", longest + "n"})
        EXPECT_RAISES(Install(name.c_str(), "/bin/x"), ErrorCode::InvalidArgument, "GetServiceUnitName",
                      "Not a legal name of a service: " + name);
    for (const char* program : {"", "relative", "/a\"b", "/a'b", "/a\\b", "/a\nb"})
        EXPECT_RAISES(Install("kbagent", program), ErrorCode::InvalidArgument, "MakeServiceUnit",
                      std::string("A unit can't run the program ") + program);
    EXPECT_RAISES(Install("kbagent", "/bin/x", {YString(std::string_view("a\0b", 3))}),
                  ErrorCode::InvalidArgument, "MakeServiceUnit", "Argument with a NUL byte in it for /bin/x");
    EXPECT_TRUE(Testing::CatchError([&] { Install("kbagent", "/bin/x", {}, "\xFF"); })) << "not UTF-8";
    EXPECT_EQ(services.programs.lines, "");
    EXPECT_FALSE(manager.Exists("kbagent"));
}

TEST_F(Systemd, WaitEndsWhenStateIsReached)
{
    int status = 3;
    int looks = 0;
    services.programs.answer = [&](const auto&) {
        return ++looks < 3 ? status : 3 - status;
    };
    manager.WaitForServiceStart("kbagent", YDuration::Seconds(1000));
    EXPECT_EQ(looks, 3);
    EXPECT_FALSE(services.programs.elevated && !Krt::Environment::IsRoot()) << "is-active needs no root";
    looks = status = 0;
    manager.WaitForServiceStop("kbagent", YDuration::Seconds(1000));
    looks = 0;
    EXPECT_RAISES(manager.WaitForServiceStop("kbagent", YDuration::Milliseconds(1)), ErrorCode::LockTimeout,
                  "WaitForServiceStop", "Service kbagent is still running after 1 ms");
    EXPECT_RAISES(manager.WaitForServiceCreate("kbagent", YDuration::Seconds(-5)), ErrorCode::LockTimeout,
                  "WaitForServiceCreate", "Service kbagent doesn't exist after 0 ms");
    manager.WaitForServiceDelete("kbagent", s_noTime);
    services.directory.Write("etc/systemd/system/kbagent.service", "unit");
    manager.WaitForServiceCreate("kbagent", s_noTime);
}

TEST_F(Systemd, MissingRightsAndSystemdRaise)
{
    services.programs.answer = [](const auto& command) {
        return command[1] == "is-active" ? 3 : 0;
    };
    services.directory.Write("etc/systemd/system/other.service", "unit");
    chmod(services.directory.Path().c_str(), 0755);
    chmod(services.folder.c_str(), 0555);
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([&] {
        const auto error = Testing::CatchError([&] { Install("kbagent", "/bin/x"); });
        return error && error->GetOsError() == EACCES && error->GetFunction() == "Install" &&
               error->GetMessage() == ("Failed to write " + services.file).c_str();
    }));
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([&] { // root's file, in a directory that root alone writes to
        const auto error = Testing::CatchError([&] { manager.Delete("other", s_noTime); });
        return error && error->GetOsError() == EACCES && error->GetFunction() == "Delete" &&
               services.programs.lines.empty();
    }));
    std::filesystem::remove(services.directory / "run/systemd/system");
    EXPECT_RAISES(Install("kbagent", "/bin/x"), ErrorCode::NotSupported, "Install",
                  "Services are systemd's, and this machine doesn't run systemd");
    EXPECT_FALSE(manager.Exists("kbagent"));
    EXPECT_EQ(services.programs.lines, "");
}

} // namespace
