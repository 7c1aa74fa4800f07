// Records from other systems become a snapshot that restic lists, checks and restores. kbagent returns their
// records and restores them under legal names. Damaged and hostile records are reported and left out.
#include "testing/LegacyHeaderBuilder.h"
#include "testing/Records.h"
#include "testing/RepositoryFixture.h"
#include "testing/Tree.h"

#include "Backup/File/YOdsMetadata.h"

#include <filesystem>

using namespace Testing;
using namespace std::string_literals;
namespace fs = std::filesystem;

namespace {

constexpr unsigned long long InUnits = (11644473600 + 1000000000) * 10000000;

class Import : public RepositoryFixture
{
protected:
    Import() { Create(); }

    // Returns a record with a legacy Windows header, whose name list is `names`.
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
    std::string RunImport(int exitCode, const std::string& records,
                          std::vector<std::string> arguments = {}) const
    {
        arguments.insert(arguments.begin(), {"import", "--contents", directory / "contents"});
        arguments.push_back(directory.Write("records", records));
        const ProgramResult result = Run(exitCode, arguments);
        return result.output + result.errors;
    }
    // The records of the entries at these paths are what `convert` prints.
    void ExpectRecords(const std::vector<std::string>& paths, const std::vector<std::string>& convert) const
    {
        std::istringstream records(Run(0, convert).output);
        for (const std::string& path : paths) {
            std::string record;
            std::getline(records, record);
            EXPECT_EQ(Run(0, {"show", "--no-lock", "--json", "-q", "latest:" + path}).output, record + "\n")
                << path;
        }
    }
    std::string TreeOfLatest() const
    {
        const std::string text = Run(0, "cat -q snapshot latest").output;
        return text.substr(text.find("\"tree\""), 80);
    }

    const std::string target = directory / "target";
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
    const std::vector<std::pair<std::string, std::string>> entries = {
        {"/C/dir", Legacy(L"C:\\dir*\0\r"s, 1, 0, 0x11)},
        {"/C/dir/two names", Legacy(L"C:\\dir\\two names*TWONAM~1\0\rC:\\other\\name*\0\r"s, 2, 7)},
        {"/GLOBALROOTDeviceHarddiskVolumeShadowCopy12/shadow",
         Legacy(L"\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy12\\shadow*\0\r"s, 1, 9)},
        {"/C/dir/link", Legacy(L"C:\\dir\\link*\0\r"s, 1, 0, 0x420, 0xA000000C)},
        {"/C/dir/junction", Legacy(L"C:\\dir\\junction*\0\r"s, 1, 0, 0x410, 0xA0000003)},
        {"/C/dir/read-only", Modern({"C:", "dir", "read-only"}, 4, 0x21)},
        {"/C/dir/back\\slash?:", Modern({"C:", "dir", "back\\slash?:"}, 12, 0x420)},
        {"/D/big", Modern({"\\\\?\\D:", "big"}, 3000000)},
        {"/E/f", Modern({"E:", "f"}, 5)},
        {"/Volume{0a1b}/guid", Modern({"\\\\?\\Volume{0a1b}", "guid"}, 11)},
        {"/server/object", Ods({"server", "object"})}};
    std::string records, reversed;
    std::vector<std::string> paths;
    for (const auto& [path, record] : entries) {
        records += record;
        reversed.insert(0, record);
        paths.push_back(path);
    }
    EXPECT_TRUE(Holds(RunImport(0, reversed), "9 files, 10 directories, 0 links and pipes imported"));
    const std::string tree = TreeOfLatest();
    const std::string documents = RunImport(
        0, records, {"--host", "old", "--tag", "a,b", "--time", "2001-02-03 04:05:06", "--json", "-v"});
    for (const char* part : {R"("action":"new","item":"/C/other/name",)", R"("action":"new","item":"/D/",)",
                             R"({"message_type":"summary","files_new":9,)"})
        EXPECT_TRUE(Holds(documents, part));
    EXPECT_TRUE(Holds(Run(0, "snapshots --json -q --host old --tag a,b").output,
                      R"("paths":["/C","/D","/E","/GLOBALROOTDeviceHarddiskVolumeShadowCopy12",)"
                      R"("/Volume{0a1b}","/server"],"hostname":"old")"));
    EXPECT_EQ(TreeOfLatest(), tree);
    ExpectRecords(paths, {"convert", directory / "records"});
    ExpectRecords({"/C/dir", "/C/other/name"}, {"convert", directory / "records"});

