// Repairs: what is damaged at random is repaired, restic 0.14 finds nothing more, and what was not damaged is
// restored.
#include "agent/Inspect/RepositoryCheck.h"
#include "agent/Repository/Pack.h"
#include "agent/Repository/Tree.h"

#include "testing/RepositoryHistory.h"

#include <filesystem>
#include <fstream>
#include <set>

using namespace Agent;
using namespace Testing;
using Repo::BlobType;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;
namespace fs = std::filesystem;

namespace {

class RepairTest : public RepositoryHistory
{
protected:
    static void MakeWritable(const fs::path& file)
    {
        fs::permissions(file, fs::perms::owner_write, fs::perm_options::add);
    }
    void Flip(const fs::path& file, std::streamoff place) const
    {
        MakeWritable(file);
        std::fstream stream(file, std::ios::in | std::ios::out | std::ios::binary);
        stream.seekg(place);
        const int byte = stream.get();
        stream.seekp(place);
        stream.put(static_cast<char>(byte ^ 1));
    }
    static void SkipDamaged(const FileName&, const Repo::RepositoryError&) {}
    Repo::Repository Open(const Repo::FailureVisitor& onFailure = {}) const
    {
        Repo::Repository opened = Repo::Repository::Open(
            std::make_shared<Repo::LocalBackend>(repository.c_str()), Repo::Secret(Repo::AsBytes(password)));
        opened.LoadIndex(onFailure);
        return opened;
    }
    // The IDs of the packs with this type of blobs.
    static std::vector<Id> PacksWith(const Repo::Repository& opened, BlobType type)
    {
        std::vector<Id> ids;
        for (const Repo::IndexedPack& pack : opened.GetIndex().GetPacks()) {
            if (type == BlobType::Tree ? pack.hasTrees : pack.hasData)
                ids.push_back(pack.id);
        }
        return ids;
    }
    std::string PathOf(const Id& pack) const
    {
        return repository + "/" + FileName{FileKind::Pack, pack}.Path();
    }
    // All is repaired, as the check advises.
    void FollowAdvice(int exitCodeOfIndex)
    {
        std::istringstream errors(Run(1, "check --read-data").errors);
        std::set<std::string> advices;
        for (std::string line; std::getline(errors, line);) {
            if (const auto at = line.find(": kbagent repair "); at != std::string::npos)
                advices.insert(line.substr(at + 10));
        }
        for (const std::string& advice : advices) { // index, packs, snapshots
            const std::vector<std::string> arguments =
                Words(advice + " -q -r " + repository + " -p password");
            Run(advice == "repair index" ? exitCodeOfIndex : 0, arguments);
        }
        Run(0, "check --read-data");
        if (HasRestic()) {
            EXPECT_TRUE(Holds(Restic("check --read-data"), "no errors were found"));
        }
    }

