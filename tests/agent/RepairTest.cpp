// Repairs: what is damaged at random is repaired, restic 0.14 finds nothing more, and what was not damaged is
// restored.
#include "agent/Copy/SnapshotCopy.h"
#include "agent/Inspect/RepositoryCheck.h"
#include "agent/Repair/Recovery.h"
#include "agent/Repair/RepairIndex.h"
#include "agent/Repair/RepairPacks.h"
#include "agent/Repair/RepairSnapshots.h"
#include "agent/Repository/Pack.h"
#include "agent/Repository/Tree.h"
#include "agent/Rewrite/TreeFilter.h"

#include "testing/Raises.h"
#include "testing/RepositoryHistory.h"

#include <atomic>
#include <cerrno>
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

// A disk of which, after some reads, one fails or all that follow do; or that has a bad sector.
class UnreadableBackend : public Repo::LocalBackend
{
public:
    using LocalBackend::LocalBackend;

    void Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Repo::Bytes& out) override
    {
        Read(file, file.id == bad && offset <= badOffset && badOffset < offset + length);
        LocalBackend::Load(file, offset, length, out);
    }
    void LoadWhole(const FileName& file, std::uint64_t limit, Repo::Bytes& out) override
    {
        Read(file);
        LocalBackend::LoadWhole(file, limit, out);
    }
    std::uint64_t Size(const FileName& file) override
    {
        Read(file);
        return LocalBackend::Size(file);
    }
    void List(FileKind kind, const std::function<void(const Id& id, std::uint64_t size)>& visit) override
    {
        Read({kind, {}});
        LocalBackend::List(kind, visit);
    }

    std::atomic<std::int64_t> readsLeft{INT64_MAX};
    bool failsOnce = false;
    std::optional<Id> bad; // pack
    std::uint64_t badOffset = 0;

private:
    void Read(const FileName& file, bool isBad = false)
    {
        const std::int64_t left = readsLeft--;
        if (isBad || left == 0 || (left < 0 && !failsOnce))
            Repo::Named([&] { return file.Prefix(); }, [] { KRT_RAISE_OS(EIO, "failed"); });
    }
};

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
            // What is lost depends on the place of the damage.
            Run(advice == "repair index"             ? exitCodeOfIndex
                : advice.starts_with("repair packs") ? -1
                                                     : 0,
                arguments);
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
    EXPECT_EQ(Run(0, "repair index --json").output,
              "{\"message_type\":\"summary\",\"damaged_packs\":0,\"missing_packs\":0,\"lost_blobs\":0}\n");
    const auto before = Files("index");
    fs::rename(repository + "/data", directory / "not mounted");
    fs::create_directory(repository + "/data");
    EXPECT_TRUE(Holds(Run(1, "repair index").errors, "packs of the index exists; is the file system"));
    EXPECT_EQ(Files("index"), before);
    fs::remove(repository + "/data");
    fs::rename(directory / "not mounted", repository + "/data");
    EXPECT_TRUE(Holds(Run(0, "rebuild-index --read-all-packs").output, "the index fits the packs"));
    EXPECT_EQ(Files("index"), before);
    ExpectSound();
    // A pack whose header is damaged still has its blobs.
    const std::string pack = Files("data").front();
    Flip(pack, static_cast<std::streamoff>(fs::file_size(pack)) - 5);
    Run(3, "repair index --read-all-packs");
    EXPECT_TRUE(fs::exists(pack));
    EXPECT_EQ(Run(0, "repair packs --json " + pack).output,
              "{\"message_type\":\"summary\",\"lost_blobs\":0}\n");
    EXPECT_FALSE(fs::exists(pack));
    ExpectSound();
}

