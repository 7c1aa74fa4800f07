// Whole repositories: one that restic wrote, ones that both programs write for each other, and damaged ones.
#include "agent/Repository/Repository.h"
#include "agent/Repository/LocalBackend.h"
#include "agent/Repository/Pack.h"
#include "agent/Repository/Tree.h"

#include "testing/OnThreads.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <sstream>
#include <sys/wait.h>
#include <thread>

using namespace Agent::Repo;
namespace fs = std::filesystem;

namespace {

constexpr const char* Golden = GOLDEN_DIRECTORY "/repository/repo";

Repository OpenAt(const std::string& path, const char* password, const OpenOptions& options = {})
{
    return Repository::Open(std::make_shared<LocalBackend>(path.c_str()), Secret(AsBytes(password)), options);
}

Repository CreateAt(const std::string& path, std::uint32_t version = 2)
{
    CreateOptions options;
    options.version = version;
    options.cost = {16, 1, 1};
    return Repository::Create(std::make_shared<LocalBackend>(path.c_str()), Secret(AsBytes("secret")),
                              options);
}

// The failure that the call raises and its message, or nothing.
std::optional<RepositoryError> ErrorOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const RepositoryError& error) {
        return error;
    }
    return std::nullopt;
}

std::optional<Failure> FailureOf(const std::function<void()>& call)
{
    const auto error = ErrorOf(call);
    return error ? std::optional(error->GetFailure()) : std::nullopt;
}

// The text with the escapes of later versions in place of those of restic 0.14.
std::string Modern(std::string text)
{
    const std::pair<std::string, std::string> escapes[] = {
        {"\\u0008", "\\b"}, {"\\u000c", "\\f"}, {"\\ufffd", "\xEF\xBF\xBD"}};
    for (const auto& [old, current] : escapes) {
        for (std::size_t at = 0; (at = text.find(old, at)) != text.npos;)
            text.replace(at, old.size(), current);
    }
    return text;
}

// Calls `visit` with the path and the node of each entry below a tree. Each tree is written again unchanged.
void Walk(const Repository& repository, const Id& tree, const std::string& path,
          const std::function<void(const std::string& path, const Node& node)>& visit)
{
    Bytes text;
    repository.LoadBlob({BlobType::Tree, tree}, text);
    TreeReader reader(AsText(text), UnknownMembers::Keep);
    TreeWriter writer;
    Node node;
    while (reader.Next(node)) {
        writer.Add(node);
        visit(path + "/" + node.name, node);
        if (node.subtree)
            Walk(repository, *node.subtree, path + "/" + node.name, visit);
    }
    EXPECT_EQ(writer.Finish(reader.GetUnknown()), Modern(std::string(AsText(text)))) << path;
}

std::string HexOf(std::string_view text)
{
    std::string digits;
    for (const unsigned char byte : text) {
        char pair[3];
        std::snprintf(pair, sizeof(pair), "%02x", byte);
        digits += pair;
    }
    return digits;
}

const char* WordOf(NodeType type)
{
    static constexpr const char* Words[] = {"file",    "dir",  "symlink", "dev",
                                            "chardev", "fifo", "socket",  "?"};
    return Words[static_cast<int>(type)];
}

std::string LineOf(const std::string& path, const Node& node)
{
    std::ostringstream line;
    line << HexOf(path) << ' ' << WordOf(node.type) << ' ' << node.mode << ' ' << node.size << ' '
         << node.mtime.seconds << ' ' << node.mtime.nanoseconds << ' '
         << (node.linkTarget.empty() ? "-" : HexOf(node.linkTarget)) << ' ' << node.device << ' '
         << (node.content ? std::to_string(node.content->size()) : "null") << '\n';
    return line.str();
}

