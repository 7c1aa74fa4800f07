// Restores of hostile snapshots, into hostile targets, and while somebody swaps what stands there: nothing
// outside the target changes. The fixture compares the tree outside after each.
#include "agent/Restore/TargetTree.h"

#include "testing/AccessList.h"
#include "testing/CallHook.h"
#include "testing/Flipper.h"
#include "testing/OrdinaryUser.h"
#include "testing/Raises.h"
#include "testing/RestoreFixture.h"
#include "testing/SystemCalls.h"

#include <cstring>
#include <filesystem>
#include <sys/syscall.h>
#include <tuple>

using namespace Testing;
namespace fs = std::filesystem;

namespace {

constexpr const char* TemporaryPrefix = ".kbagent-restore-";

class RestorePrison : public RestoreFixture
{
protected:
    static Agent::SnapshotEntry FifoAt(const Names& names, unsigned int mode = 0640)
    {
        return EntryOf(UnixRecord(names, S_IFIFO | mode));
    }
    // A further name of a file outside, as somebody may have made who owned it.
    void Plant(const std::string& name) const
    {
        fs::create_hard_link(directory / "outside/dir/file", target + "/" + name);
    }
    // What the races below swap.
    void PlantForRaces() const
    {
        for (const fs::directory_entry& entry : fs::directory_iterator(target))
            fs::remove_all(entry.path());
        fs::create_directories(target + "/d/sub");
        fs::create_directory(target + "/other");
        Plant("planted");
        fs::create_symlink(directory / "outside/dir", target + "/to outside");
        fs::create_symlink(directory / "outside/dir/sub", target + "/to outside sub");
        fs::create_symlink(directory / "outside/dir/file", target + "/to outside file");
    }
    // Makes everything reachable for somebody who owns the target and nothing else.
    void OpenToOrdinaryUser() const
    {
        chmod(directory.Path().c_str(), 0755);
        ASSERT_TRUE(geteuid() != 0 || chown(target.c_str(), OrdinaryUser, OrdinaryUser) == 0);
    }
};

const Names Hostile[] = {{"..", "outside", "file"},
                         {"a", "..", "..", "outside", "file"},
                         {".", "file"},
                         {"", "file"},
                         {"../outside/file"},
                         {"/etc/passwd"},
                         {"a/../../outside", "x"},
                         {std::string("a\0b", 3)}};

TEST_F(RestorePrison, RefusesComponentsThatCouldLeaveTheTarget)
{
    for (const Names& names : Hostile) {
        const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
            writer.Add(FileWith(names, "evil"));
            writer.Add(Directory(names));
            writer.Add(LinkTo(names, "evil"));
            writer.Add(FileWith({"good"}, "good"));
        });
        EXPECT_EQ(result.exitCode, 3) << names.front() << result.errors;
        EXPECT_NE(result.errors.find("Refused"), std::string::npos) << result.errors;
        EXPECT_EQ(ReadFile(target + "/good"), "good");
        EXPECT_EQ(std::distance(fs::directory_iterator(target), fs::directory_iterator()), 1)
            << names.front();
    }
}

TEST_F(RestorePrison, AnImportLeadsNowhereElse)
{
    std::string records;
    for (const Names& names : Hostile) {
        Names path = names;
        path.insert(path.begin(), "C:");
        records += Line(WindowsRecord({{"C:", "good"}, path}, 0x20, 4).ToJSON());
        records += Line(UnixRecord(names, S_IFLNK | 0777, 0, directory / "outside").ToJSON());
    }
    directory.Write("contents/C:/good", "good");
    const ProgramResult import = RunProgram({"import", "--store", store, "--contents", directory / "contents",
                                             directory.Write("records", records)});
    EXPECT_EQ(import.exitCode, 3) << import.errors;
    const ProgramResult result = Restore();
    EXPECT_EQ(result.exitCode, 3) << result.errors;
    EXPECT_EQ(ReadFile(target + "/C/good"), "good");
    EXPECT_EQ(std::distance(fs::recursive_directory_iterator(target), {}), 2);
}

