// Restores of hostile snapshots, into hostile targets, and while another process swaps entries of the target:
// nothing outside the target changes. The fixture compares the tree outside after each restore.
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
    // Another hard link to a file outside, as its owner could create.
    void Plant(const std::string& name) const
    {
        fs::create_hard_link(directory / "outside/dir/file", target + "/" + name);
    }
    // Creates the entries that the races below swap.
    void PlantForRaces() const
    {
        for (const fs::directory_entry& entry : fs::directory_iterator(target))
            fs::remove_all(entry.path());
        const std::string outside = directory / "outside/dir";
        MakeTree(target,
                 {Dir("d"), Dir("d/sub"), Dir("other"), Link("to outside", outside),
                  Link("to outside sub", outside + "/sub"), Link("to outside file", outside + "/file")});
        Plant("planted");
    }
    // Makes everything accessible to a user who owns only the target.
    void OpenToOrdinaryUser() const
    {
        chmod(directory.Path().c_str(), 0755);
        ASSERT_TRUE(geteuid() != 0 || chown(target.c_str(), OrdinaryUser, OrdinaryUser) == 0);
    }
};

TEST_F(RestorePrison, HardLinksStayInsideTarget)
{
    Plant("name of a file outside");
    MakeSnapshot({Directory("dir", {FileWith("first", "content", 0644, 7)}),
                  FileWith("name of a file outside", "in its place"),
                  FileWith("second", "content", 0644, 7)});
    // The first name gives way to a file outside, of which the second must not become a name.
    const ProgramResult result = Restore(3, Hooked([&](const HookedCall& call) {
                                             if (call.function != "linkat")
                                                 return;
                                             fs::remove(target + "/dir/first");
                                             Plant("dir/first");
                                         }));
    EXPECT_TRUE(Holds(result.errors, "/second: restored as a file of its own"));
    EXPECT_EQ(ReadFile(target + "/second"), "content");
    EXPECT_EQ(ReadFile(target + "/name of a file outside"), "in its place");
}

TEST_F(RestorePrison, RelativePathFollowsNoLinkOnAnyKernel)
{
    const Krt::File::YDirectory root = OpenTarget();
    Krt::File::YDirectory deepest = OpenTarget();
    const std::vector<Krt::YString> tooLong(20, Krt::YString(std::string(250, 'n')));
    for (const Krt::YString& name : tooLong) {
        deepest.MakeDirectory(name, 0755);
        deepest = deepest.OpenDirectory(name);
    }
    MakeTree(target, {Dir("a"), Dir("a/b"), Dir("a/b/c"), Link("a/link", "b"),
                      Link("outside", directory / "outside")});
    const ino_t expected = StatusOf("a/b/c").st_ino;
    for (const bool isOld : {false, true}) {
        EXPECT_TRUE(HoldsAsOrdinaryUser([&] {
            const auto inodeOf = [&](const std::vector<Krt::YString>& names) {
                return root.OpenBelow(names).Stat().st_ino;
            };
            const auto fails = [&](const std::vector<Krt::YString>& names) {
                return CatchError([&] { inodeOf(names); }).has_value();
            };
            return (!isOld || TakeAwaySystemCall(SYS_openat2)) && inodeOf({"a", "b", "c"}) == expected &&
                   inodeOf(tooLong) == deepest.Stat().st_ino && fails({"a", "link", "c"}) &&
                   fails({"outside", "dir"}) && fails({"a", "..", "a"}) && fails({"a", "link"});
        })) << isOld;
    }
}

