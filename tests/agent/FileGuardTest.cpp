// The rules for paths that other users must not be able to change: root's configuration, job file and log,
// and the target of a restore.
#include "agent/Run/FileGuard.h"
#include "agent/Restore/Target.h"

#include "testing/AccessList.h"
#include "testing/OrdinaryUser.h"
#include "testing/Program.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Tree.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <tuple>
#include <unistd.h>

using namespace Testing;
namespace fs = std::filesystem;

namespace {

constexpr unsigned int Other = 1234;
constexpr int MostLinks = 40;

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
                        File("own/foreign", ""), File("own/of a group", "", 0664), Dir("own/0"),
                        File("own/of others", "", 0666), File("own/listed", "", 0600)});
        MakeTree(root, {Dir("foreign"), Dir("foreign/deep"), Link("foreign/link", "../own"), Dir("listed"),
                        Link("listed/link", "../own")});
        MakeTree(root, {Dir("shared", 01777), File("shared/file", ""), File("shared/foreign", ""),
                        File("shared/two names", ""), Link("shared/of another", "../own"),
                        Link("shared/own link", "../own"), Dir("shared/theirs"), Dir("open", 0777),
                        File("open/file", ""), Link("open/link", "../own")});
        MakeTree(root,
                 {Link("own/link", "file"), Link("own/through", "../open"), Link("own/loop", "loop"),
                  Link("own/absolute", root + "/shared/of another"), Link("own/link of two names", "../own"),
                  Hard("shared/link", "own/link of two names"), Hard("own/other name", "shared/two names")});
        for (int link = 1; link <= MostLinks + 1; ++link)
            fs::create_symlink(std::to_string(link - 1), directory / ("own/" + std::to_string(link)));
        for (const char* name :
             {"own/foreign", "foreign", "shared/foreign", "shared/of another", "shared/theirs"})
            ASSERT_EQ(lchown((directory / name).c_str(), Other, 0), 0);
        ASSERT_EQ(chown((directory / "own/of a group").c_str(), 0, Other), 0);
        hasLists = GiveAccessList(directory / "own/listed", "access") &&
                   GiveAccessList(directory / "listed", "access");
    }

    // The reason for which the path is refused, with paths below the directory; nothing if it is accepted.
    template <class Use>
    std::string Reason(const std::string& what, const std::string& name, Use use) const
    {
        const auto error = CatchError([&] { use(directory / name); });
        const std::string text = error ? error->GetMessage().Bytes() : "";
        const std::string front = what + " " + (directory / name) + " is refused: " + directory.Path() + "/";
        return text.starts_with(front) ? text.substr(front.size()) : text;
    }
    std::string ReasonForFile(const std::string& name) const
    {
        return Reason("The job file", name,
                      [](const auto& path) { Agent::RequireOwnFile("The job file", path); });
    }
    std::string ReasonForTarget(const std::string& name, const std::string& repository = "/proc") const
    {
        return Reason("The target", name, [&](const auto& path) {
            Agent::Report report;
            const auto source = Krt::File::YDirectory::OpenToSearch(repository.c_str());
            Agent::OpenTarget(path, &source, report);
        });
    }

    TemporaryDirectory directory;
    bool hasLists = false;
};