TEST_F(RestorePrison, FollowsNoLinkOnTheWay)
{
    fs::create_symlink(directory / "outside", target + "/planted");
    fs::create_symlink(directory / "outside/file", target + "/leaf");
    const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
        writer.Add(FileWith({"planted", "file"}, "evil"));
        writer.Add(Directory({"planted", "dir"}, 0700));
        writer.Add(Directory({"planted"}, 0700));
        writer.Add(LinkTo({"restored"}, directory / "outside"));
        writer.Add(FileWith({"restored", "dir", "file"}, "evil"));
        writer.Add(FileWith({"leaf"}, "in its place"));
        writer.Add(LinkTo({"twice"}, directory / "outside/file"));
        writer.Add(FileWith({"twice"}, "in its place"));
    });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_TRUE(fs::is_symlink(target + "/planted"));
    EXPECT_TRUE(fs::is_symlink(target + "/restored"));
    EXPECT_FALSE(fs::is_symlink(target + "/leaf"));
    EXPECT_EQ(ReadFile(target + "/leaf"), "in its place");
    EXPECT_FALSE(fs::is_symlink(target + "/twice"));
}

TEST_F(RestorePrison, HardLinksStayInsideTheTarget)
{
    Plant("name of a file outside");
    const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
        writer.Add(FileWith({"dir", "first"}, "content", 1));
        // The first name gives way to a link to the outside; the second name must not become a name of that.
        writer.Add(LinkTo({"dir", "first"}, directory / "outside/file"));
        writer.Add(FileWith({"second"}, "content", 1));
        // A group whose first name was refused.
        writer.Add(FileWith({"..", "outside", "file"}, "evil", 2));
        writer.Add(FileWith({"third"}, "of its own", 2));
        writer.Add(FileWith({"name of a file outside"}, "in its place"));
    });
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(ReadFile(target + "/second"), "content");
    EXPECT_FALSE(fs::is_symlink(target + "/second"));
    EXPECT_EQ(ReadFile(target + "/third"), "of its own");
    EXPECT_EQ(ReadFile(target + "/name of a file outside"), "in its place");
}

TEST_F(RestorePrison, AWayOfSeveralNamesFollowsNoLinkOnAnyKernel)
{
    using Krt::File::YDirectory;
    const YDirectory root = YDirectory::Open(Krt::File::YPath(target.c_str()));
    const std::vector<Krt::YString> tooLong(20, Krt::YString(std::string(250, 'n')));
    std::vector<YDirectory> levels;
    for (const Krt::YString& name : tooLong) {
        const YDirectory& above = levels.empty() ? root : levels.back();
        above.MakeDirectory(name, 0755);
        levels.push_back(above.OpenDirectory(name));
    }
    fs::create_directories(target + "/a/b/c");
    fs::create_symlink("b", target + "/a/link");
    fs::create_symlink(directory / "outside", target + "/outside");
    const ino_t expected = StatusOf("a/b/c").st_ino;
    for (const bool isOld : {false, true}) {
        EXPECT_TRUE(HoldsAsOrdinaryUser([&] {
            const auto way = [&](const std::vector<Krt::YString>& names) {
                return root.OpenBelow(names).Stat().st_ino;
            };
            const auto fails = [&](const std::vector<Krt::YString>& names) {
                return CatchError([&] { way(names); }).has_value();
            };
            return (!isOld || TakeAwaySystemCall(SYS_openat2)) && way({"a", "b", "c"}) == expected &&
                   way(tooLong) == levels.back().Stat().st_ino && fails({"a", "link", "c"}) &&
                   fails({"outside", "dir"}) && fails({"a", "..", "a"}) && fails({"a", "link"});
        })) << isOld;
    }
}

struct Race
{
    const char* label;
    const char* a;
    const char* b;
};

// Outside there is an entry of each name that the restore makes below "d".
const Race Races[] = {
    {"a parent and a link", "d", "to outside"},
    {"a directory below and a link", "d/sub", "to outside sub"},
    {"a leaf and a link", "d/file", "to outside file"},
    {"a leaf and a further name", "d/file", "planted"},
    {"a FIFO and a further name", "d/fifo", "planted"},
    {"a directory and a further name", "d/sub", "planted"},
    {"a parent and the directory beside it", "d", "other"},
};

