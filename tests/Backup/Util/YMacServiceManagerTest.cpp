#include "Backup/Util/Unix/Mac/YMacServiceManager.h"

#include "testing/OrdinaryUser.h"
#include "testing/ProcessRecorder.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/Util/Quotify.h"

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

using namespace Backup;
using Krt::Time::YDuration;
using Testing::ProcessRecorder;

namespace {

constexpr YDuration s_noTime = YDuration::Zero();

// With everything below a directory whose name a shell would take apart.
class YMacServiceManagerTest : public testing::Test
{
protected:
    YMacServiceManagerTest()
    {
        m_directory.MakeDirectory("a \"$x` b/Library/LaunchDaemons");
        m_directory.MakeDirectory("a \"$x` b/tmp");
        Util::YMacServiceManager::SetRootForTesting(m_root.c_str());
        setenv("TMPDIR", (m_root + "/tmp").c_str(), 1);
    }
    ~YMacServiceManagerTest() override
    {
        unsetenv("TMPDIR");
        Util::YMacServiceManager::SetRootForTesting(nullptr);
    }

    // Runs what goes to the shell, with the caller for an owner: few systems have a group wheel.
    static int Shell(const ProcessRecorder::Command& command)
    {
        if (command[0] != "/bin/sh")
            return 0;
        std::string line = command.at(2);
        if (const std::size_t owner = line.find("root:wheel"); owner != std::string::npos)
            line.replace(owner, 10, std::to_string(geteuid()) + ":" + std::to_string(getegid()));
        const int status = std::system(line.c_str()); // macOS takes its address
        return WEXITSTATUS(status);
    }
    void Install(const YString& name, const Krt::File::YPath& program)
    {
        m_manager.Install(name, "Display", "Description", program, {"--argument"}, YDuration::Seconds(9));
    }
    // The command lines of a call, and its error. `failing` ends with status 7.
    static std::string Commands(const std::function<void()>& call, const std::string& failing = "")
    {
        return ProcessRecorder::LinesOf(call, [&](const ProcessRecorder::Command& command) {
            return command[1] == failing ? 7 : Shell(command);
        });
    }

    Testing::TemporaryDirectory m_directory;
    const std::string m_root = m_directory / "a \"$x` b";
    const std::string m_list = m_root + "/Library/LaunchDaemons/kbagent.plist";
    Util::YMacServiceManager m_manager;
};

TEST_F(YMacServiceManagerTest, InstallPutsTheListInPlace)
{
    const ProcessRecorder programs(Shell);
    m_directory.Write("a \"$x` b/Library/LaunchDaemons/other.plist", "former");
    EXPECT_FALSE(m_manager.Exists("kbagent"));
    Install("kbagent", "/usr/local/bin/kbagent");
    EXPECT_TRUE(m_manager.Exists("kbagent"));
    EXPECT_EQ(Testing::ReadFile(m_list), Testing::ReadFile(GOLDEN_DIRECTORY "/kbagent.plist"));
    EXPECT_EQ(Testing::StatusOf(m_list).st_mode, mode_t{S_IFREG | 0644});
    Install("other", "/a<b>&amp;\"'");
    EXPECT_NE(Testing::ReadFile(m_root + "/Library/LaunchDaemons/other.plist")
                  .find("\t<string>/a<b>&amp;\"'</string>\n"),
              std::string::npos);
    EXPECT_TRUE(std::filesystem::is_empty(m_root + "/tmp"));
    EXPECT_TRUE(programs.elevated);
}

TEST_F(YMacServiceManagerTest, AnotherReaderUnderstandsTheList)
{
    if (std::system("command -v plistutil >/dev/null") != 0)
        GTEST_SKIP() << "plistutil isn't installed";
    EXPECT_EQ(std::system("cd '" GOLDEN_DIRECTORY "' && plistutil -i kbagent.plist -f bin | "
                          "plistutil -f xml | cmp - kbagent.plist"),
              0);
}

TEST_F(YMacServiceManagerTest, InstallRunsOneLineAndLeavesTheFileWhenThatFails)
{
    const ProcessRecorder programs([](const auto&) { return 5; });
    for (int i = 0; i < 2; ++i)
        EXPECT_RAISES(Install("kbagent", "/bin/x"), ErrorCode::ProcessFailed, "Install",
                      "mv chown chmod (for launchd plist) exited with status: 5");
    const std::string target = Krt::Util::QuotifyEx(m_list.c_str(), '"').Bytes();
    std::size_t found = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_root + "/tmp")) {
        const std::string temporary = Krt::Util::QuotifyEx(entry.path().c_str(), '"').Bytes();
        const ProcessRecorder::Command wanted{"/bin/sh", "-c",
                                              "mv " + temporary + " " + target + " && chown root:wheel " +
                                                  target + " && chmod 644 " + target};
        found +=
            static_cast<std::size_t>(std::count(programs.commands.begin(), programs.commands.end(), wanted));
    }
    EXPECT_EQ(found, 2U) << "each with a file of its own";
    EXPECT_FALSE(m_manager.Exists("kbagent"));
}

