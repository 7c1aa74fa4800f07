// Contents in a store: they come back as they went in, stand there once, and damage never passes for content.
// Runs on one store: side by side, interrupted, and on directories that are no store.
#include "testing/OnThreads.h"
#include "testing/Raises.h"
#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <random>
#include <sys/wait.h>
#include <tuple>
#include <unistd.h>

using namespace Agent;
using Testing::StoreRun;
namespace fs = std::filesystem;

namespace {

std::string RandomBytes(std::size_t size)
{
    std::string bytes(size, '\0');
    std::generate(bytes.begin(), bytes.end(), [random = std::mt19937(1)]() mutable { return random(); });
    return bytes;
}

Address AddressOf(const std::string& content)
{
    Sha256 hash;
    hash.Add(content.data(), content.size());
    return hash.End();
}

class StoreFolder : public ::testing::Test
{
protected:
    std::size_t FilesIn(const std::string& folder) const
    {
        std::size_t files = 0;
        for (const auto& entry : fs::recursive_directory_iterator(path + "/" + folder))
            files += entry.is_regular_file();
        return files;
    }

    const Testing::TemporaryDirectory directory;
    const std::string path = directory / "store";
};

class StoreObject : public StoreFolder
{
protected:
    Address Put(const std::string& content, std::size_t piece = 1 << 16)
    {
        return Testing::WriteObject(writer, content, piece);
    }
    std::string Get(const Address& address, unsigned long long size) const
    {
        return Testing::ReadObject(store, address, size);
    }
    std::string PathOf(const Address& address) const
    {
        const std::string name = address.ToHex();
        return path + "/objects/" + name.substr(0, 2) + "/" + name.substr(2);
    }