TEST(Repository, RepositoryOfResticIsRead)
{
    Repository repository = OpenAt(Golden, "vector");
    EXPECT_EQ(repository.GetConfig().id.ToHex(),
              "bf3783fcc7db5710ee09f6edbcc65d8f8d57d3dea83a353a09a77c95de6a724f");
    EXPECT_EQ(repository.GetConfig().polynomial, 0x310d7fe3841fb1u);
    EXPECT_EQ(repository.GetConfig().ToJson(), repository.LoadText({}));

    const auto snapshots = repository.LoadSnapshots();
    ASSERT_EQ(snapshots.size(), 3u);
    for (const StoredSnapshot& stored : snapshots)
        EXPECT_EQ(stored.snapshot.ToJson(), repository.LoadText({FileKind::Snapshot, stored.id}));
    EXPECT_EQ(repository.FindSnapshot("latest").id.ToHex().substr(0, 8), "b57192d7");
    EXPECT_EQ(repository.FindSnapshot("latest", {{"vm"}, {}, {}}).id.ToHex().substr(0, 8), "8538dd3f");
    EXPECT_EQ(repository.FindSnapshot("latest", {{}, {{"two", "one"}}, {}}).id.ToHex().substr(0, 8),
              "2313a638");
    EXPECT_EQ(repository.FindSnapshot("8538").snapshot.hostname, "vm");
    for (const char* const text : {"", "8539", "latest2"})
        EXPECT_TRUE(Testing::CatchError([&] { repository.FindSnapshot(text); })) << text;
    EXPECT_TRUE(Testing::CatchError([&] { repository.FindSnapshot("latest", {{"none"}, {}, {}}); }));

    repository.LoadIndex();
    EXPECT_EQ(repository.GetIndex().CountBlobs(), 82u);
    std::string lines;
    for (const StoredSnapshot& stored : snapshots) {
        Walk(repository, stored.snapshot.tree, "", [&](const std::string& path, const Node& node) {
            if (stored.id.ToHex().starts_with("2313a638"))
                lines += LineOf(path, node);
        });
    }
    EXPECT_EQ(lines, Testing::ReadFile(GOLDEN_DIRECTORY "/repository/entries.txt"));

    std::size_t missing = 0;
    Bytes plaintext;
    for (const IndexedPack& pack : repository.GetIndex().GetPacks()) {
        const auto headerFailure = FailureOf([&] {
            for (const PackedBlob& blob : repository.LoadPackHeader(pack.id, pack.size)) {
                EXPECT_EQ(repository.GetIndex().Find(blob.handle)->blob, blob);
                repository.LoadBlob(blob.handle, plaintext);
            }
        });
        missing += headerFailure == Failure::Missing;
    }
    EXPECT_EQ(missing, 1u) << "one pack was left out";
    EXPECT_EQ(FailureOf([&] { repository.LoadBlob({BlobType::Data, Id()}, plaintext); }), Failure::Missing);
}

