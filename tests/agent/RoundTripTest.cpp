// Trees of every kind go through backup and restore, and what comes back is compared with what was there.
#include "testing/Program.h"
#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Tree.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <sys/xattr.h>
#include <unistd.h>

using namespace Testing;

namespace {

// A source, a store and a target in one place, which an ordinary user may use, too.
class RoundTrip : public ::testing::Test
{
protected:
    void SetUp() override
    {
        source = directory.MakeDirectory("source");
        target = directory.MakeDirectory("target");
        store = directory.MakeDirectory("store");
        if (geteuid() == 0) {
            chmod(directory.Path().c_str(), 0755);
            for (const std::string& path : {target, store})
                ASSERT_EQ(chown(path.c_str(), OrdinaryUser, OrdinaryUser), 0);
        }
        chmod(store.c_str(), 0700);
    }

    ProgramResult Backup(unsigned int user = 0)
    {
        return RunProgram({"backup", "--store", store, source}, user);
    }
    ProgramResult Restore(unsigned int user = 0)
    {
        return RunProgram({"restore", "--store", store, "--to", target}, user);
    }
    std::string Restored() const { return target + source; }

    TemporaryDirectory directory;
    std::string source;
    std::string target;
    std::string store;
};

TEST_F(RoundTrip, EveryKindComesBackIdentical)
{
    MakeTree(source, EveryKindOfEntry());
    setxattr((source + "/dir/text").c_str(), "user.comment", "a\0b", 3, 0);
    setxattr((source + "/dir").c_str(), "user.empty", "", 0, 0);

    const ProgramResult backup = Backup();
    EXPECT_EQ(backup.exitCode, 0) << backup.errors;
    const ProgramResult restore = Restore();
    EXPECT_EQ(restore.exitCode, 0) << restore.errors;
    EXPECT_EQ(DescribeTree(Restored()), DescribeTree(source));

    struct stat status
    {};
    ASSERT_EQ(stat((Restored() + "/dir/zeros").c_str(), &status), 0);
    EXPECT_LT(status.st_blocks * 512, status.st_size) << "zeros come back as a hole";

    // Once more over what stands there: nothing is left behind, nothing changes.
    EXPECT_EQ(Restore().exitCode, 0);
    EXPECT_EQ(DescribeTree(Restored()), DescribeTree(source));
}

TEST_F(RoundTrip, OrdinaryUserGetsAllOfHisOwn)
{
    MakeTree(source, EveryKindOfEntry());
    if (geteuid() == 0) {
        namespace fs = std::filesystem;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(source))
            ASSERT_EQ(lchown(entry.path().c_str(), OrdinaryUser, OrdinaryUser), 0);
        ASSERT_EQ(chmod((source + "/setuid").c_str(), 04755), 0); // the change of owner took the bit
        ASSERT_EQ(chown(source.c_str(), OrdinaryUser, OrdinaryUser), 0);
    }
    EXPECT_EQ(Backup(OrdinaryUser).exitCode, 0);
    const ProgramResult restore = Restore(OrdinaryUser);
    EXPECT_EQ(restore.exitCode, 0) << restore.errors;
    EXPECT_EQ(DescribeTree(Restored()), DescribeTree(source));
}