    const std::string errors = Run(3, {"restore", "-q", "latest", "--target", target}).errors;
    for (const char* failed : {"/C/dir/link: A reparse", "/C/dir/junction: A reparse", "/server/object: "})
        EXPECT_TRUE(Holds(errors, failed));
    MakeTree(
        directory.MakeDirectory("expected"),
        {Dir("C", 0700), Dir("C/dir", 0700), File("C/dir/two names", "content", 0600), Dir("C/other", 0700),
         Hard("C/other/name", "C/dir/two names"), File("C/dir/read-only", "kept", 0400),
         File("C/dir/back\\slash?:", "of the cloud", 0600), Dir("D", 0700),
         File("D/big", std::string(3000000, 'x'), 0600), Dir("E", 0700), File("E/f", "right", 0600),
         Dir("Volume{0a1b}", 0700), File("Volume{0a1b}/guid", "of a volume", 0600),
         Dir("GLOBALROOTDeviceHarddiskVolumeShadowCopy12", 0700),
         File("GLOBALROOTDeviceHarddiskVolumeShadowCopy12/shadow", "of a copy", 0600), Dir("server", 0700)});
    // Directories without a record have the time of the restore, or with restic a time of long ago.
    const auto describe = [](const std::string& root) {
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(root)) {
            if (entry.is_directory() && entry.path().filename() != "dir")
                fs::last_write_time(entry.path(), fs::file_time_type());
        }
        return DescribeTree(root, {.owners = false, .attributes = false});
    };
    EXPECT_EQ(describe(target), describe(directory / "expected"));
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    Restic("check --read-data");
    Restic("restore latest --target restic");
    for (const char* only : {"C/dir/link", "C/dir/junction", "server/object"})
        EXPECT_TRUE(fs::remove(directory / (std::string("restic/") + only))) << only;
    fs::last_write_time(directory / "restic/C/dir", fs::last_write_time(directory / "expected/C/dir"));
    EXPECT_EQ(describe(directory / "restic"), describe(directory / "expected"));
}

TEST_F(Import, UnixRecordIsPlainNodeIfThatIsEnough)
{
    MakeTree(directory.MakeDirectory("contents"), {Dir("job"), Dir("job/home"), File("job/home/a file", "x"),
                                                   Dir("dir"), File("dir/f", "abc"), File("\xff", "odd")});
    LegacyUnixHeader file = SampleUnixFile();
    file.fileSize = 1;
    file.extendedAttributes.clear();
    // Of a link, though neither its mode nor the directory bit say so.
    LegacyUnixHeader link = SampleUnixLink();
    link.modeFlags = 0040777;
    link.attributes = 0x10;
    link.userId = file.userId = geteuid();
    link.groupId = file.groupId = getegid();
    Backup::File::YUnixFileMetadata plain = UnixRecord({"\xff"}, S_IFREG | 04711, 3);
    plain.SetFilePath(Backup::YJobPath::FromFilePath({}, Krt::File::YPath("/\xff"), false));
    plain.SetLastWriteTime(static_cast<unsigned long long>(-5));
    Krt::File::ExtendedAttributeMap attributes;
    for (const char* name : {"user.note", "user.\xfe"})
        attributes.insert_or_assign(name, Krt::Memory::YHeap<unsigned char>(name, 5));
    plain.SetExtendedAttributeMap(std::move(attributes));
    RunImport(0,
              Line(LegacyDocument("unix", file.Bytes())) + Line(LegacyDocument("unix", link.Bytes())) +
                  Unix({"dir"}, S_IFDIR | 0750) + Unix({"dir", "f"}, S_IFREG | 0640, 3) +
                  Unix({"dir", "link"}, S_IFLNK, 0, "f") + Unix({"fifo"}, S_IFIFO | 0600) +
                  Line(plain.ToJSON()),
              {"--base", "job"});
    ExpectRecords({"/job/home/a file", "/job/home/link", "/dir", "/dir/f", "/dir/link", "/fifo", "/\xff"},
                  {"convert", "--base", "job", directory / "records"});
    EXPECT_TRUE(Holds(Run(0, "show latest:/dir/f").output, R"("record")"));
    EXPECT_FALSE(Holds(Run(0, "show latest:/\xff").output, R"("record")"));
    Run(0, {"restore", "latest", "--target", target});
    EXPECT_EQ(ReadFile(target + "/job/home/a file"), "x");
    EXPECT_EQ(fs::read_symlink(target + "/job/home/link"), "abc");
    EXPECT_EQ(ReadFile(target + "/dir/f"), "abc");
    EXPECT_EQ(fs::read_symlink(target + "/dir/link"), "f");
    EXPECT_TRUE(fs::is_fifo(target + "/fifo"));
    EXPECT_EQ(StatusOf(target + "/\xff").st_mtime, -5);
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    Restic("check --read-data");
    Restic("restore latest --target restic");
    const TreeView view{.attributes = false};
    EXPECT_EQ(DescribeTree(directory / "restic/dir", view), DescribeTree(target + "/dir", view));
}