TEST_F(RepairTest, PackOfUnknownContentStays)
{
    BackUp();
    const fs::path index = Files("index").front(), copy = directory / "index", pack = Files("data").front();
    fs::rename(index, copy);
    Flip(pack, static_cast<std::streamoff>(fs::file_size(pack)) - 5);
    const std::string advice = Run(3, "repair index").errors;
    EXPECT_TRUE(Holds(advice, "headers can't be read: 1; they are kept")) << advice;
    EXPECT_FALSE(Holds(advice, "repair packs"));
    const std::string errors = Run(1, "check").errors;
    EXPECT_TRUE(Holds(errors, "hint: an older copy of the directory 'index'")) << errors;
    EXPECT_FALSE(Holds(errors, "kbagent repair index") || Holds(errors, "kbagent repair packs")) << errors;
    Run(3, "repair packs --remove-unreadable " + pack.string());
    EXPECT_TRUE(Holds(Run(1, "repair snapshots --forget").errors, "move the pack elsewhere"));
    EXPECT_TRUE(fs::exists(pack));
    // A damaged index file may be the only one that has it.
    fs::copy(copy, index);
    MakeWritable(index);
    fs::resize_file(index, 40);
    EXPECT_TRUE(Holds(Run(3, "repair index").errors, "index: damaged files that are kept"));
    EXPECT_TRUE(fs::exists(index));
    fs::copy(copy, index, fs::copy_options::overwrite_existing);
    Run(0, "repair index");
    Run(0, "repair packs " + pack.string());
    EXPECT_FALSE(fs::exists(pack));
    ExpectSound();
}