TEST_F(RestorePrison, HoldsWhileSomebodySwapsWhatStandsThere)
{
    constexpr unsigned long EnoughSwaps = 2000;
    MakeSnapshot([&](Agent::SnapshotWriter& writer) {
        for (unsigned long long group = 1; group <= 15; ++group) {
            writer.Add(Directory({"d"}, 0750));
            writer.Add(FileWith({"d", "file"}, "evil"));
            writer.Add(LinkTo({"d", "link"}, "evil"));
            writer.Add(FifoAt({"d", "fifo"}));
            writer.Add(Directory({"d", "sub"}, 0711));
            writer.Add(FileWith({"d", "sub", "file"}, "evil"));
            writer.Add(FileWith({"d", "sub", "first"}, "evil", group));
            writer.Add(FileWith({"other", "second"}, "evil", group));
        }
    });
    ProgramSettings oldKernel;
    oldKernel.prepare = [] {
        TakeAwaySystemCall(SYS_openat2);
    };
    unsigned long allSwaps = 0;
    for (const Race& race : Races) {
        for (const ProgramSettings& settings : {ProgramSettings{}, oldKernel}) {
            unsigned long swaps = 0;
            do {
                PlantForRaces();
                const Flipper flipper(target + "/" + race.a, target + "/" + race.b);
                const ProgramResult result = Restore(settings);
                EXPECT_TRUE(result.exitCode == 0 || result.exitCode == 3) << race.label << result.errors;
                swaps += flipper.GetSwaps();
            } while (swaps < EnoughSwaps);
            EXPECT_EQ(DescribeOutside(), before) << race.label;
            allSwaps += swaps;
        }
    }
    RecordProperty("swaps", std::to_string(allSwaps));
}

TEST_F(RestorePrison, WhatIsBeingMadeCannotBeSwappedForAFileOutside)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs two users";
    OpenToOrdinaryUser();
    MakeSnapshot([&](Agent::SnapshotWriter& writer) {
        auto fifo = UnixRecord({"fifo"}, S_IFIFO | 0640);
        fifo.SetUserId(1234);
        fifo.SetLastWriteTime(1500000000);
        writer.Add(EntryOf(fifo));
        writer.Add(FileWith({"file"}, "content"));
    });
    const struct
    {
        std::string function; // before which it is swapped
        const char* other;
        int exitCode;
        mode_t mode;
    } rows[] = {{"fchownat", "planted", 0, 0640},
                {"fchmodat", "planted", 0, 0640},
                {"utimensat", "planted", 0, 0640},
                {"renameat", "planted", 0, 0640},
                // A directory in which the FIFO would not be safe: it gets no attributes there.
                {"openat", "of their own", 3, 0600}};
    fs::create_directory(target + "/of their own");
    ASSERT_EQ(chown((target + "/of their own").c_str(), OrdinaryUser, OrdinaryUser), 0);
    for (const auto& row : rows) {
        Plant("planted");
        ProgramSettings attacked;
        attacked.isLinked = true;
        attacked.prepare = [&] {
            static const CallHook hook([&](const HookedCall& call) {
                if (call.function != row.function || !call.name.starts_with(TemporaryPrefix))
                    return;
                if (call.name.size() != std::strlen(TemporaryPrefix) + 16)
                    _exit(98); // 64 random bits, which nobody guesses
                directory.Write(row.function, "tried");
                const bool isLowered = seteuid(OrdinaryUser) == 0;
                SwapEntries(call.descriptor, call.name, AT_FDCWD, target + "/" + row.other);
                if (!isLowered || seteuid(0) != 0)
                    _exit(99);
            });
        };
        const ProgramResult result = Restore(attacked);
        EXPECT_EQ(result.exitCode, row.exitCode) << row.function << result.errors;
        EXPECT_TRUE(fs::exists(directory / row.function)) << row.function;
        EXPECT_EQ(DescribeOutside(), before) << row.function;
        const struct stat fifo = StatusOf("fifo");
        EXPECT_EQ(fifo.st_mode, S_IFIFO | row.mode) << row.function;
        EXPECT_TRUE(row.exitCode != 0 || (fifo.st_uid == 1234 && fifo.st_mtime == 1500000000))
            << row.function;
        fs::remove(target + "/planted");
        fs::remove(target + "/fifo");
    }
}

