// Trees with every kind of entry are backed up and restored, and the restored tree is compared with its
// source.
#include "testing/AccessList.h"
#include "testing/ProgramFixture.h"
#include "testing/StoreFiles.h"
#include "testing/Tree.h"

#include <filesystem>
#include <fstream>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace Testing;

namespace {

// An ordinary user may use the store and the target, too.
class RoundTrip : public ProgramFixture
{
protected:
    void SetUp() override
    {
        directory.MakeDirectory("store");
        if (geteuid() == 0) {
            chmod(directory.Path().c_str(), 0755);
            for (const std::string& path : {target, store})
                ASSERT_EQ(chown(path.c_str(), OrdinaryUser, OrdinaryUser), 0);
        }
        chmod(store.c_str(), 0700);
    }
    ProgramResult Backup(int exitCode, unsigned int user = 0) const
    {
        return Run(exitCode, {"backup", source}, {.user = user});
    }
    ProgramResult Restore(int exitCode, unsigned int user = 0) const
    {
        return Run(exitCode, {"restore", "--to", target}, {.user = user});
    }
    void ExpectAllComesBack(unsigned int user = 0) const
    {
        Backup(0, user);
        Restore(0, user);
        EXPECT_EQ(DescribeTree(Restored()), DescribeTree(source));
    }
    std::string Restored() const { return target + source; }
    struct stat StatusOf(const std::string& name) const { return Testing::StatusOf(Restored() + name); }
};

TEST_F(RoundTrip, EveryTypeIsRestoredIdentically)
{
    MakeTree(source, EveryKindOfEntry());
    setxattr((source + "/dir/text").c_str(), "user.comment", "a\0b", 3, 0);
    setxattr((source + "/dir").c_str(), "user.empty", "", 0, 0);
    ExpectAllComesBack();
    EXPECT_LT(StatusOf("/dir/zeros").st_blocks * 512, 300000) << "zeros come back as a hole";
    // Restoring over the restored tree changes nothing and leaves nothing else.
    ExpectAllComesBack();
}

TEST_F(RoundTrip, OrdinaryUserRestoresOwnEntries)
{
    MakeTree(source, EveryKindOfEntry());
    MakeTree(source, {File("read only", "x"), Dir("read only dir")});
    for (const char* name : {"/read only", "/read only dir"}) {
        setxattr((source + name).c_str(), "user.comment", "a", 1, 0);
        GiveAccessList(source + name, "access");
        ASSERT_EQ(chmod((source + name).c_str(), 0550), 0);
    }
    if (geteuid() == 0) {
        for (const auto& entry : std::filesystem::recursive_directory_iterator(source))
            ASSERT_EQ(lchown(entry.path().c_str(), OrdinaryUser, OrdinaryUser), 0);
        ASSERT_EQ(chmod((source + "/setuid").c_str(), 04755), 0); // the change of owner took the bit
        ASSERT_EQ(chown(source.c_str(), OrdinaryUser, OrdinaryUser), 0);
    }
    ExpectAllComesBack(OrdinaryUser);
}

TEST_F(RoundTrip, RootRestoresOwnersDevicesAndSecurityAttributes)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root";
    MakeTree(source,
             {Dir("dir", 0750), File("suid", "x"), File("locked", "secret", 0000), Dir("closed", 0000),
              File("closed/inside", "y"), File("capable", "z"), Link("link", "dir")});
    const auto own = [&](const char* name, uid_t user, gid_t group) {
        return lchown((source + name).c_str(), user, group) == 0;
    };
    ASSERT_TRUE(own("/suid", 1234, 5678) && own("/dir", 42, 43) && own("/link", 44, 45));
    ASSERT_EQ(chmod((source + "/suid").c_str(), 06755), 0);
    if (mknod((source + "/device").c_str(), S_IFCHR | 0640, makedev(1, 3)) != 0)
        GTEST_SKIP() << "may not make device nodes";
    // cap_net_bind_service=ep in the kernel's second format.
    const unsigned char capability[] = {1, 0, 0, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    setxattr((source + "/capable").c_str(), "security.capability", capability, sizeof capability, 0);
    GiveAccessList(source + "/suid", "access");
    GiveAccessList(source + "/dir", "default");
    ExpectAllComesBack();
}

TEST_F(RoundTrip, MissingRightsAreReported)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root";
    MakeTree(source, {File("suid", "x", 06755), File("locked", "secret", 0000), File("plain", "y")});
    Backup(0);
    ASSERT_EQ(system(("chown -R " + std::to_string(OrdinaryUser) + " " + store).c_str()), 0);
    const std::string errors = Restore(3, OrdinaryUser).errors;
    for (const char* name : {"/suid", "/locked", "/plain"})
        EXPECT_TRUE(Holds(errors, source + name + ": owner 0:0 not restored"));
    EXPECT_TRUE(Holds(errors, "set-user-id"));
    EXPECT_EQ(StatusOf("/suid").st_mode & 07777, 0755u);
    EXPECT_EQ(ReadFile(Restored() + "/plain"), "y");
}

TEST_F(RoundTrip, UnreadableEntryFailsAlone)
{
    MakeTree(source,
             {File("locked", "secret", 0000), Dir("closed", 0000), Socket("socket"), File("plain", "y")});
    const std::string errors = Backup(3, OrdinaryUser).errors;
    for (const char* name : {"/locked", "/closed", "/socket"})
        EXPECT_TRUE(Holds(errors, source + name));
    EXPECT_FALSE(Holds(errors, source + "/plain"));
    EXPECT_EQ(StoredPaths(store, source), (std::vector<std::string>{"", "/closed", "/plain"}));
}

TEST_F(RoundTrip, SparseFileOfFiveGigabytes)
{
#ifdef NDEBUG
    const std::string name = "/sparse";
    std::ofstream(source + name).seekp(3LL << 30) << "middle";
    std::filesystem::resize_file(source + name, 5LL << 30);
    Backup(0);
    Restore(0);
    EXPECT_EQ(StatusOf(name).st_size, 5LL << 30);
    EXPECT_LT(StatusOf(name).st_blocks * 512, 1 << 20);
    std::ifstream restored(Restored() + name);
    std::string middle(6, '\0');
    restored.seekg(3LL << 30).read(middle.data(), 6);
    EXPECT_EQ(middle, "middle");
#else
    GTEST_SKIP() << "takes too long without optimisation";
#endif
}

} // namespace