    const std::string passwordFile = directory.Write("password", password);
};

TEST_F(RepairTest, IndexNamesPacksThatExist)
{
    BackUp(4);
    fs::remove(Files("index")[0]);
    MakeWritable(Files("index")[0]);
    fs::resize_file(Files("index")[0], 40);
    // A pack that does not exist, and one that has only a part of its blobs.
    const Repo::Repository opened = Open(SkipDamaged);
    const Repo::IndexedBlob first = opened.GetIndex().At(0);
    Repo::IndexFileWriter index;
    index.Add(Id(), std::vector{first.blob});
    Repo::PackedBlob wrong = first.blob;
    wrong.offset += 10;
    index.Add(opened.GetIndex().GetPacks()[first.pack].id, std::vector{wrong});
    opened.SaveText(FileKind::Index, index.Finish());
    EXPECT_TRUE(Holds(Run(0, "repair index").output, "removing not found pack file 00000000"));
    ExpectSound();
    EXPECT_TRUE(Holds(Run(0, "repair index").output, "the index fits the packs"));
    const auto before = Files("index");
    Run(0, "rebuild-index --read-all-packs");
    EXPECT_NE(Files("index"), before);
    ExpectSound();
    // A pack whose header is damaged still has its blobs.
    const std::string pack = Files("data").front();
    Flip(pack, static_cast<std::streamoff>(fs::file_size(pack)) - 5);
    Run(3, "repair index --read-all-packs");
    EXPECT_TRUE(fs::exists(pack));
    EXPECT_EQ(Run(0, "repair packs -q " + pack).output.find("lost"), std::string::npos);
    EXPECT_FALSE(fs::exists(pack));
    ExpectSound();
}

TEST_F(RepairTest, HealthyFilesOutliveDamagedPacks)
{
    BackUp(6);
    MakeTree(source, {File("healthy", "in a pack of its own", 0640), Link("link", "healthy")});
    Run(0, {"backup", "-q", source});
    const Repo::Repository opened = Open();
    const std::vector<Id> packs = PacksWith(opened, BlobType::Data);
    std::vector<Id> damaged;
    const Id kept = opened.GetIndex()
                        .GetPacks()[opened.GetIndex()
                                        .Find({BlobType::Data, Id::Of(Repo::AsBytes("in a pack of its own"))})
                                        ->pack]
                        .id;
    for (const Id& id : packs) {
        if (id == kept)
            continue;
        const std::string path = PathOf(id);
        const auto size = fs::file_size(path);
        MakeWritable(path);
        switch (damaged.size() % 3) {
        case 0:
            Flip(path, static_cast<std::streamoff>(random() % size));
            break;
        case 1:
            fs::resize_file(path, size / 2);
            break;
        default:
            fs::remove(path);
        }
        damaged.push_back(id);
    }
    ASSERT_GE(damaged.size(), 4u);
    const auto snapshots = Files("snapshots");
    FollowAdvice(3);
    EXPECT_NE(Files("snapshots"), snapshots);
    EXPECT_EQ(Files("snapshots").size(), snapshots.size());
    const TemporaryDirectory out;
    Run(0, {"restore", "-q", "latest:" + source, "--target", out.Path()});
    EXPECT_EQ(ReadFile(out / "healthy"), "in a pack of its own");
    EXPECT_EQ(StatusOf(out / "healthy").st_mode & 07777, 0640u);
    EXPECT_EQ(fs::read_symlink(out / "link"), "healthy");
    EXPECT_EQ(Run(0, "repair snapshots").output.substr(0, 9), "snapshot ");
    EXPECT_TRUE(Holds(Run(0, "repair snapshots -q").output, "no snapshots were modified"));
}

TEST_F(RepairTest, SnapshotsLoseOnlyWhatIsLost)
{
    MakeTree(source, {Dir("a"), Dir("a/b"), File("a/b/f", "1"), File("a/g", "2"), File("z", "3")});
    Run(0, {"backup", "-q", source});
    const Repo::Repository opened = Open();
    const Repo::StoredSnapshot stored = opened.FindSnapshot("latest");
    // The trees again, each in a pack of its own, except that of a/b; with a member that is not known.
    Repo::IndexFileWriter index;
    const auto save = [&](BlobType type, const std::string& text) {
        Repo::PackWriter pack(opened.GetKey());
        const Id id = Id::Of(Repo::AsBytes(text));
        pack.Add({type, id}, Repo::AsBytes(text));
        index.Add(opened.SavePack(pack.Finish()), pack.GetBlobs());
        return id;
    };
    const std::string lost = Id::Of(Repo::AsBytes("lost")).ToHex(),
                      data = save(BlobType::Data, "here").ToHex();
    const std::string times = R"("mtime":"2020-01-01T00:00:00Z","atime":"2020-01-01T00:00:00Z",)"
                              R"("ctime":"2020-01-01T00:00:00Z","uid":0,"gid":0)";
    const auto node = [&](const std::string& name, const std::string& rest) {
        return R"({"name":")" + name + R"(",)" + times + "," + rest + "}";
    };
    const std::string file =
        R"("type":"file","size":8,"content":[")" + data + R"(",")" + lost + R"("],"own":[1])";
    const std::string root = R"({"nodes":[)" + node("cut", file) + "," +
                             node("dir", R"("type":"dir","content":null,"subtree":")" + lost + R"(")") + "," +
                             node("good", R"("type":"file","size":4,"content":[")" + data + R"("])") +
                             R"(],"more":true})";
    Repo::Snapshot snapshot = stored.snapshot;
    snapshot.tree = save(BlobType::Tree, root);
    snapshot.time.seconds += 10;
    snapshot.hostname = "damaged";
    // The index has the empty tree, but its pack does not exist.
    Repo::PackWriter missing(opened.GetKey());
    const std::string empty = Repo::TreeWriter().Finish();
    missing.Add({BlobType::Tree, Id::Of(Repo::AsBytes(empty))}, Repo::AsBytes(empty));
    index.Add(Id(), missing.GetBlobs());
    const Id damaged = opened.SaveText(FileKind::Snapshot, snapshot.ToJson());
    opened.SaveText(FileKind::Index, index.Finish());

    const std::string planned = Run(0, "repair snapshots --dry-run").output;
    EXPECT_TRUE(Holds(planned, "\"/cut\": removed missing content"));
    EXPECT_TRUE(Holds(planned, "\"/dir\": replaced with an empty directory"));
    EXPECT_TRUE(Holds(planned, "would modify 1 snapshots"));
    const ProgramResult documents = Run(0, "repair snapshots --dry-run --json");
    EXPECT_EQ(documents.output, "{\"message_type\":\"summary\",\"changed_snapshots\":1}\n");
    EXPECT_TRUE(Holds(documents.errors, "removed missing content"));
    EXPECT_EQ(Files("snapshots").size(), 2u);
    Run(0, "repair snapshots --host damaged");
    EXPECT_EQ(Files("snapshots").size(), 3u);
    Run(0, "repair snapshots --forget");
    EXPECT_FALSE(fs::exists(repository + "/" + FileName{FileKind::Snapshot, damaged}.Path()));
    EXPECT_TRUE(fs::exists(repository + "/" + FileName{FileKind::Snapshot, stored.id}.Path()));
    Run(0, "repair index");
    Run(0, "check --read-data");
    const Repo::Repository after = Open();
    const Repo::StoredSnapshot repaired = after.FindSnapshot("latest");
    EXPECT_EQ(repaired.snapshot.original, damaged);
    Repo::Bytes text;
    after.LoadBlob({BlobType::Tree, repaired.snapshot.tree}, text);
    EXPECT_TRUE(
        Holds(std::string(Repo::AsText(text)), R"("size":4,"content":[")" + data + R"("],"own":[1]})"));
    EXPECT_TRUE(Holds(std::string(Repo::AsText(text)), R"("more":true})"));
    if (HasRestic()) {
        EXPECT_TRUE(Holds(Restic("check --read-data"), "no errors were found"));
    }

    // A snapshot file that can't be read is removed only by its ID.
    const auto file1 = Files("snapshots").front();
    MakeWritable(file1);
    fs::resize_file(file1, 50);
    Run(3, "repair snapshots --forget");
    EXPECT_TRUE(fs::exists(file1));
    const std::string advised = "repair snapshots --forget " + file1.filename().string();
    EXPECT_TRUE(Holds(Run(1, "check").errors, "kbagent " + advised));
    Run(0, advised);
    EXPECT_FALSE(fs::exists(file1));
}

TEST_F(RepairTest, BackupStoresAgainWhatIsLost)
{
    BackUp(3);
    const auto damage = [this](BlobType type, bool isRemoved) {
        const Repo::Repository opened = Open();
        for (const Id& id : PacksWith(opened, type)) {
            MakeWritable(PathOf(id));
            isRemoved ? static_cast<void>(fs::remove(PathOf(id))) : Flip(PathOf(id), 100);
        }
    };
    // Trees of the parent can't be read; then packs are missing.
    damage(BlobType::Tree, false);
    Run(3, {"backup", "-q", source});
    damage(BlobType::Data, true);
    EXPECT_TRUE(Holds(Run(3, {"backup", "-q", source}).errors, "packs that are missing"));
    const TemporaryDirectory out;
    Run(0, {"restore", "-q", "latest:" + source, "--target", out.Path()});
    EXPECT_EQ(DescribeTree(out.Path()), DescribeTree(source));
    FollowAdvice(0);
    Run(0, {"restore", "-q", "latest:" + source, "--target", out.Path(), "--overwrite", "always"});
    EXPECT_EQ(DescribeTree(out.Path()), DescribeTree(source));
}

TEST_F(RepairTest, ForgottenDirectoriesAreRecovered)
{
    BackUp(2);
    EXPECT_TRUE(Holds(Run(0, "recover").output, "found 0 directories"));
    const auto files = Files("snapshots");
    Run(0, "forget " + files[0].filename().string());
    MakeWritable(files[1]);
    fs::resize_file(files[1], 50);
    EXPECT_TRUE(Holds(Run(0, "recover").output, "found 2 directories"));
    fs::remove(files[1]);
    const Repo::Repository opened = Open();
    const Repo::StoredSnapshot recovered = opened.FindSnapshot("latest");
    EXPECT_EQ(recovered.snapshot.tags, std::vector<std::string>{"recovered"});
    std::set<std::string> found, lost;
    opened.VisitTree(recovered.snapshot.tree, [&](const Repo::Node& node) {
        const TemporaryDirectory out;
        Run(0, {"restore", "-q", "latest:/" + node.name + source, "--target", out.Path()});
        found.insert(DescribeTree(out.Path()));
        return true;
    });
    for (const auto& [id, tree] : trees)
        lost.insert(tree);
    EXPECT_EQ(found, lost);
    Run(0, "check --read-data");
    if (HasRestic()) {
        EXPECT_TRUE(Holds(Restic("check --read-data"), "no errors were found"));
    }
    EXPECT_TRUE(Holds(Run(0, "recover").output, "found 0 directories"));
}

} // namespace
