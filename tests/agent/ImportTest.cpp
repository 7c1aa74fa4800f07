// Records from another system become a snapshot, which is restored under legal names; damaged records and
// contents outside their folder are reported and left out.
#include "testing/LegacyHeaderBuilder.h"
#include "testing/ProgramFixture.h"
#include "testing/Records.h"
#include "testing/Tree.h"

#include "Backup/File/YOdsMetadata.h"

#include <filesystem>

using namespace Testing;
using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

constexpr unsigned long long InUnits = (11644473600 + 1000000000) * 10000000;

class Import : public ProgramFixture
{
protected:
    // `names` as the list of a legacy header holds them.
    static std::string Legacy(const std::wstring& names, std::uint32_t count, std::uint64_t size,
                              std::uint32_t attributes = 0x20, std::uint32_t reparseType = 0)
    {
        LegacyWindowsHeader header = SampleWindowsFile(names, count);
        header.fileSize = size;
        header.attributes = attributes;
        header.reparseType = reparseType;
        header.writeTime = InUnits;
        return Line(LegacyDocument("win", header.Bytes()));
    }
    static std::string Modern(const Names& names, std::uint64_t size, std::uint32_t attributes = 0x20)
    {
        return Line(WindowsRecord({names}, attributes, size).ToJSON());
    }
    static std::string Unix(const Names& names, unsigned int mode, std::uint64_t size = 0,
                            const char* linkTarget = "")
    {
        return Line(UnixRecord(names, mode, size, linkTarget).ToJSON());
    }
    static std::string Ods(const Names& names)
    {
        return Line(Backup::File::YOdsMetadata(ContainerPath(names)).ToJSON());
    }

    // What it printed.
    std::string RunImport(int exitCode, const std::string& records, std::vector<std::string> arguments = {})
    {
        arguments.insert(arguments.begin(), {"import", "--contents", directory / "contents"});
        arguments.push_back(directory.Write("records", records));
        const ProgramResult result = Run(exitCode, arguments);
        return result.output + result.errors;
    }
};

TEST_F(Import, WindowsJobIsRestoredUnderLegalNames)
{
    MakeTree(directory.MakeDirectory("contents"),
             {Dir("C:"), Dir("C:/dir"), Link("C:/dir/link", "/nowhere"), File("C:/dir/two names", "content"),
              File("C:/dir/read-only", "kept"), File("C:/dir/back\\slash?:", "of the cloud"), Dir("D"),
              File("D/big", std::string(3000000, 'x')),
              // Both names of a volume: its own goes first.
              Dir("E:"), File("E:/f", "right"), Dir("E"), File("E/f", "wrong"), Dir("\\\\?\\Volume{0a1b}"),
              File("\\\\?\\Volume{0a1b}/guid", "of a volume"),
              Dir("GLOBALROOTDeviceHarddiskVolumeShadowCopy12"),
              File("GLOBALROOTDeviceHarddiskVolumeShadowCopy12/shadow", "of a copy")});
    const std::string imported = RunImport(
        0, Legacy(L"C:\\dir*\0\r"s, 1, 0, 0x11) +
               Legacy(L"C:\\dir\\two names*TWONAM~1\0\rC:\\other\\name*\0\r"s, 2, 7) +
               Legacy(L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy12\\shadow*\0\r"s, 1, 9) +
               Legacy(L"C:\\dir\\link*\0\r"s, 1, 0, 0x420, 0xA000000C) +
               Legacy(L"C:\\dir\\junction*\0\r"s, 1, 0, 0x410, 0xA0000003) +
               Modern({"C:", "dir", "read-only"}, 4, 0x21) +
               Modern({"C:", "dir", "back\\slash?:"}, 12, 0x420) + Modern({"\\\\?\\D:", "big"}, 3000000) +
               Modern({"E:", "f"}, 5) + Modern({"\\\\?\\Volume{0a1b}", "guid"}, 11) +
               Ods({"server", "object"}));
    EXPECT_TRUE(Holds(imported, "11 entries: 8 files, 2 directories, 0 links, 1 others\n2.9 MiB read"));

    const std::string errors = Run(3, {"restore", "--to", target}).errors;
    EXPECT_EQ(std::count(errors.begin(), errors.end(), '\n'), 3) << errors;
    MakeTree(directory.MakeDirectory("expected"),
             {Dir("C", 0700), Dir("C/dir", 0700), File("C/dir/two names", "content", 0600),
              Dir("C/other", 0700), Hard("C/other/name", "C/dir/two names"),
              File("C/dir/read-only", "kept", 0400), File("C/dir/back\\slash?:", "of the cloud", 0600),
              Dir("D", 0700), File("D/big", std::string(3000000, 'x'), 0600), Dir("E", 0700),
              File("E/f", "right", 0600), Dir("Volume{0a1b}", 0700),
              File("Volume{0a1b}/guid", "of a volume", 0600),
              Dir("GLOBALROOTDeviceHarddiskVolumeShadowCopy12", 0700),
              File("GLOBALROOTDeviceHarddiskVolumeShadowCopy12/shadow", "of a copy", 0600)});
    // Directories without a record have the time of the restore.
    for (const std::string& root : {target, directory / "expected"}) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
            if (entry.is_directory() && entry.path().filename() != "dir")
                fs::last_write_time(entry.path(), fs::file_time_type());
        }
    }
    const TreeView view{.owners = false, .attributes = false};
    EXPECT_EQ(DescribeTree(target, view), DescribeTree(directory / "expected", view));
}