TEST(Repository, OnlyItsPasswordsOpenIt)
{
    OpenOptions second;
    second.keyHint = "f410";
    EXPECT_EQ(OpenAt(Golden, "second password", second).GetKeyId().ToHex().substr(0, 4), "f410");

    const Testing::TemporaryDirectory directory;
    const std::string path = directory / "repo";
    const auto error = ErrorOf([&] { OpenAt(path, "secret"); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->GetFailure(), Failure::NoRepository);
    EXPECT_NE(error->GetMessage().Bytes().find(path), std::string::npos);
    const Repository repository = CreateAt(path);
    EXPECT_EQ(FailureOf([&] { OpenAt(path, "Secret"); }), Failure::WrongPassword);
    EXPECT_TRUE(Testing::CatchError([&] { CreateAt(path); })) << "there is one already";

    // A damaged key file hides neither the others nor itself.
    const Id damaged = Id::Of(AsBytes("x"));
    repository.GetBackend().Save({FileKind::Key, damaged}, AsBytes("{}"));
    EXPECT_EQ(OpenAt(path, "secret").GetKeyId(), repository.GetKeyId());
    std::string unread;
    OpenOptions noting;
    noting.onUnreadKey = [&](const FileName&, const RepositoryError& failure) {
        unread += failure.GetMessage().Bytes();
    };
    EXPECT_EQ(FailureOf([&] { OpenAt(path, "Secret", noting); }), Failure::WrongPassword);
    EXPECT_EQ(unread.find("keys/" + damaged.ToHex() + ": damaged at offset"), 0u);

    repository.GetBackend().Remove({FileKind::Key, damaged});
    for (int i = 0; i < 30; ++i) {
        KeyFile file;
        file.cost = {2, 1, 1};
        file.SetMaster(repository.GetKey(), Secret(AsBytes(std::to_string(i))));
        const std::string json = file.ToJson();
        repository.GetBackend().Save({FileKind::Key, Id::Of(AsBytes(json))}, AsBytes(json));
    }
    int opened = 0;
    for (int i = 0; i < 30; ++i)
        opened += !FailureOf([&] { OpenAt(path, std::to_string(i).c_str()); });
    EXPECT_LE(opened, OpenOptions::KeyLimit);
    EXPECT_GE(opened, OpenOptions::KeyLimit - 1);
    OpenOptions hint;
    hint.keyHint = repository.GetKeyId().ToHex();
    EXPECT_EQ(OpenAt(path, "secret", hint).GetKeyId(), repository.GetKeyId());
}

// A repository with one snapshot of a file "f" in a directory "d".
class Written
{
public:
    explicit Written(const std::string& path, std::uint32_t version = 2) : repository(CreateAt(path, version))
    {
        const bool compresses = version == 2;
        PackWriter data(repository.GetKey()), trees(repository.GetKey());
        Node file, directory;
        file.name = "f\n\"\xFF";
        file.mode = MakeNodeMode(S_IFREG | 0644);
        file.mtime = file.atime = file.ctime = Timestamp::Now();
        file.content.emplace();
        for (const std::string& part : {std::string(100'000, 'x'), std::string("tail")}) {
            file.content->push_back(Id::Of(AsBytes(part)));
            file.size += part.size();
            content += part;
            data.Add({BlobType::Data, file.content->back()}, AsBytes(part), compresses);
        }
        directory.name = "d";
        directory.type = NodeType::Directory;
        directory.mode = MakeNodeMode(S_IFDIR | 0755);
        directory.mtime = directory.atime = directory.ctime = file.mtime;
        directory.unknown = {{"own_key", "{\"a\":[1]}"}};
        directory.subtree = AddTree(trees, file, compresses);
        snapshot.time = Timestamp::Now();
        snapshot.tree = AddTree(trees, directory, compresses);
        snapshot.paths = {"/d"};
        snapshot.hostname = "host";
        IndexFileWriter index;
        for (PackWriter* const pack : {&data, &trees}) {
            const Id id = repository.SavePack(pack->Finish());
            index.Add(id, pack->GetBlobs());
        }
        repository.SaveText(FileKind::Index, index.Finish());
        repository.SaveText(FileKind::Snapshot, snapshot.ToJson());
    }

    Repository repository;
    Snapshot snapshot;
    std::string content; // of the file

private:
    static Id AddTree(PackWriter& trees, const Node& node, bool compresses)
    {
        TreeWriter writer;
        writer.Add(node);
        const std::string text = writer.Finish();
        const Id id = Id::Of(AsBytes(text));
        trees.Add({BlobType::Tree, id}, AsBytes(text), compresses);
        return id;
    }
};

// All files of a snapshot by their paths, with everything in the repository verified.
std::map<std::string, std::string> ReadAll(const std::string& path, const char* password)
{
    Repository repository = OpenAt(path, password);
    Bytes bytes;
    for (const FileKind kind : {FileKind::Snapshot, FileKind::Index, FileKind::Pack}) {
        for (const Id& id : repository.ListIds(kind))
            repository.LoadStored({kind, id}, bytes);
    }
    const StoredSnapshot latest = repository.FindSnapshot("latest");
    repository.LoadIndex();
    for (const IndexedPack& pack : repository.GetIndex().GetPacks()) {
        EXPECT_EQ(repository.GetBackend().Size({FileKind::Pack, pack.id}), pack.size);
        repository.LoadPackHeader(pack.id, pack.size);
    }
    std::map<std::string, std::string> files;
    Walk(repository, latest.snapshot.tree, "", [&](const std::string& name, const Node& node) {
        if (node.type != NodeType::File)
            return;
        std::string& content = files[name];
        for (const Id& id : node.content.value()) {
            repository.LoadBlob({BlobType::Data, id}, bytes);
            content += AsText(bytes);
        }
        EXPECT_EQ(content.size(), node.size);
    });
    return files;
}

TEST(Repository, DamageNeverChangesContent)
{
    const Testing::TemporaryDirectory directory;
    const std::string path = directory / "repo";
    const std::string content = Written(path).content;
    const std::map<std::string, std::string> whole = ReadAll(path, "secret");
    ASSERT_EQ(whole, (std::map<std::string, std::string>{{"/d/f\n\"\xFF", content}}));
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(path)) {
        if (entry.is_regular_file())
            files.push_back(entry.path());
    }
    ASSERT_EQ(files.size(), 6u);
    std::mt19937 random(1);
    for (const std::string& file : files) {
        fs::permissions(file, fs::perms(0600));
        const std::string sound = Testing::ReadFile(file);
        const std::string name = file.substr(path.size() + 1);
        const auto check = [&](const std::string& damaged) {
            directory.Write("repo/" + name, damaged);
            std::optional<std::map<std::string, std::string>> read;
            const auto error = ErrorOf([&] { read = ReadAll(path, "secret"); });
            // A key file is opened if only its notes are damaged.
            EXPECT_TRUE(error || (name.starts_with("keys/") && read == whole)) << name;
            if (error && !name.starts_with("data/")) {
                EXPECT_EQ(error->GetMessage().Bytes().find(name + ": "), 0u) << error->what();
            }
        };
        for (int i = 0; i < 40; ++i) {
            std::string damaged = sound;
            damaged[random() % sound.size()] ^= static_cast<char>(1 << random() % 8);
            check(damaged);
        }
        check("");
        check(sound.substr(0, random() % sound.size()));
        check(sound + "x");
        fs::remove(file);
        EXPECT_TRUE(Testing::CatchError([&] { ReadAll(path, "secret"); })) << name;
        directory.Write("repo/" + name, sound);
    }
    EXPECT_EQ(ReadAll(path, "secret"), whole);
}

TEST(Repository, DamagedCopyIsReplacedByOtherOnAllThreads)
{
    const Testing::TemporaryDirectory directory;
    Written written(directory / "repo");
    Repository& repository = written.repository;
    const std::string text = "tail";
    const BlobHandle handle{BlobType::Data, Id::Of(AsBytes(text))};
    PackWriter writer(repository.GetKey());
    writer.Add(handle, AsBytes(text));
    const Id copy = repository.SavePack(writer.Finish());
    IndexFileWriter index;
    index.Add(copy, writer.GetBlobs());
    repository.SaveText(FileKind::Index, index.Finish());
    repository.LoadIndex();
    const auto places = repository.GetIndex().FindAll(handle);
    ASSERT_EQ(places.size(), 2u);
    const auto packOf = [&](const IndexedBlob& place) {
        return FileName{FileKind::Pack, repository.GetIndex().GetPacks()[place.pack].id};
    };
    repository.GetBackend().Save(packOf(places[0]), AsBytes("damaged"));
    std::atomic<int> read = 0;
    Testing::OnThreads(4, [&](int) {
        Bytes plaintext;
        for (int i = 0; i < 200; ++i) {
            repository.LoadBlob(handle, plaintext);
            read += AsText(plaintext) == text;
        }
    });
    EXPECT_EQ(read, 800);
    repository.GetBackend().Remove(packOf(places[1]));
    Bytes plaintext;
    EXPECT_EQ(FailureOf([&] { repository.LoadBlob(handle, plaintext); }), Failure::Damaged)
        << "the first one's";

    // The message names a tree that can't be read.
    writer.Clear();
    const BlobHandle tree{BlobType::Tree, Id::Of(AsBytes("{\"nodes\":1}"))};
    writer.Add(tree, AsBytes("{\"nodes\":1}"));
    index.Add(repository.SavePack(writer.Finish()), writer.GetBlobs());
    repository.SaveText(FileKind::Index, index.Finish());
    repository.LoadIndex();
    const auto error = ErrorOf([&] { repository.VisitTree(tree.id, [](Node&) { return true; }); });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->GetMessage().Bytes(),
              "tree " + tree.id.ToHex() + ": damaged at offset 9: an array is expected");

    // An index that states another length or another id than the blob has.
    std::vector<PackedBlob> blobs = writer.GetBlobs();
    Bytes sealed;
    for (const auto& change : {+[](PackedBlob& blob) { ++blob.plainLength; },
                               +[](PackedBlob& blob) { blob.plainLength = UINT32_MAX; },
                               +[](PackedBlob& blob) { blob.isCompressed = false; },
                               +[](PackedBlob& blob) {
                                   blob.handle.id = Id();
                               }}) {
        PackedBlob blob = blobs.front();
        const ByteView pack = writer.Finish();
        sealed.assign(pack.begin(), pack.begin() + blob.length);
        change(blob);
        EXPECT_EQ(FailureOf([&] { repository.DecodeBlob(copy, blob, sealed, plaintext); }), Failure::Damaged);
        sealed.assign(pack.begin(), pack.begin() + blob.length);
        Bytes room(std::min<std::size_t>(blob.plainLength, 1 << 20));
        EXPECT_EQ(FailureOf([&] { repository.DecodeBlobInto(copy, blob, sealed, room); }), Failure::Damaged);
    }
}

TEST(Repository, HasTheSameIndexWithAnyNumberOfThreads)
{
    const Testing::TemporaryDirectory directory;
    Repository repository = CreateAt(directory / "repo");
    PackedBlob blob;
    for (unsigned char number = 0; number < 40; ++number) {
        IndexFileWriter index;
        blob.length = SealOverhead + number;
        blob.plainLength = number;
        blob.handle.id = Id::Of({&number, 1});
        index.Add(Id::Of(Bytes(2, number)), std::span(&blob, 1));
        repository.SaveText(FileKind::Index, index.Finish());
    }
    const auto read = [&repository] {
        std::vector<std::pair<PackedBlob, Id>> all;
        const Index& index = repository.GetIndex();
        for (std::uint32_t i = 0; i < index.CountBlobs(); ++i)
            all.emplace_back(index.At(i).blob, index.GetPacks()[index.At(i).pack].id);
        return all;
    };
    repository.LoadIndex();
    const auto one = read();
    repository.LoadIndex({}, 4);
    EXPECT_EQ(one.size(), 40u);
    EXPECT_TRUE(read() == one);

    std::atomic<int> looks{0};
    const auto interrupt = [&looks] { // while the second half is read or added
        KRT_RAISE_UNLESS(++looks <= 60, Krt::ErrorCode::InvalidState, "Interrupted");
    };
    EXPECT_THROW(repository.LoadIndex([](const auto&...) { FAIL() << "not a damaged file"; }, 4, interrupt),
                 Krt::Exception::YError);
    EXPECT_TRUE(read() == one) << "it is unchanged";

    const std::vector<Id> files = repository.ListIds(FileKind::Index);
    for (const Id& damaged : {files[3], files[30]})
        repository.GetBackend().Save({FileKind::Index, damaged}, AsBytes("x"));
    EXPECT_EQ(FailureOf([&] { repository.LoadIndex({}, 4); }), Failure::Damaged);
    EXPECT_TRUE(read() == one) << "it is unchanged";
    std::vector<Id> reported;
    repository.LoadIndex([&](const FileName& file, const RepositoryError&) { reported.push_back(file.id); },
                         4);
    EXPECT_EQ(reported, (std::vector<Id>{files[3], files[30]}));
    EXPECT_EQ(read().size(), 38u);
}

// Debian's restic, an independent program.
class ResticTest : public ::testing::TestWithParam<int>
{
protected:
    void SetUp() override
    {
        if (std::system("command -v restic >/dev/null") != 0)
            GTEST_SKIP() << "restic is not installed";
    }
    // Its output; the test fails if it does.
    std::string Run(const std::string& arguments) const
    {
        const std::string command = "cd " + directory.Path() +
                                    " && HOME=. RESTIC_PASSWORD=secret restic --no-cache -r repo " +
                                    arguments + " >output 2>&1";
        const int status = std::system(command.c_str());
        std::string output = Testing::ReadFile(directory / "output");
        EXPECT_EQ(WEXITSTATUS(status), 0) << output;
        return output;
    }

    const Testing::TemporaryDirectory directory;
};

TEST_P(ResticTest, WrittenRepositoryIsReadByRestic)
{
    const Written written(directory / "repo", static_cast<std::uint32_t>(GetParam()));
    EXPECT_NE(Run("check --read-data").find("no errors were found"), std::string::npos);
    EXPECT_NE(Run("ls latest").find("/d/f"), std::string::npos);
    Run("restore latest --target out");
    EXPECT_TRUE(Testing::ReadFile(directory / "out/d/f\n\"\xFF") == written.content);
    EXPECT_NE(Run("cat config").find(written.repository.GetConfig().id.ToHex()), std::string::npos);
    EXPECT_EQ(Run("snapshots --json --host host").find("[{"), 0u);
}

TEST_P(ResticTest, RepositoryOfResticIsRead)
{
    std::map<std::string, std::string> content;
    std::mt19937 random(2);
    for (const std::size_t size : {0, 1, 4000, 3'000'000}) {
        std::string& text = content["/s/" + std::to_string(size) + "\n\xC3\xA9\xFF"];
        std::generate_n(std::back_inserter(text), size, [&] { return static_cast<char>(random() % 17); });
    }
    for (const auto& [name, text] : content)
        directory.Write(name.substr(1), text);
    Run("init --repository-version " + std::to_string(GetParam()));
    Run("backup --tag one s");
    directory.Write("s/last", "x");
    Run("backup s");
    content["/s/last"] = "x";
    EXPECT_TRUE(ReadAll(directory / "repo", "secret") == content);
}

INSTANTIATE_TEST_SUITE_P(Version, ResticTest, ::testing::Values(1, 2));

TEST(LargeBlobs, AreInMemoryOfOneThread)
{
    const Testing::TemporaryDirectory directory;
    Repository created = CreateAt(directory / "repo");
    IndexFileWriter index;
    std::vector<Id> trees;
    for (const char* name : {"a", "b"}) {
        const std::string text = R"({"nodes":[{"name":")" + std::string(name) + R"(","type":"fifo"}]})" +
                                 std::string(LargeBlobSize, ' ');
        trees.push_back(Id::Of(AsBytes(text)));
        PackWriter pack(created.GetKey());
        pack.Add({BlobType::Tree, trees.back()}, AsBytes(text));
        const Id id = created.SavePack(pack.Finish());
        index.Add(id, pack.GetBlobs());
    }
    created.SaveText(FileKind::Index, index.Finish());
    created.LoadIndex();
    std::atomic<int> visiting{0}, most{0}, next{0};
    const auto read = [&] {
        created.VisitTree(trees[static_cast<std::size_t>(next++)], [&](const Node&) {
            most = std::max(most.load(), ++visiting);
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
            --visiting;
            return false;
        });
    };
    std::thread other(read);
    read();
    other.join();
    EXPECT_EQ(most, 1);
}

} // namespace
