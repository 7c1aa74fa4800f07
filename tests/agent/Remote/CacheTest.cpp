// Copies of files of a repository on a server.
#include "agent/Access/RepositoryOptions.h"
#include "agent/Remote/CachedBackend.h"
#include "agent/Repository/Failure.h"
#include "agent/Repository/LocalBackend.h"

#include "testing/OnThreads.h"
#include "testing/OrdinaryUser.h"
#include "testing/RepositoryFixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

using namespace Agent;
using namespace Testing;
using namespace Agent::Repo;
using Remote::CachedBackend;
using Remote::CacheDirectory;
namespace fs = std::filesystem;

namespace {

// Counts what a server would be asked for.
struct CountingBackend : LocalBackend
{
    using LocalBackend::LocalBackend;
    void Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Bytes& out) override
    {
        ++loads;
        RequireUp();
        LocalBackend::Load(file, offset, length, out);
    }
    void LoadWhole(const FileName& file, std::uint64_t limit, Bytes& out) override
    {
        ++loads;
        RequireUp();
        LocalBackend::LoadWhole(file, limit, out);
    }
    void RequireUp() const { REPOSITORY_RAISE_UNLESS(!isDown, Failure::Backend, "no server"); }
    std::atomic<int> loads{0};
    bool isDown = false;
};

class Cache : public ::testing::Test
{
protected:
    // A new process.
    std::unique_ptr<CachedBackend> Open(const std::string& name = "cache")
    {
        auto cached = std::make_unique<CachedBackend>(counted);
        cached->UseDirectory(CacheDirectory(directory / name, Id::Of({})));
        return cached;
    }
    FileName Saved(FileKind kind, const std::string& text, bool hasTrees = false)
    {
        const FileName file{kind, Id::Of(AsBytes(text)), hasTrees};
        counted->Save(file, AsBytes(text));
        return file;
    }
    // How often the repository is asked when this is called.
    int LoadsOf(const std::function<void()>& call)
    {
        const int before = counted->loads;
        call();
        return counted->loads - before;
    }
    std::string CopyOf(const FileName& file, const char* folder) const
    {
        return directory / "cache/" + Id::Of({}).ToHex() + "/" + folder + "/" + file.id.ToHex();
    }

    const TemporaryDirectory directory;
    const std::shared_ptr<CountingBackend> counted =
        std::make_shared<CountingBackend>((directory / "repo").c_str());
};

TEST_F(Cache, FilesAreLoadedOnceAndDamageIsRepaired)
{
    counted->Prepare();
    const FileName snapshot = Saved(FileKind::Snapshot, "snapshot"), index = Saved(FileKind::Index, "index"),
                   trees = Saved(FileKind::Pack, "pack of trees", true),
                   data = Saved(FileKind::Pack, "pack of data");
    const auto loadAll = [&] {
        const auto cached = Open();
        Bytes read;
        for (const FileName& file : {snapshot, index}) {
            cached->LoadWhole(file, 100, read);
            EXPECT_EQ(Id::Of(read), file.id);
            EXPECT_THROW(cached->LoadWhole(file, 1, read), RepositoryError);
        }
        cached->Load(trees, 8, 5, read);
        EXPECT_EQ(AsText(read), "trees");
        EXPECT_THROW(cached->Load(trees, 8, 50, read), RepositoryError);
        cached->Load(data, 8, 4, read);
        EXPECT_EQ(AsText(read), "data");
    };
    constexpr int NotKept = 4; // data, and what raises
    EXPECT_EQ(LoadsOf(loadAll), 3 + NotKept);
    EXPECT_EQ(LoadsOf(loadAll), NotKept);
    fs::resize_file(CopyOf(snapshot, "snapshots"), 3);
    directory.Write("other", "pack of tree_");
    fs::rename(directory / "other", CopyOf(trees, "trees"));
    fs::remove(CopyOf(index, "index"));
    ASSERT_EQ(mkfifo(CopyOf(index, "index").c_str(), 0600), 0);
    EXPECT_EQ(LoadsOf(loadAll), 3 + NotKept);
    EXPECT_EQ(LoadsOf(loadAll), NotKept);
    fs::remove_all(directory / "cache");
    counted->isDown = true;
    Bytes read;
    EXPECT_EQ(LoadsOf([&] { EXPECT_THROW(Open()->Load(trees, 8, 5, read), RepositoryError); }), 1);
    counted->isDown = false;
    EXPECT_EQ(LoadsOf(loadAll), 3 + NotKept);
}