TEST_F(Import, DamagedRecordsAreReportedAndOthersStored)
{
    MakeTree(directory.MakeDirectory("contents"),
             {Dir("C"), File("C/good", "good"), File("C/short", "12"), File("C/long", "12345"),
              Dir("C/directory"), Fifo("C/fifo"), Socket("C/socket"), Link("C/link", "../../outside/file"),
              Link("C/way", "../../outside")});
    MakeTree(directory.MakeDirectory("outside"), {File("file", "secret")});
    const std::pair<std::string, const char*> rows[] = {
        {"{\"metadata_type\":\"win\"\n", ": "},
        {"{\"metadata_type\":\"mac\"}\n", ": Invalid metadataType: mac"},
        {Legacy(L"C:\\bad*\0\r"s, 3, 0), ": Legacy windows file metadata parsing error"},
        {Modern({"C:", "missing"}, 1), "): Not stored: the contents have no file"},
        {Modern({"Z:", "missing"}, 1), "): Not stored: the contents have no file"},
        {Modern({"C:", "directory"}, 1), "): Not stored: the contents"},
        {Modern({"C:", "fifo"}, 1), "): Not stored: the contents"},
        {Modern({"C:", "socket"}, 1), "): Not stored: the contents"},
        {Modern({"C:", "link"}, 6), "): Not stored: the contents"},
        {Modern({"C:", "way", "file"}, 6), "): Not stored: the contents"},
        {Modern({"C:", "..", "..", "outside", "file"}, 6), "): Refused: the path has a component"},
        {Modern({"C:", "../../outside/file"}, 6), "): Refused: the path has a component"},
        {Modern({"C:", "..", "dir"}, 0, 0x10), "): Refused: the path has a component"},
        {Ods({"server", "."}), "): Refused: the path has a component"},
        {Ods({"server", ""}), "): Refused: the path has a component"},
        {Modern({}, 0), ": The record has no path"},
        {Unix({}, S_IFDIR | 0755), ": The record has no path"},
        {Ods({}), ": The record has no path"},
        {Unix({"device"}, S_IFCHR | 0600), "): Not stored: a record of a device"},
        {Unix({"link"}, S_IFLNK | 0777), "): Not stored: the record has no target"},
        {Unix(Names(10000, "d"), S_IFDIR | 0700), ": Refused: the path has 10000 components or more"},
        {Line(WindowsRecord({{"C:", "short"}, {"C:", "short"}, {"C:", "..", "x"}, {"C:", "other"}}, 0x20, 3)
                  .ToJSON()),
         "): The content has 2 bytes instead of 3"},
        {Modern({"C:", "long"}, 3), "): The content has 5 bytes instead of 3"},
        {Modern({"C:", "good"}, 4), ""},
        {Modern({"C", "good"}, 4), "): Refused: an earlier record has the path /C/good"},
        {Modern({"C:", "good", "below"}, 0, 0x10), "): Refused: an earlier record has the path /C/good"},
        {Modern({"C:", "directory"}, 0, 0x10), ""},
        {Modern({"C:", "directory"}, 0, 0x10), "): Refused: an earlier record has the path /C/directory"},
        {Unix({"C"}, S_IFLNK, 0, "x"), "): Refused: earlier records are below its path"},
        {Unix(Names(9999, "deep"), S_IFDIR | 0700), ""},
    };
    std::string records;
    for (const auto& [record, expected] : rows)
        records += record;
    const std::string imported = RunImport(3, records);
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        if (*rows[i].second != '\0') {
            EXPECT_TRUE(Holds(imported, "line " + std::to_string(i + 1) + rows[i].second));
        }
    }
    for (const char* expected : {"short (line 22): Refused: an earlier", "x (line 22): Refused: the path",
                                 "4 files, 10001 directories"})
        EXPECT_TRUE(Holds(imported, expected));
    EXPECT_TRUE(Holds(Run(0, "check").output, "no errors were found"));
    Run(0, {"restore", "latest:/C", "--target", target});
    for (const auto& [name, content] : std::map<std::string, std::string>{
             {"good", "good"}, {"short", "12"}, {"other", "12"}, {"long", "12345"}})
        EXPECT_EQ(ReadFile(target + "/" + name), content);
    EXPECT_EQ(std::distance(fs::directory_iterator(target), {}), 5);
}

TEST_F(Import, NothingImportedLeavesNoSnapshot)
{
    const std::string contents = directory.MakeDirectory("contents");
    Run(1, {"import", "--contents", contents, directory / "no records"});
    Run(1, {"import", "--contents", contents + "x"});
    Run(2, "import");
    for (const std::string& records : {""s, Ods({}), Modern({"C:", "missing"}, 1)})
        EXPECT_TRUE(Holds(RunImport(1, records), "No record was imported, so no snapshot was created"));
    EXPECT_TRUE(Holds(RunImport(0, Ods({"a"}), {"--dry-run"}), "Would be added to the repository: "));
    EXPECT_TRUE(Files("snapshots").empty() && Files("data").empty());
}

} // namespace