TEST_F(RoundTrip, RootBringsBackOwnersDevicesAndSecurityAttributes)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root";
    MakeTree(source, {Dir("dir", 0750), File("suid", "x"), File("locked", "secret", 0000),
                      Dir("closed", 0000), File("closed/inside", "y"), File("capable", "z")});
    ASSERT_EQ(chown((source + "/suid").c_str(), 1234, 5678), 0);
    ASSERT_EQ(chmod((source + "/suid").c_str(), 06755), 0);
    ASSERT_EQ(lchown((source + "/dir").c_str(), 42, 43), 0);
    ASSERT_EQ(symlink("dir", (source + "/link").c_str()), 0);
    ASSERT_EQ(lchown((source + "/link").c_str(), 44, 45), 0);
    if (mknod((source + "/device").c_str(), S_IFCHR | 0640, makedev(1, 3)) != 0)
        GTEST_SKIP() << "may not make device nodes";
    // cap_net_bind_service=ep in the kernel's second format.
    const unsigned char capability[] = {1, 0, 0, 2, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0};
    setxattr((source + "/capable").c_str(), "security.capability", capability, sizeof capability, 0);
    // user::rw-, user:1000:r--, group::r--, mask::r--, other::---
    const unsigned char acl[] = {2,    0, 0, 0,                         //
                                 1,    0, 6, 0, 0xFF, 0xFF, 0xFF, 0xFF, //
                                 2,    0, 4, 0, 0xE8, 0x03, 0,    0,    //
                                 4,    0, 4, 0, 0xFF, 0xFF, 0xFF, 0xFF, //
                                 0x10, 0, 4, 0, 0xFF, 0xFF, 0xFF, 0xFF, //
                                 0x20, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0xFF};
    setxattr((source + "/suid").c_str(), "system.posix_acl_access", acl, sizeof acl, 0);
    setxattr((source + "/dir").c_str(), "system.posix_acl_default", acl, sizeof acl, 0);

    EXPECT_EQ(Backup().exitCode, 0);
    const ProgramResult restore = Restore();
    EXPECT_EQ(restore.exitCode, 0) << restore.errors;
    EXPECT_EQ(DescribeTree(Restored()), DescribeTree(source));
}

TEST_F(RoundTrip, OrdinaryUserIsToldWhatHeMayNotDo)
{
    if (geteuid() != 0)
        GTEST_SKIP() << "needs root to make files of others";
    MakeTree(source, {File("suid", "x", 06755), File("locked", "secret", 0000), File("plain", "y")});
    EXPECT_EQ(Backup().exitCode, 0);
    ASSERT_EQ(system(("chown -R " + std::to_string(OrdinaryUser) + " " + store).c_str()), 0);
    const ProgramResult restore = Restore(OrdinaryUser);
    EXPECT_EQ(restore.exitCode, 3);
    for (const char* name : {"/suid", "/locked", "/plain"})
        EXPECT_NE(restore.errors.find(source + name + ": owner 0:0 not restored"), std::string::npos)
            << restore.errors;
    EXPECT_NE(restore.errors.find("set-user-id"), std::string::npos);
    struct stat status
    {};
    ASSERT_EQ(stat((Restored() + "/suid").c_str(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0755u);
    EXPECT_EQ(ReadFile(Restored() + "/plain"), "y");
}

TEST_F(RoundTrip, WhatCannotBeReadFailsAlone)
{
    MakeTree(source,
             {File("locked", "secret", 0000), Dir("closed", 0000), Socket("socket"), File("plain", "y")});
    const ProgramResult backup = Backup(OrdinaryUser);
    EXPECT_EQ(backup.exitCode, 3);
    for (const char* name : {"/locked", "/closed", "/socket"}) {
        EXPECT_NE(backup.errors.find(source + name), std::string::npos) << backup.errors;
    }
    EXPECT_EQ(backup.errors.find(source + "/plain"), std::string::npos) << backup.errors;
    EXPECT_EQ(StoredPaths(store, source), (std::vector<std::string>{"", "/closed", "/plain"}));
}

TEST_F(RoundTrip, SparseFileOfFiveGigabytes)
{
#ifdef NDEBUG
    const std::string path = source + "/sparse";
    const int file = open(path.c_str(), O_WRONLY | O_CREAT, 0600);
    ASSERT_EQ(ftruncate(file, 5LL << 30), 0);
    ASSERT_EQ(pwrite(file, "middle", 6, 3LL << 30), 6);
    close(file);
    EXPECT_EQ(Backup().exitCode, 0);
    EXPECT_EQ(Restore().exitCode, 0);
    struct stat status
    {};
    ASSERT_EQ(stat((Restored() + "/sparse").c_str(), &status), 0);
    EXPECT_EQ(status.st_size, 5LL << 30);
    EXPECT_LT(status.st_blocks * 512, 1 << 20);
    char text[6] = {};
    const int restored = open((Restored() + "/sparse").c_str(), O_RDONLY);
    EXPECT_EQ(pread(restored, text, 6, 3LL << 30), 6);
    EXPECT_EQ(std::string(text, 6), "middle");
    close(restored);
#else
    GTEST_SKIP() << "takes too long without optimisation";
#endif
}

} // namespace