TEST_F(RestorePrison, WhatReplacesADirectoryGetsNothingOfIts)
{
    const struct
    {
        const char* replacement;
        mode_t mode;
    } rows[] = {{"another directory", 0755}, {"another directory", 0500}, {"planted", 0500}};
    for (const auto& row : rows) {
        const fs::path place = target + "/dir";
        fs::create_directories(place);
        fs::create_directories(target + "/another directory");
        if (!fs::exists(target + "/planted"))
            Plant("planted");
        chmod(place.c_str(), row.mode);
        OpenToOrdinaryUser();
        for (const char* name : {"dir", row.replacement})
            ASSERT_TRUE(geteuid() != 0 || chown((target + "/" + name).c_str(), OrdinaryUser, 0) == 0);
        const timespec old[2] = {{5, 0}, {5, 0}};
        utimensat(AT_FDCWD, place.c_str(), old, 0);
        before = DescribeOutside();
        const std::string held = DescribeTree(target);
        EXPECT_TRUE(HoldsAsOrdinaryUser([&] {
            bool isSwapped = false;
            const CallHook hook([&](const HookedCall& call) {
                if (!isSwapped && call.name == "dir" && call.function != "fstatat")
                    isSwapped = SwapEntries(AT_FDCWD, place, AT_FDCWD, target + "/" + row.replacement);
            });
            Agent::TargetTree tree(Krt::File::YDirectory::Open(Krt::File::YPath(target.c_str())), "staging",
                                   [](const auto&, const auto&) {});
            return CatchError([&] { tree.ParentOf({"dir", "new"}).MakeDirectory("new", 0700); }) && isSwapped;
        })) << row.replacement;
        EXPECT_EQ(DescribeOutside(), before) << row.replacement;
        ASSERT_TRUE(SwapEntries(AT_FDCWD, place, AT_FDCWD, target + "/" + row.replacement));
        EXPECT_EQ(DescribeTree(target), held) << row.replacement;
    }
}

TEST_F(RestorePrison, SetUserIdComesBehindTheOwner)
{
    MakeSnapshot([&](Agent::SnapshotWriter& writer) {
        Agent::SnapshotEntry entry = WithContent(EntryOf(UnixRecord({"file"}, S_IFREG | 06755, 1)), "x");
        writer.Add(entry);
    });
    ProgramSettings watched;
    watched.isLinked = true;
    watched.prepare = [] {
        static const CallHook hook([](const HookedCall& call) {
            struct stat status;
            if (call.function == "fchown" &&
                (fstat(call.descriptor, &status) != 0 || (status.st_mode & 07777) != 0600))
                _exit(99);
        });
    };
    const ProgramResult result = Restore(watched);
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    EXPECT_EQ(StatusOf("file").st_mode & 07777, 06755u);

    const ProgramResult ownerless = RestoreOf([&](Agent::SnapshotWriter& writer) {
        auto record = UnixRecord({"file"}, S_IFREG | 06755, 1);
        record.SetUserId(Krt::File::KeepOwner);
        writer.Add(WithContent(EntryOf(record), "x"));
    });
    EXPECT_EQ(ownerless.exitCode, 3) << ownerless.errors;
    EXPECT_EQ(StatusOf("file").st_mode & 07777, 02755u);
}