TEST_F(FileGuard, FileThatOthersCanChangeIsRefused)
{
    const std::string byOthers = " can be written to by others (mode ", isOpen = "open" + byOthers + "0777)";
    const std::string byAnother = " belongs to the user 1234", ofAnother = " is a link that" + byAnother;
    const std::string others = ", and others can write to its directory", isLink = " is a link" + others;
    const std::string missing = " doesn't exist" + others, names = " has further names" + others;
    const std::string listed = "listed" + byOthers + "0764)", tooMany = " leads through too many links";
    constexpr std::nullopt_t FilesOnly = std::nullopt;
    const std::tuple<const char*, std::string, std::optional<std::string>> rows[] = {
        {"own/file", "", FilesOnly},
        {"own/file/below", "", FilesOnly},
        {"own/of roots group", "", FilesOnly},
        {"own/of others", "own/of others" + byOthers + "0666)", FilesOnly},
        {"own/of a group", "own/of a group" + byOthers + "0664)", FilesOnly},
        {"own/listed", hasLists ? "own/" + listed : "", FilesOnly},
        {"own/foreign", "own/foreign" + byAnother, FilesOnly},
        {"own/other name", "", FilesOnly},
        {"own/missing", "", ""},
        {"own/missing/file", "", ""},
        {"own/link", "", FilesOnly},
        {"own/through/file", isOpen, FilesOnly},
        {"own/through/../own", isOpen, ""},
        {"own/absolute", "shared/of another" + ofAnother, "shared/of another" + ofAnother},
        {"own/loop", "own/loop" + tooMany, "own/loop" + tooMany},
        {"own/40/new", "", ""},
        {"own/41", "own/1" + tooMany, "own/1" + tooMany},
        {"open/new", isOpen, ""},
        {"open/../own", isOpen, ""},
        {"open/link", isOpen, "open/link" + isLink},
        {"listed/new", hasLists ? listed : "", ""},
        {"listed/link", hasLists ? listed : "", hasLists ? "listed/link" + isLink : ""},
        {"foreign/new", "foreign" + byAnother, ""},
        {"foreign/deep/new", "foreign" + byAnother, ""},
        {"foreign/link", "foreign" + byAnother, "foreign/link" + isLink},
        {"shared//./file/.", "", FilesOnly},
        {"shared/foreign", "shared/foreign" + byAnother, FilesOnly},
        {"shared/theirs/new", "shared/theirs" + byAnother, "shared/theirs" + byAnother + others},
        {"shared/two names", "shared/two names" + names, FilesOnly},
        {"shared/missing", "shared/missing" + missing, ""},
        {"shared/none/file", "shared/none" + missing, ""},
        {"shared/own link/new", "", ""},
        {"shared/link", "shared/link" + names, "shared/link" + names},
        {"shared/of another", "shared/of another" + ofAnother, "shared/of another" + ofAnother},
    };
    for (const auto& [name, forFile, forTarget] : rows)
        EXPECT_EQ(ReasonForFile(name), forFile) << name;
    for (const auto& [name, forFile, forTarget] : rows) {
        if (!forTarget)
            continue;
        EXPECT_EQ(ReasonForTarget(name), *forTarget) << name;
        EXPECT_TRUE(!forTarget->empty() || fs::is_directory(directory / name)) << name;
    }
    EXPECT_TRUE(ReasonForTarget("own/file").ends_with("Failed to open directory: file"));
    EXPECT_TRUE(ReasonForTarget("own/a/b", directory / "own").ends_with("; nothing is restored there"));
    EXPECT_FALSE(fs::exists(directory / "own/a"));
    EXPECT_FALSE(CatchError([] { Agent::RequireOwnFile("", "/dev/null"); }));
    const auto isRefusedHere = [] {
        return CatchError([] { Agent::RequireOwnFile("", "file"); }).has_value();
    };
    const fs::path before = fs::current_path();
    fs::current_path(directory / "foreign");
    EXPECT_TRUE(isRefusedHere());
    // A path that is too long for one system call.
    fs::current_path(directory / "own");
    const std::string longName(250, 'n');
    for (int level = 0; level < 20; ++level) {
        fs::create_directory(longName);
        fs::current_path(longName);
    }
    EXPECT_FALSE(isRefusedHere());
    chmod(".", 0777);
    EXPECT_TRUE(isRefusedHere());
    fs::current_path(before);
}

TEST_F(FileGuard, OrdinaryUserIsRefusedOnlyOthersLinks)
{
    EXPECT_TRUE(HoldsAsOrdinaryUser([&] {
        for (const char* name : {"own/file", "own/link", "open/file", "foreign/deep", "shared/missing"}) {
            if (!ReasonForFile(name).empty())
                return false;
        }
        return !ReasonForFile("shared/of another").empty() && !ReasonForFile("own/absolute").empty() &&
               !ReasonForTarget("own/absolute").empty() && ReasonForTarget("open/link").empty();
    }));
}

TEST_F(FileGuard, LogInSharedDirectoryIsCreatedFirst)
{
    Agent::RequireOwnLog(directory / "shared/log");
    EXPECT_EQ(StatusOf(directory / "shared/log").st_mode & 0137, 0u);
    EXPECT_EQ(StatusOf(directory / "shared/log").st_uid, 0u);
    Agent::RequireOwnLog(directory / "shared/log");
    for (const char* name : {"shared/foreign", "shared/none/log", "shared/of another", "open/log"})
        EXPECT_TRUE(CatchError([&] { Agent::RequireOwnLog(directory / name); })) << name;
    EXPECT_TRUE(Holds(Reason("The log", "shared/none/log", Agent::RequireOwnLog), ": the directory "));
    EXPECT_FALSE(fs::exists(directory / "open/log"));
}

TEST_F(FileGuard, ProgramRefusesEach)
{
    const std::string file = directory / "open/file", none = directory / "none";
    const std::tuple<const char*, std::string, std::vector<std::string>> rows[] = {
        {"The configuration", file, {"backup", "-r", none, directory / "own"}},
        {"The log", "/dev/null", {"--log", file, "backup", "-r", none, directory / "own"}},
        {"The job file", "/dev/null", {"backup", "-r", none, "--job", file}},
    };
    for (const auto& [what, configuration, arguments] : rows) {
        setenv("KBAGENT_CONFIG", configuration.c_str(), 1);
        const auto result = RunProgram(arguments);
        EXPECT_EQ(result.exitCode, 1) << what;
        EXPECT_EQ(result.errors, "kbagent: error: " + std::string(what) + " " + file + " is refused: " +
                                     (directory / "open") + " can be written to by others (mode 0777)\n");
    }
    unsetenv("KBAGENT_CONFIG");
    EXPECT_EQ(ReadFile(file), "");
    const std::string password = directory.Write("own/of others", "secret");
    EXPECT_TRUE(Holds(RunProgram({"snapshots", "-r", none, "-p", password}).errors,
                      "Warning: other users can change the password file " + password + ": " + password +
                          " can be written to by others (mode 0666)\n"));
}

} // namespace
