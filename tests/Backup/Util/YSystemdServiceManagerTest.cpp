#include "Backup/Util/Unix/Linux/YSystemdServiceManager.h"

#include "testing/OrdinaryUser.h"
#include "testing/ProcessRecorder.h"
#include "testing/Raises.h"
#include "testing/SystemdRoot.h"

#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>
#include <regex>

using namespace Backup;
using Krt::Time::YDuration;
using Testing::ProcessRecorder;

namespace {

constexpr YDuration s_noTime = YDuration::Zero();

class YSystemdServiceManagerTest : public testing::Test
{
protected:
    void Install(const YString& name, const Krt::File::YPath& program,
                 const std::vector<YString>& arguments = {}, const YString& title = "A title")
    {
        m_manager.Install(name, title, "", program, arguments, s_noTime);
    }

    // The command lines of a call, all systemctl's, and its error. is-active ends with `active`, `failing`
    // with 5.
    static std::string Commands(const std::function<void()>& call, int active,
                                const std::string& failing = "")
    {
        const std::string lines =
            ProcessRecorder::LinesOf(call, [&](const ProcessRecorder::Command& command) {
                return command[1] == failing ? 5 : command[1] == "is-active" ? active : 0;
            });
        return std::regex_replace(lines, std::regex("/bin/systemctl "), "");
    }

    const Testing::SystemdRoot m_root;
    const Testing::TemporaryDirectory& m_directory = m_root.directory;
    Util::YSystemdServiceManager m_manager;
};

TEST_F(YSystemdServiceManagerTest, InstallWritesTheUnitAndEnablesIt)
{
    const ProcessRecorder programs;
    m_directory.Write("etc/systemd/system/kbagent.service", "former");
    m_manager.Install("kbagent", "Agent", "100% backup\nof it \\", "/opt/kb agent$%", {"a", "$b"}, s_noTime);
    EXPECT_EQ(Testing::ReadFile(m_root.unit),
              "[Unit]\n"
              "Description=Agent: 100%% backup of it \\ \n\n"
              "[Service]\n"
              "Type=exec\n"
              "ExecStart=@\"/opt/kb agent$%%\" \"/opt/kb agent$$%%\" \"a\" \"$$b\"\n"
              "Restart=always\n"
              "RestartSec=10\n\n"
              "[Install]\n"
              "WantedBy=multi-user.target\n");
    EXPECT_EQ(Testing::StatusOf(m_root.unit).st_mode, mode_t{S_IFREG | 0644});
    EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_root.units), {}), 1)
        << "nothing else is left";
    EXPECT_EQ(programs.Lines(), "/bin/systemctl daemon-reload\n"
                                "/bin/systemctl enable --quiet -- kbagent.service\n");
    EXPECT_TRUE(programs.elevated);
}

TEST_F(YSystemdServiceManagerTest, SystemdReadsWhatWasMeant)
{
    if (std::system("command -v systemd-analyze >/dev/null") != 0)
        GTEST_SKIP() << "systemd-analyze isn't installed";
    const ProcessRecorder programs;
    Install("kbagent", "/bin/sh",
            {"a b", "c\"d'", "e\\f", "g\nh\t", "$i", "${J}k$L", "%n%%", ";", "", "\xC3\xA9", "\xFF", "#"},
            "50% \xC3\xA9 of C:\\");
    const std::string output = m_directory / "output";
    const std::string command = "SYSTEMD_UNIT_PATH='" + m_root.units +
                                ":' SYSTEMD_LOG_LEVEL=debug systemd-analyze --man=no verify kbagent.service "
                                ">'" +
                                output + "' 2>/dev/null";
    ASSERT_EQ(std::system(command.c_str()), 0);
    const std::string read = Testing::ReadFile(output);
    // Variables are put in only when the process begins; until then "$$" stands.
    for (const char* wanted :
         {"Description: 50% \xC3\xA9 of C:\\\n", "Command Line: /bin/sh \"a b\" \"c\\\"d'\" \"e\\\\f\" "
                                                 "\"g\\nh\\t\" \"\\$\\$i\" \"\\$\\${J}k\\$\\$L\" "
                                                 "%n%% \";\" \"\" \xC3\xA9 \"\\377\" #\n"})
        EXPECT_NE(read.find(wanted), std::string::npos) << wanted << read.substr(0, read.find("\n\t\tAsync"));
}

TEST_F(YSystemdServiceManagerTest, RefusesWhatNoUnitCanHold)
{
    const ProcessRecorder programs;
    const std::string longest(247, 'n');
    using Names = std::vector<std::string>;
    for (const std::string& name : Names{"a-b_c:d.e\\x2d", "a@b", longest})
        Install(name.c_str(), "/bin/x");
    for (const std::string& name :
         Names{"", "a b", "../a", "a/b", "\xC3\xA9", "a\n", "@a", "a@", longest + "n"})
        EXPECT_RAISES(Install(name.c_str(), "/bin/x"), ErrorCode::InvalidArgument, "GetServiceUnitName",
                      "Not a legal name of a service: " + name);
    const auto before = programs.commands.size();
    for (const char* program : {"", "relative", "/a\"b", "/a'b", "/a\\b", "/a\nb"})
        EXPECT_RAISES(Install("kbagent", program), ErrorCode::InvalidArgument, "MakeServiceUnit",
                      std::string("A unit can't run the program ") + program);
    EXPECT_RAISES(Install("kbagent", "/bin/x", {YString(std::string_view("a\0b", 3))}),
                  ErrorCode::InvalidArgument, "MakeServiceUnit", "Argument with a NUL byte in it for /bin/x");
    EXPECT_TRUE(Testing::CatchError([&] { Install("kbagent", "/bin/x", {}, "\xFF"); })) << "no text";
    EXPECT_EQ(programs.commands.size(), before);
    EXPECT_FALSE(m_manager.Exists("kbagent"));
}

