// Trees with every kind of entry are backed up and restored, and the restored tree is compared with its
// source.
#include "testing/AccessList.h"
#include "testing/RepositoryFixture.h"
#include "testing/Tree.h"

#include <filesystem>
#include <fstream>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace Testing;

namespace {

class RoundTrip : public RepositoryFixture
{
protected:
    RoundTrip()
    {
        Create();
        GiveToOrdinaryUser();
    }
    ProgramResult Backup(int exitCode, unsigned int user = 0) const
    {
        return Run(exitCode, {"backup", source}, {.user = user});
    }
    ProgramResult Restore(int exitCode, unsigned int user = 0) const
    {
        return Run(exitCode, {"restore", "latest", "--target", target}, {.user = user});
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