TEST_F(Import, UnixRecordsGetBase)
{
    MakeTree(directory.MakeDirectory("contents"),
             {Dir("job"), Dir("job/home"), File("job/home/a file", "x"), Dir("dir"), File("dir/f", "abc")});
    LegacyUnixHeader file = SampleUnixFile();
    file.fileSize = 1;
    file.extendedAttributes.clear();
    // Of a link, though neither its mode nor the directory bit say so.
    LegacyUnixHeader link = SampleUnixLink();
    link.modeFlags = 0040777;
    link.attributes = 0x10;
    link.userId = file.userId = geteuid();
    link.groupId = file.groupId = getegid();
    RunImport(0,
              Line(LegacyDocument("unix", file.Bytes())) + Line(LegacyDocument("unix", link.Bytes())) +
                  Unix({"dir"}, S_IFDIR | 0750) + Unix({"dir", "f"}, S_IFREG | 0640, 3) +
                  Unix({"dir", "link"}, S_IFLNK, 0, "f") + Unix({"fifo"}, S_IFIFO | 0600),
              {"--base", "job"});
    const std::string list = Run(0, {"list", "--snapshot", "latest"}).output;
    EXPECT_TRUE(Holds(list, "\nlrwxrwxrwx ") && Holds(list, " job/home/link -> abc\n")) << list;
    Run(0, {"restore", "--to", target});
    EXPECT_EQ(ReadFile(target + "/job/home/a file"), "x");
    EXPECT_EQ(fs::read_symlink(target + "/job/home/link"), "abc");
    EXPECT_EQ(ReadFile(target + "/dir/f"), "abc");
    EXPECT_EQ(fs::read_symlink(target + "/dir/link"), "f");
    EXPECT_TRUE(fs::is_fifo(target + "/fifo"));
}

TEST_F(Import, DamagedRecordsAreReportedAndOthersStored)
{
    MakeTree(directory.MakeDirectory("contents"),
             {Dir("C"), File("C/good", "good"), File("C/short", "12"), File("C/long", "12345"),
              Dir("C/directory"), Fifo("C/fifo"), Socket("C/socket"), Link("C/link", "../../outside/file"),
              Link("C/way", "../../outside")});
    MakeTree(directory.MakeDirectory("outside"), {File("file", "secret")});
    const std::pair<std::string, const char*> rows[] = {
        {"{\"metadata_type\":\"win\"\n", "line 1: "},
        {"{\"metadata_type\":\"mac\"}\n", "line 2: Invalid metadataType: mac"},
        {Legacy(L"C:\\bad*\0\r"s, 3, 0), "line 3: Legacy windows file metadata parsing error"},
        {Modern({"C:", "missing"}, 1), "C:/missing: Not stored: the contents have no file"},
        {Modern({"Z:", "missing"}, 1), "Z:/missing: Not stored: the contents have no file"},
        {Modern({"C:", "directory"}, 1), "C:/directory: Not stored: the contents"},
        {Modern({"C:", "fifo"}, 1), "C:/fifo: Not stored: the contents"},
        {Modern({"C:", "socket"}, 1), "C:/socket: Not stored: the contents"},
        {Modern({"C:", "link"}, 6), "C:/link: Not stored: the contents"},
        {Modern({"C:", "way", "file"}, 6), "C:/way/file: Not stored: the contents"},
        {Modern({"C:", "..", "..", "outside", "file"}, 6), "outside/file: Refused"},
        {Modern({"C:", "../../outside/file"}, 6), "outside/file: Refused"},
        {Modern({"C:", "..", "dir"}, 0, 0x10), "C:/../dir: Refused"},
        {Modern({}, 0), "line 14: The record has no path"},
        {Unix({}, S_IFDIR | 0755), "line 15: The record has no path"},
        {Ods({}), "line 16: The record has no path"},
        {Unix({"device"}, S_IFCHR | 0600), "/device: Not stored: a record of a device"},
        {Unix({"link"}, S_IFLNK | 0777), "/link: Not stored: the record has no target"},
        {Modern({"C:", "short"}, 3), "C:/short: The content has 2 bytes instead of 3"},
        {Modern({"C:", "long"}, 3), "C:/long: The content has 5 bytes instead of 3"},
        {Modern({"C:", "good"}, 4), ""},
    };
    std::string records;
    for (const auto& [record, expected] : rows)
        records += record;
    const std::string imported = RunImport(3, records);
    for (const auto& [record, expected] : rows)
        EXPECT_TRUE(Holds(imported, expected));
    for (const char* expected : {"3 entries: 3 files", "\n20 failed\n"})
        EXPECT_TRUE(Holds(imported, expected));
    const std::string list = Run(0, {"list"}).output;
    EXPECT_TRUE(Holds(list, " 3 entries ") && Holds(list, "11 bytes     20 failed")) << list;
    Run(3, {"restore", "--to", target});
    EXPECT_EQ(ReadFile(target + "/C/short"), "12");
    EXPECT_EQ(ReadFile(target + "/C/long"), "12345");
    EXPECT_EQ(ReadFile(target + "/C/good"), "good");
    EXPECT_EQ(std::distance(fs::directory_iterator(target + "/C"), {}), 3);
}

TEST_F(Import, WithoutInputOrContentsNoStoreIsMade)
{
    const std::string contents = directory.MakeDirectory("contents");
    Run(1, {"import", "--contents", contents, directory / "no records"});
    Run(1, {"import", "--contents", contents + "x"});
    Run(2, {"import"});
    EXPECT_FALSE(fs::exists(store));
    EXPECT_TRUE(Holds(Run(0, {"import", "--contents", contents}).output, "0 entries"));
}

} // namespace