TEST_F(YSystemdServiceManagerTest, CommandsAndTheirFailures)
{
    const std::function<void()> start = [&] { m_manager.Start("kbagent", s_noTime); },
                                stop = [&] { m_manager.Stop("kbagent", false, s_noTime); },
                                kill = [&] { m_manager.Stop("kbagent", true, s_noTime); },
                                restart = [&] { m_manager.Restart("kbagent", false, s_noTime); },
                                killAndStart = [&] { m_manager.Restart("kbagent", true, s_noTime); },
                                removal = [&] {
                                    m_manager.Delete("kbagent", s_noTime);
                                };
    const std::string look = "is-active --quiet -- kbagent.service\n";
    const std::string killed = "kill --signal=SIGKILL -- kbagent.service\n";
    const std::string stopped = "stop -- kbagent.service\n";
    const std::string restarted = "restart -- kbagent.service\n";
    const std::string disabled = "disable --quiet -- kbagent.service\n";
    m_directory.Write("etc/systemd/system/kbagent.service", "unit");
    EXPECT_EQ(Commands(start, 0), "start -- kbagent.service\n" + look);
    EXPECT_EQ(Commands(start, 0, "start"),
              "start -- kbagent.service\nStart: systemctl start exited with status: 5");
    EXPECT_EQ(Commands(stop, 3), stopped + look);
    EXPECT_EQ(Commands(kill, 4, "kill"), killed + stopped + look) << "nothing to be killed";
    EXPECT_EQ(Commands(restart, 0), restarted + look);
    EXPECT_EQ(Commands(killAndStart, 0), killed + restarted + look);
    EXPECT_EQ(Commands(removal, 3, "stop"), stopped + "Stop: systemctl stop exited with status: 5");
    EXPECT_EQ(Commands(removal, 3, "disable"),
              stopped + look + disabled + "Delete: systemctl disable exited with status: 5");
    EXPECT_EQ(Commands(removal, 3), stopped + look + disabled + "daemon-reload\n");
    EXPECT_FALSE(m_manager.Exists("kbagent"));
    EXPECT_EQ(Commands(removal, 3), stopped + look) << "a unit that stands elsewhere";
}

TEST_F(YSystemdServiceManagerTest, WaitsLookUntilTheStateIsThere)
{
    int status = 3;
    int looks = 0;
    const ProcessRecorder programs([&](const auto&) { return ++looks < 3 ? status : 3 - status; });
    m_manager.WaitForServiceStart("kbagent", YDuration::Seconds(1000));
    EXPECT_EQ(looks, 3);
    EXPECT_FALSE(programs.elevated && !Krt::Environment::IsRoot()) << "looking takes no rights";
    looks = status = 0;
    m_manager.WaitForServiceStop("kbagent", YDuration::Seconds(1000));
    looks = 0;
    EXPECT_RAISES(m_manager.WaitForServiceStop("kbagent", YDuration::Milliseconds(1)), ErrorCode::LockTimeout,
                  "WaitForServiceStop", "Service kbagent is still running after 1 ms");
    EXPECT_RAISES(m_manager.WaitForServiceCreate("kbagent", YDuration::Seconds(-5)), ErrorCode::LockTimeout,
                  "WaitForServiceCreate", "Service kbagent doesn't exist after 0 ms");
    EXPECT_RAISES(m_manager.WaitForServiceCreate("kbagent", s_noTime), ErrorCode::LockTimeout,
                  "WaitForServiceCreate", "Service kbagent doesn't exist after 0 ms");
    m_manager.WaitForServiceDelete("kbagent", s_noTime);
    m_directory.Write("etc/systemd/system/kbagent.service", "unit");
    m_manager.WaitForServiceCreate("kbagent", s_noTime);
}

TEST_F(YSystemdServiceManagerTest, MachinesAndUsersThatCannot)
{
    {
        const ProcessRecorder programs([](const auto&) { return 1; });
        EXPECT_RAISES(m_manager.IsRunning("kbagent"), ErrorCode::ProcessFailed, "IsRunning",
                      "systemctl is-active exited with status: 1");
    }
    const ProcessRecorder programs([](const auto& command) { return command[1] == "is-active" ? 3 : 0; });
    m_directory.Write("etc/systemd/system/other.service", "unit");
    chmod(m_directory.Path().c_str(), 0755);
    chmod(m_root.units.c_str(), 0555);
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([&] {
        const auto error = Testing::CatchError([&] { Install("kbagent", "/bin/x"); });
        return error && error->GetOsError() == EACCES && error->GetFunction() == "Install" &&
               error->GetMessage() == ("Failed to write " + m_root.unit).c_str();
    }));
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([&] { // root's file, in a directory that root alone writes to
        const auto error = Testing::CatchError([&] { m_manager.Delete("other", s_noTime); });
        return error && error->GetOsError() == EACCES && error->GetFunction() == "Delete" &&
               programs.commands.empty();
    }));
    std::filesystem::remove(m_directory / "run/systemd/system");
    EXPECT_RAISES(Install("kbagent", "/bin/x"), ErrorCode::NotSupported, "Install",
                  "Services are systemd's, and this machine doesn't run systemd");
    EXPECT_FALSE(m_manager.Exists("kbagent"));
    EXPECT_TRUE(programs.commands.empty());
}

} // namespace