// Outside there is an entry of each name that the restore makes below "d".
TEST_F(RestorePrison, SwappedEntriesLeadNowhereOutside)
{
    constexpr std::pair<const char*, const char*> Races[] = {
        {"d", "to outside"},   {"d/sub", "to outside sub"}, {"d/file", "to outside file"},
        {"d/file", "planted"}, {"d/fifo", "planted"},       {"d/sub", "planted"},
        {"d", "other"}};
    std::vector<Recorded> sub = {FileWith("file", "evil")}, other,
                          d = {FifoAt("fifo"), FileWith("file", "evil"), LinkTo("link", "evil")};
    for (unsigned int inode = 1; inode <= 15; ++inode) {
        const std::string number = std::to_string(inode);
        sub.push_back(FileWith("first" + number, "evil", 0644, inode));
        other.push_back(FileWith("second" + number, "evil", 0644, inode));
        d.push_back(FileWith("file" + number, "evil"));
    }
    d.push_back(Directory("sub", sub, 0711));
    MakeSnapshot({Directory("d", d, 0750), Directory("other", other)});
    const auto makeKernelOld = [] {
        TakeAwaySystemCall(SYS_openat2);
    };
    unsigned long swaps = 0;
    for (const auto& [a, b] : Races) {
        for (const ProgramSettings& settings : {ProgramSettings{}, {.prepare = makeKernelOld}}) {
            const auto restore = [&, &a = a] {
                for (int time = 0; time < 3; ++time) { // also onto what is restored
                    const ProgramResult result = Restore(-1, settings);
                    EXPECT_TRUE(result.exitCode == 0 || result.exitCode == 3) << a << result.errors;
                }
            };
            swaps += SwapDuring(
                target + "/" + a, target + "/" + b, [&] { PlantForRaces(); }, restore);
            EXPECT_EQ(DescribeOutside(), before) << a << " and " << b;
        }
    }
    RecordProperty("swaps", std::to_string(swaps));
}

TEST_F(RestorePrison, NewEntryIsNotSwappedForFileOutside)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs two users";
    OpenToOrdinaryUser();
    Recorded entry = FifoAt("fifo");
    entry.node.uid = 1234;
    entry.node.mtime.seconds = 1500000000;
    MakeSnapshot({entry, FileWith("file", "content")});
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
        Restore(row.exitCode, Hooked([&](const HookedCall& call) {
                    if (call.function != row.function || !call.name.starts_with(TemporaryPrefix))
                        return;
                    if (call.name.size() != std::strlen(TemporaryPrefix) + 16)
                        _exit(98); // the name must have 64 random bits
                    directory.Write(row.function, "tried");
                    const bool isLowered = seteuid(OrdinaryUser) == 0;
                    SwapEntries(call.descriptor, call.name, AT_FDCWD, target + "/" + row.other);
                    if (!isLowered || seteuid(0) != 0)
                        _exit(99);
                }));
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

TEST_F(RestorePrison, ReplacementOfDirectoryStaysUnchanged)
{
    constexpr std::pair<const char*, mode_t> Rows[] = {
        {"another directory", 0755}, {"another directory", 0500}, {"planted", 0500}};
    const fs::path place = target + "/dir";
    Plant("planted");
    for (const auto& [name, mode] : Rows) {
        const std::string replacement = target + "/" + name;
        fs::create_directories(place);
        fs::create_directories(target + "/another directory");
        chmod(place.c_str(), mode);
        OpenToOrdinaryUser();
        for (const std::string& path : {place.string(), replacement})
            ASSERT_TRUE(geteuid() != 0 || chown(path.c_str(), OrdinaryUser, 0) == 0);
        const timespec old[2] = {{5, 0}, {5, 0}};
        utimensat(AT_FDCWD, place.c_str(), old, 0);
        before = DescribeOutside();
        const std::string held = DescribeTree(target);
        EXPECT_TRUE(HoldsAsOrdinaryUser([&] {
            bool isSwapped = false;
            const CallHook hook([&](const HookedCall& call) {
                if (!isSwapped && call.name == "dir" && call.function != "fstatat")
                    isSwapped = SwapEntries(AT_FDCWD, place, AT_FDCWD, replacement);
            });
            Agent::TargetTree tree(OpenTarget(), "staging", [](const auto&...) {});
            return CatchError([&] { tree.ParentOf({"dir", "new"}).MakeDirectory("new", 0700); }) && isSwapped;
        })) << name;
        EXPECT_EQ(DescribeOutside(), before) << name;
        ASSERT_TRUE(SwapEntries(AT_FDCWD, place, AT_FDCWD, replacement));
        EXPECT_EQ(DescribeTree(target), held) << name;
    }
}

