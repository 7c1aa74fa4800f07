// Root's program takes its configuration, job and log only from where nobody else can change them.
#include "agent/Run/FileGuard.h"

#include "testing/AccessList.h"
#include "testing/OrdinaryUser.h"
#include "testing/Program.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Tree.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

using namespace Testing;
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
        const std::string& root = directory.Path();
        MakeTree(root, {Dir("own"), File("own/file", ""), File("own/of roots group", "", 0664),
                        File("own/foreign", ""), File("own/of a group", "", 0664),
                        File("own/of others", "", 0666), File("own/listed", "", 0600)});
        MakeTree(root, {Dir("foreign"), File("foreign/file", ""), Dir("foreign/deep"),
                        File("foreign/deep/file", "")});
        MakeTree(root, {Dir("shared", 01777), File("shared/file", ""), File("shared/foreign", ""),
                        File("shared/two names", ""), Link("shared/of another", "../own/file"),
                        Dir("open", 0777), File("open/file", "")});
        MakeTree(root, {Link("own/link", "file"), Link("own/through", "../open"),
                        Link("own/absolute", root + "/shared/of another"), Link("own/loop", "loop"),
                        Link("own/link of two names", "file"), Hard("shared/link", "own/link of two names"),
                        Hard("own/other name", "shared/two names")});
        for (const char* name : {"own/foreign", "foreign", "shared/foreign", "shared/of another"})
            ASSERT_EQ(lchown((directory / name).c_str(), Other, 0), 0);
        ASSERT_EQ(chown((directory / "own/of a group").c_str(), 0, Other), 0);
        hasLists = GiveAccessList(directory / "own/listed", "access");
    }

    // Why the file is refused, with paths below the directory; nothing if it isn't.
    std::string Reason(const std::string& name) const
    {
        const auto error = CatchError([&] { Agent::RequireOwnFile("The job file", directory / name); });
        if (!error)
            return "";
        const std::string text = error->GetMessage().Bytes();
        const std::string front =
            "The job file " + (directory / name) + " is refused: " + directory.Path() + "/";
        EXPECT_TRUE(text.starts_with(front)) << text;
        return text.substr(std::min(front.size(), text.size()));
    }

    TemporaryDirectory directory;
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
    EXPECT_FALSE(CatchError([] { Agent::RequireOwnFile("", "/dev/null"); }));
    const fs::path before = fs::current_path();
    fs::current_path(directory / "foreign");
    EXPECT_TRUE(CatchError([] { Agent::RequireOwnFile("", "file"); }));
    // Where no path reaches, a file opens all the same.
    fs::current_path(directory / "own");
    const std::string longName(250, 'n');
    for (int level = 0; level < 20; ++level) {
        fs::create_directory(longName);
        fs::current_path(longName);
    }
    EXPECT_TRUE(CatchError([] { Agent::RequireOwnFile("", "file"); }));
    fs::current_path(before);
}

TEST_F(FileGuard, OrdinaryUserIsSparedAnothersLinksAlone)
{
    EXPECT_TRUE(HoldsAsOrdinaryUser([&] {
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
    EXPECT_EQ(StatusOf(directory / "shared/log").st_mode & 0137, 0u);
    EXPECT_EQ(StatusOf(directory / "shared/log").st_uid, 0u);
    Agent::RequireOwnLog(directory / "shared/log");
    for (const char* name : {"shared/foreign", "shared/none/log", "shared/of another", "open/log"})
        EXPECT_TRUE(CatchError([&] { Agent::RequireOwnLog(directory / name); })) << name;
    EXPECT_FALSE(fs::exists(directory / "open/log"));
}

TEST_F(FileGuard, TheProgramUsesNoneOfThem)
{
    const std::string file = directory / "open/file", store = directory / "own/store";
    const std::tuple<const char*, std::string, std::vector<std::string>> rows[] = {
        {"The configuration", file, {"backup", "--store", store, directory / "own"}},
        {"The log", "/dev/null", {"--log", file, "backup", "--store", store, directory / "own"}},
        {"The job file", "/dev/null", {"backup", "--store", store, "--job", file}},
    };
    for (const auto& [what, configuration, arguments] : rows) {
        setenv("KBAGENT_CONFIG", configuration.c_str(), 1);
        const auto result = RunProgram(arguments);
        EXPECT_EQ(result.exitCode, 1) << what;
        EXPECT_EQ(result.errors, "kbagent: error: " + std::string(what) + " " + file + " is refused: " +
                                     (directory / "open") + " can be written to by others (mode 0777)\n");
    }
    unsetenv("KBAGENT_CONFIG");
    EXPECT_FALSE(fs::exists(store));
    EXPECT_EQ(ReadFile(file), "");
}

} // namespace
