// Root's program takes its configuration, job and log only from where nobody else can change them.
#include "agent/Run/FileGuard.h"

#include "testing/AccessList.h"
#include "testing/OrdinaryUser.h"
#include "testing/Program.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

namespace fs = std::filesystem;

namespace {

constexpr unsigned int Other = 1234;

class FileGuard : public ::testing::Test
{
protected:
    void SetUp() override
    {
        if (geteuid() != 0)
            GTEST_SKIP() << "needs root to make files of others";
        chmod(directory.Path().c_str(), 0755);
        Make("own/file", 0, 0, 0644);
        Make("own/of roots group", 0, 0, 0664);
        Make("own/of others", 0, 0, 0666);
        Make("own/of a group", 0, Other, 0664);
        Make("own/foreign", Other, 0, 0644);
        Make("open/file", 0, 0, 0644, 0, 0777);
        Make("foreign/file", 0, 0, 0644, Other);
        Make("foreign/deep/file", 0, 0, 0644);
        Make("shared/file", 0, 0, 0644, 0, 01777);
        Make("shared/foreign", Other, 0, 0644);
        Make("shared/two names", 0, 0, 0644);
        fs::create_hard_link(directory / "shared/two names", directory / "own/other name");
        Link("own/link", "file", 0);
        Link("own/link of two names", "file", 0);
        ASSERT_EQ(link((directory / "own/link of two names").c_str(), (directory / "shared/link").c_str()),
                  0);
        Make("own/listed", 0, 0, 0600);
        hasLists = Testing::GiveAccessList(directory / "own/listed", "access");
        Link("own/through", "../open", 0);
        Link("own/absolute", directory / "shared/of another", 0);
        Link("own/loop", "loop", 0);
        Link("shared/of another", "../own/file", Other);
    }

    void Make(const std::string& name, unsigned int user, unsigned int group, unsigned int mode,
              unsigned int directoryUser = 0, unsigned int directoryMode = 0755) const
    {
        const std::string path = directory.Write(name, ""), parent = fs::path(path).parent_path();
        const bool isNew = directoryUser != 0 || directoryMode != 0755;
        ASSERT_EQ(chown(path.c_str(), user, group), 0);
        ASSERT_EQ(chmod(path.c_str(), mode), 0);
        ASSERT_TRUE(!isNew || chown(parent.c_str(), directoryUser, 0) == 0);
        ASSERT_TRUE(!isNew || chmod(parent.c_str(), directoryMode) == 0);
    }
    void Link(const std::string& name, const std::string& target, unsigned int user) const
    {
        fs::create_symlink(target, directory / name);
        ASSERT_EQ(lchown((directory / name).c_str(), user, user), 0);
    }
    // Why the file is refused, with paths below the directory; nothing if it isn't.
    std::string Reason(const std::string& name) const
    {
        const auto error =
            Testing::CatchError([&] { Agent::RequireOwnFile("The job file", directory / name); });
        if (!error)
            return "";
        const std::string text = error->GetMessage().Bytes();
        const std::string front =
            "The job file " + (directory / name) + " is refused: " + directory.Path() + "/";
        EXPECT_TRUE(text.starts_with(front)) << text;
        return text.substr(std::min(front.size(), text.size()));
    }