TEST_F(RestorePrison, SetUserIdIsSetAfterOwner)
{
    Recorded file = FileWith("file", "x", 06755);
    MakeSnapshot({file});
    Restore(0, Hooked([](const HookedCall& call) {
                struct stat status;
                if (call.function == "fchown" &&
                    (fstat(call.descriptor, &status) != 0 || (status.st_mode & 07777) != 0600))
                    _exit(99);
            }));
    EXPECT_EQ(StatusOf("file").st_mode & 07777, 06755u);
    fs::remove(target + "/file");
    file.node.uid = Krt::File::KeepOwner;
    RestoreOf(3, {file});
    EXPECT_EQ(StatusOf("file").st_mode & 07777, 02755u);
    fs::remove(target + "/file");
    file.node.gid = Krt::File::KeepOwner;
    RestoreOf(3, {file});
    EXPECT_EQ(StatusOf("file").st_mode & 07777, 0755u);
}

TEST_F(RestorePrison, AccessListsOfTargetGiveNoRights)
{
    fs::create_directory(target + "/standing");
    if (!GiveAccessList(target, "default") || !GiveAccessList(target + "/standing", "default") ||
        !GiveAccessList(target + "/standing", "access"))
        GTEST_SKIP() << "this file system keeps no access lists";
    RestoreOf(0, {Directory("standing", {}, 0750), Directory("dir", {FileWith("file", "secret")}, 0770),
                  FifoAt("fifo", 0660)});
    unsigned int places = 0;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(target)) {
        for (const char* list : {"system.posix_acl_access", "system.posix_acl_default"})
            EXPECT_LT(lgetxattr(entry.path().c_str(), list, nullptr, 0), 0) << entry.path() << list;
        ++places;
    }
    EXPECT_EQ(places, 4u);
    EXPECT_EQ(StatusOf("dir").st_mode & 07777, 0770u);
}

TEST_F(RestorePrison, LinkOfOtherUserToTargetIsNotFollowed)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs two users";
    MakeTree(directory.Path(), {Dir("shared", 01777), Dir("shared/theirs"), Dir("home"), Dir("home/swapped"),
                                Dir("open", 0777)});
    const auto giveAway = [&](const std::string& name) {
        return lchown((directory / name).c_str(), OrdinaryUser, OrdinaryUser) == 0;
    };
    for (const char* name : {"shared/theirs", "home", "home/swapped"})
        ASSERT_TRUE(giveAway(name)) << name;
    MakeSnapshot({Directory("dir", {FileWith("file", "evil")})});
    const std::tuple<const char*, int, std::string> rows[] = {
        {"shared/theirs/new", 1, "shared/theirs belongs to the user " + std::to_string(OrdinaryUser)},
        {"home/swapped", 1, "swapped: Not a directory"},
        {"open/new", 0, "open can be written to by others, who may put something else in the place"},
    };
    const ProgramSettings attacked = Hooked([&](const HookedCall& call) {
        if (call.function != "openat" || call.name != "swapped")
            return;
        fs::rename(directory / "home/swapped", directory / "home/moved");
        fs::create_symlink(directory / "outside", directory / "home/swapped");
        if (!giveAway("home/swapped"))
            _exit(99);
    });
    for (const auto& [name, exitCode, expected] : rows) {
        target = directory / name;
        EXPECT_TRUE(Holds(Restore(exitCode, attacked).errors, expected)) << name;
        EXPECT_TRUE(exitCode != 0 || fs::exists(target + "/dir/file")) << name;
        EXPECT_EQ(DescribeOutside(), before) << name;
    }
}

} // namespace