TEST_F(YMacServiceManagerTest, CommandsAndTheirFailures)
{
    if (!Krt::Environment::IsRoot())
        GTEST_SKIP() << "only root may start and stop services";
    const std::function<void()> calls[] = {[&] { m_manager.Start("kbagent", s_noTime); },
                                           [&] { m_manager.Stop("kbagent", true, s_noTime); },
                                           [&] { m_manager.Restart("kbagent", false, s_noTime); },
                                           [&] {
                                               m_manager.Delete("kbagent", s_noTime);
                                           }};
    const auto& [start, stop, restart, removal] = calls;
    const std::string load = "/bin/launchctl load -w " + m_list + "\n";
    const std::string unload = "/bin/launchctl unload " + m_list + "\n";
    const std::string rm = "/bin/sh -c rm " + Krt::Util::QuotifyEx(m_list.c_str(), '"').Bytes() + "\n";
    const std::string loaded = "Start: launchctl load exited with status: 7";
    const std::string unloaded = "Stop: launchctl unload exited with status: 7";
    m_directory.Write("a \"$x` b/Library/LaunchDaemons/kbagent.plist", "list");
    EXPECT_EQ(Commands(start, "load"), load + loaded);
    EXPECT_EQ(Commands(stop, "unload"), unload + unloaded);
    EXPECT_EQ(Commands(restart), unload + load);
    EXPECT_EQ(Commands(restart, "unload"), unload + unloaded) << "no start";
    EXPECT_EQ(Commands(removal, "unload"), unload + unloaded) << "the list stays";
    EXPECT_EQ(Commands(removal, "-c"), unload + rm + "Delete: rm (for launchd plist) exited with status: 7");
    EXPECT_EQ(Commands(removal), unload + rm);
    EXPECT_FALSE(m_manager.Exists("kbagent"));
    EXPECT_EQ(Commands(removal), unload) << "without a list";
}

TEST_F(YMacServiceManagerTest, OnlyRootMayStartAndStop)
{
    const auto isRefused = [](auto call, const char* function) {
        const ProcessRecorder programs;
        const auto error = Testing::CatchError(call);
        return error && error->GetOsError() == EPERM && error->GetMessage().IsEmpty() &&
               error->GetFunction() == function && programs.commands.empty();
    };
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([&] {
        return isRefused([&] { m_manager.Start("kbagent", s_noTime); }, "Start") &&
               isRefused([&] { m_manager.Delete("kbagent", s_noTime); }, "Stop");
    }));
}

TEST_F(YMacServiceManagerTest, StatesThatCanAndCannotBeTold)
{
    EXPECT_FALSE(m_manager.IsRunning("no process has this name"));
    m_manager.WaitForServiceCreate("kbagent", YDuration::Seconds(1000));
    m_manager.WaitForServiceDelete("kbagent", YDuration::Seconds(1000));
    EXPECT_RAISES(m_manager.WaitForServiceStart("kbagent", s_noTime), ErrorCode::NotImplemented,
                  "WaitForServiceStart", "WaitForServiceStart not implemented for Mac");
    EXPECT_RAISES(m_manager.WaitForServiceStop("kbagent", s_noTime), ErrorCode::NotImplemented,
                  "WaitForServiceStop", "WaitForServiceStop not implemented for Mac");
    Util::YMacServiceManager::SetRootForTesting(nullptr);
    EXPECT_EQ(m_manager.GetConfigFilePath("kbagent").Bytes(), "/Library/LaunchDaemons/kbagent.plist");
}

} // namespace
