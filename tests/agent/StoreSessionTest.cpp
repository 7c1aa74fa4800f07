// Runs on one store: side by side, interrupted, and on directories that are no store.
#include "agent/Store/SnapshotWriter.h"

#include "testing/Raises.h"
#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <filesystem>
#include <fstream>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

#include <tuple>

using namespace Agent;
namespace fs = std::filesystem;

namespace {

constexpr int Contents = 200;

std::string Content(int number)
{
    // One of them is streamed.
    return std::string(number == 0 ? 1'500'000 : 10, 'c') + std::to_string(number);
}

// Stores one content more in a run.
Address Add(ObjectWriter& objects, SnapshotWriter& snapshot, const std::string& content)
{
    SnapshotEntry entry;
    entry.content = Testing::WriteObject(objects, content);
    snapshot.Add(entry);
    return *entry.content;
}

// A whole run that stores the numbered contents from `first` on.
std::string Backup(const std::string& path, int first)
{
    const Store store = Store::OpenOrCreate(path);
    StoreSession session(store);
    ObjectWriter objects(session);
    SnapshotWriter snapshot(session, {});
    for (int number = first; number < first + Contents; ++number) {
        Add(objects, snapshot, Content(number));
        if (number % 50 == 0)
            session.PlaceObjects();
    }
    return snapshot.Finish(0, 0);
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

std::size_t EntriesIn(const std::string& path)
{
    return static_cast<std::size_t>(std::distance(fs::directory_iterator(path), fs::directory_iterator()));
}

struct StoreRuns : testing::Test
{
    const Testing::TemporaryDirectory directory;
    const std::string path = directory / "store";
};

TEST_F(StoreRuns, RunsSideBySideFromAnEmptyStoreHarmNothing)
{
    // Halves of what neighbours store are the same, and the store is made by whoever comes first.
    std::vector<std::string> ids(4);
    std::vector<std::thread> threads;
    for (std::size_t i = 0; i < ids.size(); ++i)
        threads.emplace_back([&, i] { ids[i] = Backup(path, static_cast<int>(i) * Contents / 2); });
    for (std::thread& thread : threads)
        thread.join();

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
        StoreSession session(store);
        ObjectWriter objects(session);
        SnapshotWriter snapshot(session, {});
        Add(objects, snapshot, Content(5000));
        const std::string large(3'000'000, 'x');
        objects.Begin();
        objects.Append(large.data(), large.size());
        raise(SIGKILL);
    }
    int status = 0;
    waitpid(child, &status, 0);
    ASSERT_TRUE(WIFSIGNALED(status));
    std::ofstream(path + "/tmp/without-a-run") << "left";
    EXPECT_EQ(EntriesIn(path + "/tmp"), 5u);
    EXPECT_EQ(EntriesIn(path + "/snapshots"), 1u);

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
        StoreSession living(store);
        ObjectWriter objects(living);
        SnapshotWriter snapshot(living, {});
        const Address address = Add(objects, snapshot, "living");
        const std::size_t files = EntriesIn(path + "/tmp");
        fs::remove(path + "/snapshots/" + Backup(path, 0));
        EXPECT_EQ(EntriesIn(path + "/tmp"), files);
        living.PlaceObjects();
        EXPECT_TRUE(store.GetObjects().Has(address));
        Add(objects, snapshot, "abandoned");
    }
    for (const char* folder : {"/tmp", "/snapshots"})
        EXPECT_TRUE(fs::is_empty(path + folder)) << folder;
}

TEST_F(StoreRuns, StoreThatCannotBeWrittenIsNoEntrysFailure)
{
    const Store store = Store::OpenOrCreate(path);
    StoreSession session(store);
    ObjectWriter objects(session);
    SnapshotWriter snapshot(session, {});
    fs::remove_all(path + "/tmp");
    objects.Append("content", 7);
    EXPECT_THROW(objects.Finish(), StoreError);
    EXPECT_THROW(snapshot.Finish(0, 0), StoreError);
    EXPECT_TRUE(fs::is_empty(path + "/snapshots"));
}

TEST(Store, TakesOnlyAStoreForOne)
{
    const Testing::TemporaryDirectory directory;
    const auto marked = [&](const char* name, const char* text) {
        directory.Write(std::string(name) + "/kbagent-store", text);
        return name;
    };
    directory.Write("foreign/file", "");
    directory.MakeDirectory("disk/lost+found");
    directory.MakeDirectory("unfinished/objects");
    directory.Write("unfinished/kbagent-store.0123", "kb");
    Store::OpenOrCreate(directory / "good");
    // What opening tells, and what making tells; "" where it succeeds.
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"missing", "There is no store at", ""},
        {"missing/deeper", "There is no store at", ""}, // once its parent was made
        {"nowhere/deeper", "There is no store at", "Failed to open directory"},
        {"foreign", "has no kbagent-store", "isn't empty"},
        {"foreign/file", "Failed to open directory", "Failed to open directory"},
        {"disk", "has no kbagent-store", ""},
        {"unfinished/", "has no kbagent-store", ""},
        {marked("newer", "kbagent-store 2\n"), "is a store of format 2", "is a store of format 2"},
        {marked("other", "something\n"), "kbagent-store is damaged", "kbagent-store is damaged"},
        {"good", "", ""},
    };
    for (const auto& [name, openError, createError] : cases) {
        SCOPED_TRACE(name);
        const std::string path = directory / name;
        const auto expect = [](const std::string& raised, const std::string& told) {
            EXPECT_EQ(raised.empty(), told.empty()) << raised;
            EXPECT_NE(raised.find(told), std::string::npos) << raised;
        };
        expect(Testing::ErrorOf([&] { Store::Open(path); }), openError);
        expect(Testing::ErrorOf([&] { Store::OpenOrCreate(path); }), createError);
        if (*createError == '\0')
            expect(Testing::ErrorOf([&] { Store::Open(path); }), "");
    }
}

TEST(Store, FindsSnapshotsByTheirBeginning)
{
    const Testing::TemporaryDirectory directory;
    const Store store = Store::OpenOrCreate(directory / "store");
    EXPECT_TRUE(Testing::CatchError([&] { store.FindSnapshot("latest"); }));
    for (const char* id : {"2001-b", "2001-a", "2003", "2003-x"})
        directory.Write(std::string("store/snapshots/") + id, "");
    const std::pair<std::string, std::string> cases[] = {
        // what is wanted, and what is found; "" where it raises
        {"latest", "2003-x"}, {"2001-a", "2001-a"},
        {"2001-", ""},        {"2003", "2003"},
        {"2003-", "2003-x"},  {"", ""},
        {"2002", ""},         {"9", ""},
        {"..", ""},
    };
    for (const auto& row : cases) {
        std::string found;
        const auto raised = Testing::CatchError([&] { found = store.FindSnapshot(row.first); });
        EXPECT_EQ(found, row.second) << row.first;
        EXPECT_EQ(raised.has_value(), row.second.empty()) << row.first;
    }
}

} // namespace