TEST_F(Cache, CopiesFollowRepository)
{
    counted->Prepare();
    const auto cached = Open();
    const std::string text = "new";
    const FileName file{FileKind::Snapshot, Id::Of(AsBytes(text))},
        pack{FileKind::Pack, Id::Of(AsBytes(text)), true};
    cached->Save(file, AsBytes(text));
    cached->Save(pack, AsBytes(text));
    Bytes read;
    EXPECT_EQ(LoadsOf([&] {
                  cached->LoadWhole(file, 10, read);
                  cached->Load(pack, 0, 3, read);
              }),
              0);
    counted->Remove(pack); // by another host
    cached->List(FileKind::Pack, [](const Id&, std::uint64_t) {});
    EXPECT_FALSE(fs::exists(CopyOf(pack, "trees")));
    cached->Remove(file);
    EXPECT_THROW(cached->LoadWhole(file, 10, read), RepositoryError);
    const std::string old = directory / "cache/" + std::string(64, 'a');
    directory.Write("cache/" + std::string(64, 'a') + "/index/x", "x");
    const timespec longAgo[2] = {{1, 0}, {1, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, old.c_str(), longAgo, 0), 0);
    fs::resize_file(directory / "cache/CACHEDIR.TAG", 0); // by a crash
    Open();
    EXPECT_FALSE(fs::exists(old));
    EXPECT_GT(fs::file_size(directory / "cache/CACHEDIR.TAG"), 43u);
    EXPECT_EQ(StatusOf(directory / "cache").st_mode & 07777u, 0700u);
}

TEST_F(Cache, PackIsLoadedOnceByThreads)
{
    counted->Prepare();
    const FileName trees = Saved(FileKind::Pack, std::string(1000, 'x'), true);
    const auto cached = Open();
    EXPECT_EQ(LoadsOf([&] {
                  OnThreads(8, [&](int) {
                      Bytes read;
                      for (std::uint64_t i = 0; i < 100; ++i)
                          cached->Load(trees, i, 10, read);
                  });
              }),
              1);
}

TEST_F(Cache, DirectoryOfOthersIsNotUsed)
{
    fs::create_directory_symlink(directory.MakeDirectory("elsewhere"), directory / "link");
    EXPECT_THROW(Open("link"), Krt::Exception::YError);
    EXPECT_TRUE(fs::is_empty(directory / "elsewhere"));
    fs::permissions(directory.MakeDirectory("shared"), fs::perms(0770));
    EXPECT_THROW(Open("shared"), Krt::Exception::YError);
    directory.Write("file", "");
    EXPECT_THROW(Open("file"), Krt::Exception::YError);
    if (geteuid() != 0)
        GTEST_SKIP() << "only root can give a directory away";
    ASSERT_EQ(chown(directory.MakeDirectory("foreign").c_str(), OrdinaryUser, OrdinaryUser), 0);
    EXPECT_THROW(Open("foreign"), Krt::Exception::YError);
}

TEST(DefaultCache, PlaceDependsOnUserAndEnvironment)
{
    unsetenv("KBAGENT_CACHE_DIR");
    const struct
    {
        const char *caches, *home, *place;
    } rows[] = {
        {"/caches", "/home/user", "/caches/kbagent"},
        {"caches", "/home/user", "/home/user/.cache/kbagent"},
        {"", "", ""}, // a service may have neither
    };
    for (const auto& row : rows) {
        EXPECT_TRUE(HoldsAsOrdinaryUser([&row] {
            setenv("XDG_CACHE_HOME", row.caches, 1);
            setenv("HOME", row.home, 1);
            return FindCacheDirectory(RepositoryOptions()) == row.place;
        })) << row.place;
    }
    if (geteuid() == 0) {
        EXPECT_EQ(FindCacheDirectory(RepositoryOptions()), "/var/cache/kbagent");
    }
}

} // namespace
