// What every backend promises. A further backend adds its factory at the end.
#include "agent/Remote/Location.h"
#include "agent/Repository/Failure.h"
#include "agent/Repository/LocalBackend.h"

#include "testing/FileSizeLimit.h"
#include "testing/OnThreads.h"
#include "testing/RcloneServer.h"
#include "testing/RestStore.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <random>
#include <sys/stat.h>
#include <unistd.h>

using namespace Agent::Repo;
namespace fs = std::filesystem;

namespace {

std::optional<Failure> FailureOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const RepositoryError& error) {
        return error.GetFailure();
    }
    return std::nullopt;
}

std::map<Id, std::uint64_t> Listed(IBackend& backend, FileKind kind)
{
    std::map<Id, std::uint64_t> files;
    backend.List(kind,
                 [&files](const Id& id, std::uint64_t size) { EXPECT_TRUE(files.emplace(id, size).second); });
    return files;
}

// A backend, and the server that it needs.
struct Scene
{
    std::unique_ptr<IBackend> backend; // null if the server is missing, for this reason:
    std::string reason = {};
    std::shared_ptr<void> server = {};
};

struct BackendKind
{
    const char* label;
    // Makes a backend for an empty place, which it may create below the directory.
    Scene (*make)(const Testing::TemporaryDirectory& directory);
    int page = 8; // the most files of one response to a list; any number if there is no bound

    friend void PrintTo(const BackendKind& kind, std::ostream* out) { *out << kind.label; }
};

class Backend : public ::testing::TestWithParam<BackendKind>
{
protected:
    void SetUp() override
    {
        if (!backend)
            GTEST_SKIP() << scene.reason;
    }

    const Testing::TemporaryDirectory directory;
    Scene scene = GetParam().make(directory);
    const std::unique_ptr<IBackend> backend = std::move(scene.backend);
};