    Testing::TemporaryDirectory directory;
    bool hasLists = false;
};

TEST_F(FileGuard, RefusesWhatOthersCanChange)
{
    const std::string byOthers = " can be written to by others (mode ";
    const std::string byAnother = " belongs to the user 1234", ofAnother = " is a link that" + byAnother;
    const std::string missing = " doesn't exist, and others can write to its directory";
    const std::pair<const char*, std::string> rows[] = {
        {"own/file", ""},
        {"own/of roots group", ""},
        {"own/of others", "own/of others" + byOthers + "0666)"},
        {"own/of a group", "own/of a group" + byOthers + "0664)"},
        {"own/foreign", "own/foreign" + byAnother},
        {"own/missing", ""},
        {"own/missing/file", ""},
        {"own/file/below", ""},
        {"own/other name", ""},
        {"open/file", "open" + byOthers + "0777)"},
        {"open/../own/file", "open" + byOthers + "0777)"},
        {"foreign/file", "foreign" + byAnother},
        {"foreign/deep/file", "foreign" + byAnother},
        {"shared/file", ""},
        {"shared//./file", ""},
        {"shared/foreign", "shared/foreign" + byAnother},
        {"shared/two names", "shared/two names has further names, and others can write to its directory"},
        {"shared/missing", "shared/missing" + missing},
        {"shared/missing/file", "shared/missing" + missing},
        {"shared/link", "shared/link has further names, and others can write to its directory"},
        {"own/listed", hasLists ? "own/listed" + byOthers + "0764)" : ""},
        {"own/link", ""},
        {"own/through/file", "open" + byOthers + "0777)"},
        {"own/through/../own/file", "open" + byOthers + "0777)"},
        {"own/absolute", "shared/of another" + ofAnother},
        {"shared/of another", "shared/of another" + ofAnother},
        {"own/loop", ""},
    };
    for (const auto& [name, reason] : rows)
        EXPECT_EQ(Reason(name), reason) << name;
    EXPECT_FALSE(Testing::CatchError([] { Agent::RequireOwnFile("", "/dev/null"); }));
    const fs::path before = fs::current_path();
    fs::current_path(directory / "foreign");
    EXPECT_TRUE(Testing::CatchError([] { Agent::RequireOwnFile("", "file"); }));
    // Where no path reaches, a file opens all the same.
    fs::current_path(directory / "own");
    const std::string longName(250, 'n');
    for (int level = 0; level < 20; ++level) {
        fs::create_directory(longName);
        fs::current_path(longName);
    }
    EXPECT_TRUE(Testing::CatchError([] { Agent::RequireOwnFile("", "file"); }));
    fs::current_path(before);
}

TEST_F(FileGuard, OrdinaryUserIsSparedAnothersLinksAlone)
{
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([&] {
        for (const char* name : {"own/file", "own/link", "open/file", "foreign/file", "shared/missing"}) {
            if (!Reason(name).empty())
                return false;
        }
        return !Reason("shared/of another").empty() && !Reason("own/absolute").empty();
    }));
}

TEST_F(FileGuard, LogInASharedDirectoryIsMadeBeforeOthersCan)
{
    Agent::RequireOwnLog(directory / "shared/log");
    struct stat status
    {};
    ASSERT_EQ(stat((directory / "shared/log").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 0137, 0u);
    EXPECT_EQ(status.st_uid, 0u);
    Agent::RequireOwnLog(directory / "shared/log");
    for (const char* name : {"shared/foreign", "shared/none/log", "shared/of another", "open/log"})
        EXPECT_TRUE(Testing::CatchError([&] { Agent::RequireOwnLog(directory / name); })) << name;
    EXPECT_FALSE(fs::exists(directory / "open/log"));
}

TEST_F(FileGuard, TheProgramUsesNoneOfThem)
{
    const std::string file = directory / "open/file", store = directory / "own/store";
    const std::vector<std::string> backup{"backup", "--store", store, directory / "own"};
    const auto with = [&](std::vector<std::string> front) {
        front.insert(front.end(), backup.begin(), backup.end());
        return front;
    };
    const std::tuple<const char*, const char*, std::vector<std::string>> rows[] = {
        {"The configuration", file.c_str(), backup},
        {"The log", "/dev/null", with({"--log", file})},
        {"The job file", "/dev/null", {"backup", "--store", store, "--job", file}},
    };
    for (const auto& [what, configuration, arguments] : rows) {
        setenv("KBAGENT_CONFIG", configuration, 1);
        const auto result = Testing::RunProgram(arguments);
        EXPECT_EQ(result.exitCode, 1) << what;
        EXPECT_EQ(result.errors, "kbagent: error: " + std::string(what) + " " + file + " is refused: " +
                                     (directory / "open") + " can be written to by others (mode 0777)\n");
    }
    unsetenv("KBAGENT_CONFIG");
    EXPECT_FALSE(fs::exists(store));
    EXPECT_EQ(Testing::ReadFile(file), "");
}

} // namespace