TEST_F(RepairTest, OtherCopiesAreReadBeforeDamagedPacksAreRemoved)
{
    MakeTree(source, {File("a", "first"), File("b", "second")});
    Run(0, {"backup", "-q", source});
    const std::shared_ptr<UnreadableBackend> backend =
        std::make_shared<UnreadableBackend>(repository.c_str());
    Repo::Repository opened = Repo::Repository::Open(backend, Repo::Secret(Repo::AsBytes(password)));
    opened.LoadIndex();
    const Id pack = PacksWith(opened, BlobType::Data).front();
    // The disk can't read one of the blobs.
    NoObserver observer;
    const auto blob = opened.GetIndex().Find({BlobType::Data, Id::Of(Repo::AsBytes("second"))});
    backend->bad = pack;
    backend->badOffset = blob->blob.offset;
    const PackRepairOutcome kept = RepairPacks(opened, {pack}, observer);
    EXPECT_EQ(kept.lost, 0u);
    ASSERT_EQ(kept.kept.size(), 1u);
    EXPECT_TRUE(Holds(kept.kept.front().second, "--remove-unreadable"));
    EXPECT_TRUE(fs::exists(PathOf(pack)));
    struct : NoObserver
    {
        void OnError(const std::string&) override {}
    } quiet;
    const CheckSummary checked = CheckRepository(opened, PackSubset(), quiet);
    EXPECT_EQ(checked.unreadablePacks, std::vector{pack});
    EXPECT_TRUE(checked.damagedPacks.empty() && checked.hasReadErrors && !checked.isIndexWrong);
    const PackRepairOutcome removed = RepairPacks(opened, {pack}, observer, true);
    EXPECT_TRUE(removed.lost == 1 && removed.kept.empty());
    EXPECT_FALSE(fs::exists(PathOf(pack)));
    Run(0, {"backup", "-q", "--force", source});
    Run(0, "check --read-data");
    // Another pack has the blob, too.
    Repo::PackWriter writer(opened.GetKey());
    for (const char* const text : {"first", "second"})
        writer.Add({BlobType::Data, Id::Of(Repo::AsBytes(text))}, Repo::AsBytes(text));
    Repo::IndexFileWriter index;
    const Id other = opened.SavePack(writer.Finish());
    index.Add(other, writer.GetBlobs());
    opened.SaveText(FileKind::Index, index.Finish());
    Flip(PathOf(other), 5);
    EXPECT_TRUE(Holds(Run(0, "repair packs --json " + other.ToHex()).output, "\"lost_blobs\":0"));
    Run(0, "check --read-data");
    const Repo::Repository last = Open();
    const auto copies = last.GetIndex().FindAll(blob->blob.handle);
    ASSERT_GE(copies.size(), 2u);
    const auto idOf = [&](const Repo::IndexedBlob& copy) {
        return last.GetIndex().GetPacks()[copy.pack].id;
    };
    for (const Repo::IndexedBlob& copy : copies)
        Flip(PathOf(idOf(copy)), copy.blob.offset + 5);
    EXPECT_TRUE(Holds(Run(3, "repair packs --json " + idOf(copies[0]).ToHex()).output, "\"lost_blobs\":1"));
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
    EXPECT_EQ(Run(0, "repair snapshots -q").output, "");
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
    EXPECT_TRUE(Holds(planned, "would modify 1 snapshot\n"));
    EXPECT_TRUE(Holds(planned, "'kbagent recover' before the next prune"));
    const std::string order = Run(1, "check").errors;
    EXPECT_LT(order.find("kbagent recover"), order.find("kbagent repair snapshots --forget")) << order;
    const ProgramResult documents = Run(0, "repair snapshots --dry-run --json");
    EXPECT_EQ(documents.output, "{\"message_type\":\"summary\",\"changed_snapshots\":1}\n");
    EXPECT_TRUE(Holds(documents.errors,
                      "removed missing content\",\"during\":\"snapshot " + damaged.ToHex().substr(0, 8)));
    EXPECT_EQ(Files("snapshots").size(), 2u);
    EXPECT_TRUE(Holds(Run(1, "repair snapshots --forget").errors, "'kbagent repair index' comes first"));
    Run(3, "repair index");
    Run(0, "repair snapshots --host damaged latest " + damaged.ToHex());
    EXPECT_EQ(Files("snapshots").size(), 3u);
    Run(0, "repair snapshots --forget");
    EXPECT_FALSE(fs::exists(repository + "/" + FileName{FileKind::Snapshot, damaged}.Path()));
    EXPECT_TRUE(fs::exists(repository + "/" + FileName{FileKind::Snapshot, stored.id}.Path()));
    Run(0, "repair index");
    Run(0, "check --read-data");
    const Repo::Repository after = Open();
    const Repo::StoredSnapshot repaired = after.FindSnapshot("latest");
    EXPECT_EQ(repaired.snapshot.original, damaged);
    EXPECT_EQ(repaired.snapshot.summary->totalFilesProcessed, 2u);
    EXPECT_EQ(repaired.snapshot.summary->totalBytesProcessed, 8u);
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
    const std::string advice = Run(1, "check").errors;
    EXPECT_TRUE(Holds(advice, "kbagent " + advised));
    EXPECT_LT(advice.find("kbagent recover"), advice.find("kbagent " + advised)) << advice;
    Run(0, advised);
    EXPECT_FALSE(fs::exists(file1));

    // A snapshot without a root is removed only on request.
    snapshot.tree = Id::Of(Repo::AsBytes("lost"));
    const Id rootless = opened.SaveText(FileKind::Snapshot, snapshot.ToJson());
    const std::size_t count = Files("snapshots").size();
    const ProgramResult failed = Run(3, "repair snapshots");
    EXPECT_TRUE(Holds(failed.output, "no snapshots were modified"));
    EXPECT_TRUE(Holds(failed.output, "'kbagent recover' before the next prune"));
    EXPECT_TRUE(Holds(failed.errors, "snapshot " + rootless.ToHex().substr(0, 8) + ": its root is lost"));
    EXPECT_EQ(Files("snapshots").size(), count);
    EXPECT_TRUE(Holds(Run(0, "repair snapshots --forget").output, "modified 1 snapshot\n"));
    EXPECT_EQ(Files("snapshots").size(), count - 1);

    // What a restore finds of a tree whose text is cut off is kept.
    SnapshotMaker cut(opened);
    cut.Save(cut.Add(BlobType::Tree,
                     R"({"nodes":[)" + node("a", R"("type":"fifo")") + "," + node("b", R"("type":"fifo)")));
    const std::string kept = Run(0, "repair snapshots --forget").output;
    EXPECT_TRUE(Holds(kept, "\"/\": removed the entries after the damage"));
    const std::size_t at = kept.find("saved new snapshot ");
    ASSERT_NE(at, kept.npos);
    EXPECT_TRUE(Holds(Run(0, "ls " + kept.substr(at + 19, 8)).output, "\n/a\n"));
    Run(0, "forget " + kept.substr(at + 19, 8));

    // A directory that is too deep to be read is not lost.
    SnapshotMaker maker(opened);
    Id tree = maker.Add(BlobType::Tree, empty);
    for (std::size_t level = 0; level <= DepthLimit; ++level) {
        Repo::Node child;
        child.name = "d";
        child.type = Repo::NodeType::Directory;
        child.subtree = tree;
        Repo::TreeWriter writer;
        writer.Add(child);
        tree = maker.Add(BlobType::Tree, writer.Finish());
    }
    maker.Save(tree);
    EXPECT_TRUE(Holds(Run(3, "repair snapshots --forget").errors, "is too many levels deep"));
    EXPECT_EQ(Files("snapshots").size(), count);
}

TEST_F(RepairTest, WrongIndexIsNoLoss)
{
    BackUp(3);
    const auto expectRefused = [this] {
        const auto before = FilesBelow(repository);
        EXPECT_TRUE(Holds(Run(1, "repair snapshots --forget").errors, "'kbagent repair index' comes first"));
        EXPECT_TRUE(Holds(Run(0, "repair snapshots --forget -n").errors, "Warning: The index does not fit"));
        EXPECT_EQ(FilesBelow(repository), before);
    };
    const fs::path pack = Files("data").front();
    for (const fs::path& lost : {fs::path(repository + "/index"), pack}) {
        fs::rename(lost, directory / "away");
        expectRefused();
        fs::rename(directory / "away", lost);
    }
    directory.Write("repo/" + FileName{FileKind::Pack, Id::Of({})}.Path(), "of an interrupted backup");
    EXPECT_TRUE(Holds(Run(0, "repair snapshots --forget").output, "no snapshots were modified"));
    MakeWritable(pack);
    fs::resize_file(pack, fs::file_size(pack) - 1);
    expectRefused();
}

TEST_F(RepairTest, ReadErrorIsNoLoss)
{
    BackUp(2);
    Repo::Repository second = CreateRepository(directory / "second", password);
    NoObserver observer;
    Patterns excludes;
    excludes.Add("no such entry", false);
    // The index has to keep what it has of a pack.
    const fs::path pack = PathOf(PacksWith(Open(), BlobType::Data).back());
    Flip(pack, static_cast<std::streamoff>(fs::file_size(pack)) - 5);
    using Work = std::function<void(Repo::Repository & opened, const Repo::StoredSnapshot& latest)>;
    struct
    {
        const char* name;
        Work work;
        bool goesOn = false;  // without what can't be read
        bool changes = false; // the repository
    } const works[] = {
        {"repair snapshots",
         [&](Repo::Repository& opened, const Repo::StoredSnapshot& latest) {
             RepairSnapshots(opened, {latest}, {.removesOld = true}, observer);
         }},
        {"rewrite",
         [&](Repo::Repository& opened, const Repo::StoredSnapshot& latest) {
             const auto fail = [](std::string_view text) {
                 ADD_FAILURE() << text;
             };
             TreeFilter(opened, excludes).Apply(latest.snapshot.tree, fail, fail);
         }},
        {"recover",
         [&](Repo::Repository& opened, const Repo::StoredSnapshot&) {
             opened.LoadIndex();
             FindLostRoots(opened, opened.LoadSnapshots(), observer);
         },
         true},
        {"repair index",
         [&](Repo::Repository& opened, const Repo::StoredSnapshot&) { RepairIndex(opened, true, observer); },
         true, true},
        {"repair packs",
         [&](Repo::Repository& opened, const Repo::StoredSnapshot&) {
             EXPECT_EQ(RepairPacks(opened, {opened.GetIndex().GetPacks().front().id}, observer).lost, 0u);
         },
         true, true},
        {"copy",
         [&](Repo::Repository& opened, const Repo::StoredSnapshot& latest) {
             second.LoadIndex();
             SnapshotCopy(opened, second, {}, observer).Copy(latest);
         }},
    };
    for (const auto& row : works) {
        const auto before = FilesBelow(repository);
        for (const bool failsOnce : {false, true}) {
            if (failsOnce && !row.changes)
                continue;
            SCOPED_TRACE(row.name + std::string(failsOnce ? " once" : ""));
            bool isDone = false;
            int reads = 0;
            for (; !isDone && reads < 200; ++reads) {
                EXPECT_TRUE(second.ListIds(FileKind::Snapshot).empty());
                const auto backend = std::make_shared<UnreadableBackend>(repository.c_str());
                Repo::Repository opened =
                    Repo::Repository::Open(backend, Repo::Secret(Repo::AsBytes(password)));
                opened.LoadIndex();
                const Repo::StoredSnapshot latest = opened.FindSnapshot("latest");
                backend->failsOnce = failsOnce;
                backend->readsLeft = reads;
                const auto error = CatchError([&] { row.work(opened, latest); });
                isDone = backend->readsLeft >= 0;
                EXPECT_TRUE(error ? !isDone && error->GetOsError() == EIO : isDone || row.goesOn);
                Repo::Repository after = OpenRepository(repository, password);
                if (row.changes) {
                    EXPECT_EQ(CheckRepository(after, {}, observer).errors, 0u);
                } else {
                    EXPECT_EQ(FilesBelow(repository), before);
                }
            }
            EXPECT_TRUE(isDone && reads > 3) << reads;
        }
    }
    Run(0, "check --read-data -r " + directory / "second");
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
    FollowAdvice(3);
    Run(0, {"restore", "-q", "latest:" + source, "--target", out.Path(), "--overwrite", "always"});
    EXPECT_EQ(DescribeTree(out.Path()), DescribeTree(source));
}

TEST_F(RepairTest, AdviceInItsOrderLosesNothingThatFilesStillHave)
{
    MakeTree(source, {File("a", "in each snapshot")});
    Run(0, {"backup", "-q", source});
    const std::string first = Files("snapshots").front().filename().string();
    const Id damaged = PacksWith(Open(), BlobType::Data).front();
    Flip(PathOf(damaged), 5);
    const std::string advice = Run(1, "check --read-data").errors;
    const std::size_t packs = advice.find("kbagent repair packs " + damaged.ToHex()),
                      backup = advice.find("hint: after that, the same files should be backed up again"),
                      snapshots = advice.find("kbagent repair snapshots --forget");
    EXPECT_TRUE(packs < backup && backup < snapshots && snapshots != std::string::npos) << advice;
    EXPECT_FALSE(Holds(advice, "recover")) << advice; // no directory is lost
    EXPECT_TRUE(Holds(Run(3, "repair packs " + damaged.ToHex()).errors, "blobs that are lost: 1; back up"));
    EXPECT_TRUE(Holds(Run(1, "check").errors, "hint: the same files should be backed up again"));
    const int exitCode = Run(-1, {"backup", "-q", source}).exitCode;
    EXPECT_TRUE(exitCode == 0 || exitCode == 3) << "it is 3 if the file's times are trusted";
    Run(0, "check --read-data");
    const TemporaryDirectory out;
    Run(0, {"restore", "-q", first + ":" + source, "--target", out.Path()});
    EXPECT_EQ(ReadFile(out / "a"), "in each snapshot");
    // A check reads the trees without --read-data.
    const Id tree = PacksWith(Open(), BlobType::Tree).front();
    Flip(PathOf(tree), 5);
    EXPECT_TRUE(Holds(Run(1, "check").errors, "kbagent repair packs " + tree.ToHex()));
    const std::string unknown(64, '0');
    EXPECT_TRUE(Holds(Run(1, "repair packs " + unknown).errors, "There is no pack " + unknown));
    Run(3, "repair packs " + unknown + " " + tree.ToHex());
    EXPECT_FALSE(fs::exists(PathOf(tree)));
    fs::remove(Files("data").front());
    const std::string missing = Run(1, "check").errors;
    EXPECT_TRUE(Holds(missing, "kbagent repair index")) << missing;
    EXPECT_FALSE(Holds(missing, "kbagent repair packs")) << missing;
    Run(-1, {"backup", "-q", "--force", source});
    Run(0, "forget --keep-last 1");
    const std::string replaced = Run(1, "check").errors;
    EXPECT_TRUE(Holds(replaced, "kbagent repair index")) << replaced;
    EXPECT_FALSE(Holds(replaced, "backed up again") || Holds(replaced, "repair snapshots")) << replaced;
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
    // A directory two levels below the root is lost; then any trees are damaged.
    SnapshotMaker maker(opened);
    Repo::Node child;
    child.name = "d";
    child.type = Repo::NodeType::Directory;
    child.subtree = Id::Of(Repo::AsBytes("lost"));
    for (int level = 0; level < 2; ++level) {
        Repo::TreeWriter writer;
        writer.Add(child);
        child.subtree = maker.Add(BlobType::Tree, writer.Finish());
    }
    maker.Save(*child.subtree);
    Run(0, "forget latest");
    EXPECT_TRUE(Holds(Run(3, "recover").errors,
                      "directory " + child.subtree->ToHex().substr(0, 8) + ": parts of it can't be read"));
    Run(0, "repair snapshots --forget");
    Run(0, "check");
    Flip(PathOf(PacksWith(opened, BlobType::Tree).front()), 5);
    EXPECT_TRUE(Holds(Run(3, "recover").errors, "a tree can't be read"));
}

} // namespace