TEST_P(Backend, SavedFilesAreKept)
{
    Bytes content(100'000);
    for (std::size_t i = 0; i < content.size(); ++i)
        content[i] = static_cast<unsigned char>(i * i >> 4);
    const Id id = Id::Of(content);
    EXPECT_TRUE(Listed(*backend, FileKind::Pack).empty()) << "a place that does not exist has no files";
    backend->Prepare();
    backend->Prepare();
    Bytes read;
    for (const FileKind kind : {FileKind::Config, FileKind::Key, FileKind::Lock, FileKind::Snapshot,
                                FileKind::Index, FileKind::Pack}) {
        const FileName file{kind, id};
        SCOPED_TRACE(file.Path());
        EXPECT_EQ(FailureOf([&] { backend->Size(file); }), Failure::Missing);
        EXPECT_EQ(FailureOf([&] { backend->LoadWhole(file, 10, read); }), Failure::Missing);
        EXPECT_EQ(FailureOf([&] { backend->Load(file, 0, 1, read); }), Failure::Missing);
        backend->Remove(file);
        backend->Save(file, AsBytes("before"));
        backend->Save(file, content);
        EXPECT_EQ(backend->Size(file), content.size());
        backend->LoadWhole(file, content.size(), read);
        EXPECT_EQ(read, content);
        backend->Load(file, 99'990, 10, read);
        EXPECT_EQ(read, Bytes(content.end() - 10, content.end()));
        backend->Load(file, content.size(), 0, read);
        EXPECT_TRUE(read.empty());
        for (const auto& [offset, length] : {std::pair(99'991ull, 10ull), {1ull << 40, 1ull}, {0ull, ~0ull}})
            EXPECT_EQ(FailureOf([&, at = offset, size = length] { backend->Load(file, at, size, read); }),
                      Failure::Damaged);
        EXPECT_EQ(FailureOf([&] { backend->LoadWhole(file, content.size() - 1, read); }), Failure::Damaged);
        if (kind != FileKind::Config) {
            EXPECT_EQ(Listed(*backend, kind), (std::map<Id, std::uint64_t>{{id, content.size()}}));
        }
        backend->Remove(file);
        EXPECT_EQ(FailureOf([&] { backend->Size(file); }), Failure::Missing);
        backend->Save(file, {});
        EXPECT_FALSE(backend->SaveNew(file, content));
        EXPECT_EQ(backend->Size(file), 0u);
        backend->Remove(file);
        EXPECT_TRUE(backend->SaveNew(file, content));
        EXPECT_EQ(backend->Size(file), content.size());
    }
    EXPECT_THROW(backend->List(FileKind::Pack, [](const Id&, std::uint64_t) { throw 1; }), int);
}

TEST_P(Backend, ListHasFilesOfAllPages)
{
    constexpr int Threads = 8;
    const int each = GetParam().page / Threads + 1;
    backend->Prepare();
    Testing::OnThreads(Threads, [&](int thread) {
        for (int i = 0; i < each; ++i)
            backend->Save({FileKind::Pack, Id::Of(AsBytes(std::to_string(thread * each + i)))}, {});
    });
    EXPECT_EQ(Listed(*backend, FileKind::Pack).size(), static_cast<std::size_t>(Threads * each));
}

std::unique_ptr<IBackend> OpenRemote(const std::string& location)
{
    Agent::Remote::SecretSources secrets;
    secrets.environment = [](const char* name) {
        return std::getenv(name);
    };
    return Agent::Remote::MakeRemoteBackend(location, {}, std::move(secrets));
}

Scene RestScene(const Testing::RestStore& empty)
{
    const auto store = std::make_shared<Testing::RestStore>(empty);
    const auto server = std::make_shared<Testing::HttpServer>(
        [store](const Testing::HttpRequest& request) { return store->Handle(request); });
    return {OpenRemote("rest:http://" + server->Place() + "/"), "", server};
}

const BackendKind s_kinds[] = {
    {"Local",
     [](const Testing::TemporaryDirectory& directory) -> Scene {
         return {std::make_unique<LocalBackend>((directory / "a/repo").c_str())};
     }},
    {"Rest1",
     [](const Testing::TemporaryDirectory&) {
         return RestScene({.version = 1});
     }},
    {"Rest2WithoutReplacing",
     [](const Testing::TemporaryDirectory&) {
         return RestScene({.isReplacing = false});
     }},
    {"RestOfRclone",
     [](const Testing::TemporaryDirectory& directory) -> Scene {
         const auto server = std::make_shared<Testing::RcloneServer>(directory.MakeDirectory("served"));
         if (server->Place().empty())
             return {nullptr, "rclone is not installed"};
         return {OpenRemote("rest:http://" + server->Place() + "/a/repo/"), "", server};
     }},
    {"S3",
     [](const Testing::TemporaryDirectory&) -> Scene {
         const char* const bucket = std::getenv("KBAGENT_TEST_S3");
         if (bucket == nullptr)
             return {nullptr, "KBAGENT_TEST_S3 names no bucket; testing/s3-server.sh starts a server"};
         return {OpenRemote(bucket + ("/contract-" + std::to_string(std::random_device{}())))};
     },
     1000},
};
INSTANTIATE_TEST_SUITE_P(Kinds, Backend, ::testing::ValuesIn(s_kinds),
                         [](const auto& kind) { return kind.param.label; });

TEST(LocalBackend, FailedWriteLeavesNoPartOfFile)
{
    const Testing::TemporaryDirectory directory;
    LocalBackend backend((directory / "repo").c_str());
    backend.Prepare();
    const FileName file{FileKind::Snapshot, Id::Of({})};
    const Bytes content(100'000, 'x');
    {
        const Testing::FileSizeLimit limit(50'000);
        EXPECT_EQ(FailureOf([&] { backend.Save(file, content); }), Failure::Backend);
    }
    EXPECT_TRUE(fs::is_empty(directory / "repo/snapshots"));
}

unsigned int ModeOf(const std::string& path)
{
    return Testing::StatusOf(path).st_mode & 07777u;
}

TEST(LocalBackend, NewRepositoryHasLayoutAndModesOfFormat)
{
    const Testing::TemporaryDirectory directory;
    const std::string root = directory / "repo";
    LocalBackend backend(root.c_str());
    const Id id = Id::Of({});
    const std::string name = id.ToHex(), pack = root + "/data/" + name.substr(0, 2) + "/" + name;
    const mode_t mask = umask(0077);
    backend.Prepare();
    backend.Save({FileKind::Pack, id}, AsBytes("x"));
    EXPECT_EQ(ModeOf(root), 0700u);
    EXPECT_EQ(ModeOf(root + "/data/ff"), 0700u);
    EXPECT_EQ(ModeOf(pack), 0400u);

    backend.Save({FileKind::Config, {}}, AsBytes("x"));
    fs::permissions(root + "/config", fs::perms(0440));
    fs::remove_all(root + "/data/" + name.substr(0, 2));
    backend.Save({FileKind::Pack, id}, AsBytes("x"));
    umask(mask);
    EXPECT_EQ(ModeOf(root + "/data/" + name.substr(0, 2)), 0770u);
    EXPECT_EQ(ModeOf(pack), 0440u);

    for (const std::string& other : {"index/" + name + "-tmp-123", std::string("index/notes"),
                                     "index/" + std::string(64, 'A'), "data/00/" + name})
        directory.Write("repo/" + other, "x");
    EXPECT_TRUE(Listed(backend, FileKind::Index).empty());
    fs::create_directory(root + "/index/" + std::string(64, 'b'));
    EXPECT_EQ(Listed(backend, FileKind::Index).size(), 1u)
        << "it can't be read, which must not stay unnoticed";
    EXPECT_EQ(Listed(backend, FileKind::Pack).size(), 1u);
    fs::remove_all(root + "/index");
    EXPECT_TRUE(Listed(backend, FileKind::Index).empty());
}

TEST(LocalBackend, SymlinkIsNotWrittenThrough)
{
    const Testing::TemporaryDirectory directory;
    LocalBackend backend((directory / "repo").c_str());
    const std::string outside = directory.MakeDirectory("outside");
    backend.Prepare();
    fs::remove(directory / "repo/index");
    fs::create_directory_symlink(outside, directory / "repo/index");
    const FileName file{FileKind::Index, Id::Of({})};
    EXPECT_EQ(FailureOf([&] { backend.Save(file, AsBytes("x")); }), Failure::Backend);
    EXPECT_TRUE(fs::is_empty(outside));
    directory.Write("outside/" + file.id.ToHex(), "x");
    int listed = 0;
    backend.List(FileKind::Index, [&](const Id&, std::uint64_t) { ++listed; });
    EXPECT_EQ(listed, 1) << "it is read";
    fs::remove_all(outside);
    EXPECT_EQ(FailureOf([&] { backend.List(FileKind::Index, [](const Id&, std::uint64_t) {}); }),
              Failure::Backend)
        << "a dangling symlink";
    fs::create_symlink("/etc/passwd", directory / "repo/config");
    Bytes read;
    EXPECT_EQ(FailureOf([&] { backend.LoadWhole({}, 1 << 20, read); }), Failure::Backend);
    ASSERT_TRUE(fs::remove(directory / "repo/config"));
    ASSERT_EQ(mkfifo((directory / "repo/config").c_str(), 0600), 0);
    EXPECT_EQ(FailureOf([&] { backend.LoadWhole({}, 1 << 20, read); }), Failure::Damaged);
}

} // namespace