    Store store = Store::OpenOrCreate(path);
    StoreSession session{store};
    ObjectWriter writer{session};
};

TEST_F(StoreObject, ComesBackAndStandsThereOnce)
{
    const std::tuple<const char*, std::string, std::size_t> cases[] = {
        {"empty", "", 1},
        {"one byte", "a", 1},
        {"largest in memory", RandomBytes(1 << 20), 4096},
        {"smallest streamed", RandomBytes((1 << 20) + 1), 65536},
        {"streamed in odd pieces", RandomBytes(3'000'000), 70'001},
        {"long run of zeros", std::string(20'000'000, '\0'), 1 << 20},
    };
    for (const auto& [name, content, piece] : cases) {
        SCOPED_TRACE(name);
        const Address address = Put(content, piece);
        EXPECT_EQ(address, AddressOf(content));
        EXPECT_FALSE(fs::exists(PathOf(address))) << "shown before it is on disk";
        EXPECT_EQ(Put(content, piece), address);
        session.PlaceObjects();
        EXPECT_TRUE(Get(address, content.size()) == content);
        EXPECT_EQ(Put(content, piece), address);
        EXPECT_EQ(FilesIn("tmp"), 1u) << "more than the session's lock";
    }
    EXPECT_EQ(FilesIn("objects"), std::size(cases));
    EXPECT_EQ(AddressOf("abc").ToHex(), "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad");
    EXPECT_LT(fs::file_size(PathOf(AddressOf(std::string(20'000'000, '\0')))), 20'000u);
    EXPECT_EQ(fs::status(PathOf(AddressOf("a"))).permissions(),
              fs::perms::owner_read | fs::perms::owner_write);
}

TEST_F(StoreObject, DamageIsToldAndNeverPassesForContent)
{
    const std::string content = RandomBytes(300'000);
    const Address address = Put(content);
    session.PlaceObjects();
    const std::string sound = Testing::ReadFile(PathOf(address));
    std::string flipped = sound;
    flipped[200'000] = static_cast<char>(flipped[200'000] ^ 1);
    // A header that asks for a window of 2 GiB.
    const std::string hugeWindow("\x28\xB5\x2F\xFD\x00\xA8\x01\x00\x00", 9);
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"one bit", flipped, "its content does not have this address"},
        {"cut off", sound.substr(0, 150'000), "is damaged at offset 150000: the file is cut off"},
        {"empty", "", "ends after 0 of the 300000 bytes"},
        {"something behind it", sound + "more", "is damaged at offset"},
        {"itself again behind it", sound + sound, "holds more than the 300000 bytes"},
        {"no zstd data", "plain text, and long enough", "is damaged at offset 0: Unknown frame descriptor"},
        {"a window that takes too much memory", hugeWindow, "Frame requires too much memory"},
    };
    for (const auto& [name, bytes, expected] : cases) {
        SCOPED_TRACE(name);
        std::ofstream(PathOf(address), std::ios::binary) << bytes;
        const std::string error = Testing::ErrorOf([&] { Get(address, content.size()); });
        EXPECT_NE(error.find(": Object " + address.ToHex()), std::string::npos) << error;
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

TEST_F(StoreObject, AnotherSizeThanTheRecordsIsRefused)
{
    const std::string zeros(20'000'000, '\0');
    const Address address = Put(zeros);
    session.PlaceObjects();
    ObjectReader reader(store);
    reader.Open(address, 200'000);
    std::size_t given = 0;
    EXPECT_TRUE(Testing::CatchError([&] {
        for (auto block = reader.Next(); !block.empty(); block = reader.Next())
            given += block.size();
    }));
    EXPECT_LE(given, 200'000u) << "a small record must not fill the disk";
    EXPECT_TRUE(Testing::CatchError([&] { Get(address, zeros.size() + 1); }));
    reader.Open(address, zeros.size()); // goes on with another object
    EXPECT_EQ(Testing::ReadBlocks(reader).size(), zeros.size());
}

TEST_F(StoreObject, IsLedOutOfTheStoreByNoLink)
{
    const Address address = AddressOf("content");
    fs::create_directory_symlink(directory.MakeDirectory("outside"), fs::path(PathOf(address)).parent_path());
    Put("content");
    EXPECT_TRUE(Testing::CatchError([&] { session.PlaceObjects(); }));
    EXPECT_TRUE(fs::is_empty(directory / "outside"));
}

TEST_F(StoreObject, TakesThePlaceOfAnEmptyFileAndOfUnfinishedContent)
{
    const Address address = Put("content");
    session.PlaceObjects();
    fs::resize_file(PathOf(address), 0);
    const std::string large = RandomBytes(2'000'000);
    writer.Begin();
    writer.Append(large.data(), large.size());
    EXPECT_EQ(FilesIn("tmp"), 2u);
    Put("content");
    session.PlaceObjects();
    EXPECT_EQ(FilesIn("tmp"), 1u);
    EXPECT_EQ(Get(address, 7), "content");
}

TEST(Address, ReadsOnlyWhatItWrites)
{
    const std::string good = AddressOf("abc").ToHex();
    EXPECT_EQ(Address::FromHex(Krt::YString(good.c_str())), AddressOf("abc"));
    for (const std::string& bad :
         {std::string(), good.substr(1), good + "0", "A" + good.substr(1), "g" + good.substr(1)})
        EXPECT_TRUE(Testing::CatchError([&] { Address::FromHex(Krt::YString(bad.c_str())); })) << bad;
}

constexpr int Contents = 200;

std::string Content(int number)
{
    // One of them is streamed.
    return std::string(number == 0 ? 1'500'000 : 10, 'c') + std::to_string(number);
}

// A whole run that stores the numbered contents from `first` on.
std::string Backup(const std::string& path, int first)
{
    const Store store = Store::OpenOrCreate(path);
    StoreRun run(store);
    for (int number = first; number < first + Contents; ++number) {
        run.Add(Content(number));
        if (number % 50 == 0)
            run.session.PlaceObjects();
    }
    return run.snapshot.Finish(0, 0);
}

void ExpectWhole(const Store& store, const std::string& id, int first)
{
    SnapshotReader snapshot(store, id);
    EXPECT_EQ(snapshot.Verify().entries, static_cast<unsigned long long>(Contents));
    int number = first;
    for (SnapshotEntry entry; snapshot.Next(entry); ++number) {
        const std::string wanted = Content(number);
        EXPECT_TRUE(Testing::ReadObject(store, *entry.content, wanted.size()) == wanted) << number;
    }
    EXPECT_EQ(number, first + Contents);
}

using StoreRuns = StoreFolder;

TEST_F(StoreRuns, RunsSideBySideFromAnEmptyStoreHarmNothing)
{
    // Halves of what neighbours store are the same, and the store is made by whoever comes first.
    std::vector<std::string> ids(4);
    Testing::OnThreads(4, [&](int i) { ids[static_cast<std::size_t>(i)] = Backup(path, i * Contents / 2); });
    const Store store = Store::Open(path);
    EXPECT_EQ(store.ListSnapshots().size(), ids.size());
    for (std::size_t i = 0; i < ids.size(); ++i)
        ExpectWhole(store, ids[i], static_cast<int>(i) * Contents / 2);
    EXPECT_TRUE(fs::is_empty(path + "/tmp"));
}

TEST_F(StoreRuns, KilledRunLeavesNoSnapshotAndIsClearedAway)
{
    const std::string first = Backup(path, 0);
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
        const Store store = Store::Open(path);
        StoreRun run(store);
        run.Add(Content(5000));
        const std::string large(3'000'000, 'x');
        run.objects.Begin();
        run.objects.Append(large.data(), large.size());
        raise(SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    std::ofstream(path + "/tmp/without-a-run") << "left";
    EXPECT_EQ(FilesIn("tmp"), 5u);
    EXPECT_EQ(FilesIn("snapshots"), 1u);

    const std::string second = Backup(path, 100);
    EXPECT_TRUE(fs::is_empty(path + "/tmp"));
    const Store store = Store::Open(path);
    ExpectWhole(store, first, 0);
    ExpectWhole(store, second, 100);
}

TEST_F(StoreRuns, NobodyClearsUpBehindTheLiving)
{
    const Store store = Store::OpenOrCreate(path);
    {
        StoreRun living(store);
        const Address address = living.Add("living");
        const std::size_t files = FilesIn("tmp");
        fs::remove(path + "/snapshots/" + Backup(path, 0));
        EXPECT_EQ(FilesIn("tmp"), files);
        living.session.PlaceObjects();
        EXPECT_TRUE(store.GetObjects().Has(address));
        living.Add("abandoned");
    }
    EXPECT_EQ(FilesIn("tmp") + FilesIn("snapshots"), 0u);
}

TEST_F(StoreRuns, StoreThatCannotBeWrittenIsNoEntrysFailure)
{
    const Store store = Store::OpenOrCreate(path);
    StoreRun run(store);
    fs::remove_all(path + "/tmp");
    EXPECT_THROW(run.Add("content"), StoreError);
    EXPECT_THROW(run.snapshot.Finish(0, 0), StoreError);
    EXPECT_TRUE(fs::is_empty(path + "/snapshots"));
}

TEST_F(StoreFolder, TakesOnlyAStoreForOne)
{
    directory.Write("foreign/file", "");
    directory.MakeDirectory("disk/lost+found");
    directory.MakeDirectory("unfinished/objects");
    directory.Write("unfinished/kbagent-store.0123", "kb");
    directory.Write("private/tmp/thesis", "");
    directory.Write("newer/kbagent-store", "kbagent-store 2\n");
    directory.Write("other/kbagent-store", "something\n");
    for (const char* good : {"good", "copied", "damaged"})
        Store::OpenOrCreate(directory / good);
    fs::remove(directory / "copied/tmp");
    fs::remove(directory / "damaged/objects");
    // What opening tells, and what making tells; "" where it succeeds.
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"missing", "There is no store at", ""},
        {"missing/deeper", "There is no store at", ""}, // once its parent was made
        {"nowhere/deeper", "There is no store at", "Failed to open directory"},
        {"foreign", "has no kbagent-store", "isn't empty"},
        {"foreign/file", "Failed to open directory", "Failed to open directory"},
        {"disk", "has no kbagent-store", ""},
        {"unfinished/", "has no kbagent-store", ""},
        {"newer", "is a store of format 2", "is a store of format 2"},
        {"other", "kbagent-store is damaged", "kbagent-store is damaged"},
        {"private", "has no kbagent-store", "isn't empty"},
        {"damaged", "damaged is damaged: it has no objects", "it has no objects"},
        {"good", "", ""},
        {"copied", "", ""},
    };
    for (const auto& [name, openError, createError] : cases) {
        SCOPED_TRACE(name);
        const std::string opened = directory / name;
        const auto expect = [](const std::string& raised, const std::string& expected) {
            EXPECT_EQ(raised.empty(), expected.empty()) << raised;
            EXPECT_NE(raised.find(expected), std::string::npos) << raised;
        };
        expect(Testing::ErrorOf([&] { Store::Open(opened); }), openError);
        expect(Testing::ErrorOf([&] { Store::OpenOrCreate(opened); }), createError);
        if (*createError == '\0')
            expect(Testing::ErrorOf([&] { Store::Open(opened); }), "");
    }
}

TEST_F(StoreFolder, FindsSnapshotsByTheirBeginning)
{
    const Store store = Store::OpenOrCreate(path);
    const auto find = [&](const std::string& wanted) {
        std::string found = "nothing";
        Testing::CatchError([&] { found = store.FindSnapshot(wanted); });
        return found;
    };
    EXPECT_EQ(find("latest"), "nothing");
    for (const char* id : {"2001-b", "2001-a", "2003", "2003-x"})
        directory.Write(std::string("store/snapshots/") + id, "");
    for (const auto& [wanted, id] :
         {std::pair("latest", "2003-x"), {"2001-a", "2001-a"}, {"2003", "2003"}, {"2003-", "2003-x"}})
        EXPECT_EQ(find(wanted), id) << wanted;
    for (const char* wanted : {"2001-", "2002", "9", "", ".."})
        EXPECT_EQ(find(wanted), "nothing") << wanted;
}

} // namespace