TEST_F(RestorePrison, NobodyGetsRightsByTheListsOfTheTarget)
{
    fs::create_directory(target + "/standing");
    if (!GiveAccessList(target, "default") || !GiveAccessList(target + "/standing", "default") ||
        !GiveAccessList(target + "/standing", "access"))
        GTEST_SKIP() << "this file system keeps no access lists";
    const ProgramResult result = RestoreOf([&](Agent::SnapshotWriter& writer) {
        writer.Add(Directory({"standing"}, 0750));
        writer.Add(Directory({"dir"}, 0770));
        writer.Add(FileWith({"dir", "file"}, "secret"));
        writer.Add(FileWith({"without record", "file"}, "secret"));
        writer.Add(FifoAt({"fifo"}, 0660));
    });
    EXPECT_EQ(result.exitCode, 0) << result.errors;
    unsigned int places = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(target)) {
        for (const char* list : {"system.posix_acl_access", "system.posix_acl_default"})
            EXPECT_LT(lgetxattr(entry.path().c_str(), list, nullptr, 0), 0) << entry.path() << list;
        ++places;
    }
    EXPECT_EQ(places, 6u);
    EXPECT_EQ(StatusOf("dir").st_mode & 07777, 0770u);
    EXPECT_EQ(StatusOf("without record").st_mode & 07777, 0755u);
}

TEST_F(RestorePrison, NobodyElseDecidesWhereTheTargetLies)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs two users";
    const auto own = [&](const std::string& name, uid_t user, mode_t mode) {
        const std::string path = directory.MakeDirectory(name);
        return chown(path.c_str(), user, 0) == 0 && chmod(path.c_str(), mode) == 0;
    };
    const auto link = [&](const std::string& name, uid_t user) {
        fs::create_symlink(directory / "outside", directory / name);
        return lchown((directory / name).c_str(), user, user) == 0;
    };
    ASSERT_TRUE(own("shared", 0, 01777) && own("shared/theirs", OrdinaryUser, 0755) &&
                own("home", OrdinaryUser, 0755) && own("home/theirs", OrdinaryUser, 0755) &&
                own("home/swapped", OrdinaryUser, 0755) && own("open", 0, 0777) &&
                link("shared/link", OrdinaryUser) && link("shared/two names", 0) && link("home/link", 0) &&
                link("open/link", 0));
    fs::create_symlink("../target", directory / "shared/own link");
    ASSERT_EQ(::link((directory / "shared/two names").c_str(), (directory / "other name").c_str()), 0);
    MakeSnapshot([&](Agent::SnapshotWriter& writer) { writer.Add(FileWith({"dir", "file"}, "evil")); });
    const std::string user = " belongs to the user " + std::to_string(OrdinaryUser);
    const std::string others = ", and others can write to its directory";
    const std::tuple<const char*, int, std::string> rows[] = {
        {"shared/new/new", 0, ""},
        {"shared/own link", 0, ""},
        {"shared/theirs/new", 1, "shared/theirs" + user + others},
        {"shared/link/new", 1, "shared/link is a link that" + user},
        {"shared/two names", 1, "shared/two names is a link" + others},
        {"home/theirs/new", 0, ""},
        {"home/link", 1, "home/link is a link" + others},
        {"home/swapped", 1, "swapped: Not a directory"},
        {"open/new", 0, "open can be written to by others, who may put something else in the place"},
        {"open/link", 1, "open/link is a link" + others},
    };
    ProgramSettings attacked;
    attacked.isLinked = true;
    attacked.prepare = [&] {
        static const CallHook hook([&](const HookedCall& call) {
            if (call.function == "openat" && call.name == "swapped" &&
                (rename((directory / "home/swapped").c_str(), (directory / "home/moved").c_str()) != 0 ||
                 !link("home/swapped", OrdinaryUser)))
                _exit(99);
        });
    };
    for (const auto& [name, exitCode, told] : rows) {
        target = directory / name;
        const ProgramResult result = Restore(attacked);
        EXPECT_EQ(result.exitCode, exitCode) << name << result.errors;
        EXPECT_TRUE(Holds(result.errors, told)) << name;
        EXPECT_TRUE(exitCode != 0 || fs::exists(target + "/dir/file")) << name;
        EXPECT_EQ(DescribeOutside(), before) << name;
    }
}

} // namespace
