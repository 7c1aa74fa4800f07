#include "Krt/Volume/MountTable.h"

#include "testing/MountTable.h"

#include <gtest/gtest.h>

using Krt::Volume::ListMountEntries;
using Krt::Volume::MountEntry;

TEST(MountTable, ReadsEntriesInTheTablesOrder)
{
    const std::string longOptions = "rw,lowerdir=/" + std::string(9000, 'l') + ",x-ro";
    const Testing::MountTable table("/dev/sda1 / ext4 rw,relatime 0 0\n"
                                    "server:/export /mnt/a\\040b\\134c nfs4 ro,vers=4.2 0 0\n"
                                    "overlay /layers overlay " +
                                    longOptions +
                                    " 0 0\n"
                                    "/dev/sdb1 / ext4 rw,errors=remount-ro 0 0\n"
                                    " /no\\040source\\134040# tmpfs ro 0 0\n"
                                    "so\\043urce\\134040 /hash\\134043 fuse.a\\043b rw 0 0\n"
                                    "none /late tmpfs nosuid,ro\n");
    const struct
    {
        const char* type;
        const char* directory;
        const char* source;
        bool readOnly;
    } expected[] = {
        {"ext4", "/", "/dev/sda1", false},        {"nfs4", "/mnt/a b\\c", "server:/export", true},
        {"overlay", "/layers", "overlay", false}, {"ext4", "/", "/dev/sdb1", false},
        {"tmpfs", "/no source\\040#", "", true},  {"fuse.a#b", "/hash\\043", "so#urce\\040", false},
        {"tmpfs", "/late", "none", true}};
    const std::vector<MountEntry> entries = ListMountEntries();
    ASSERT_EQ(entries.size(), std::size(expected));
    for (std::size_t i = 0; i < entries.size(); ++i) {
        SCOPED_TRACE(i);
        EXPECT_EQ(entries[i].type.Bytes(), expected[i].type);
        EXPECT_EQ(entries[i].directory.Bytes(), expected[i].directory);
        EXPECT_EQ(entries[i].source.Bytes(), expected[i].source);
        EXPECT_EQ(entries[i].readOnly, expected[i].readOnly);
    }
}
