// rewrite: snapshots without some of their entries, compared with backups by restic 0.14 that exclude these.
#include "testing/RepositoryFixture.h"
#include "testing/Tree.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Repository/Lock.h"
#include "agent/Repository/Pack.h"

#include <boost/json.hpp>

#include <unistd.h>

using namespace Agent;
using namespace Testing;
using Repo::FileKind;
using Repo::Id;
namespace json = boost::json;

namespace {

class Rewrite : public RepositoryFixture
{
protected:
    Id Latest() const { return opened.LoadSnapshots().back().id; }

    const Repo::Repository opened = Create();
};

TEST_F(Rewrite, TreesEqualThoseOfBackupsThatExclude)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    MakeTree(source, EveryKindOfEntry());
    for (const char* path : {"source/x/y/secret.txt", "source/x/y/z", "source/x/Notes.TMP", "source/later",
                             "source/w/secret.txt"})
        directory.Write(path, path);
    unlink((source + "/socket").c_str());
    directory.Write("patterns", "# none\nsecret.*\n");
    Restic("backup " + source + " --tag x --host h");
    const Id whole = Latest();
    std::size_t count = 1;
    for (const std::vector<std::string>& excludes :
         std::vector<std::vector<std::string>>{{"--exclude", "later"},
                                               {"--exclude", source + "/x"},
                                               {"--iexclude", "*.tmp"},
                                               {"--exclude-file", "patterns", "--exclude", "**/y/z"},
                                               {"-e", "secret.txt", "-e", "!" + source + "/w/secret.txt"}}) {
        std::string quoted;
        for (const std::string& word : excludes)
            quoted += " '" + word + "'";
        SCOPED_TRACE(quoted);
        std::vector<std::string> arguments{"rewrite", "--json", whole.ToHex()};
        arguments.insert(arguments.end(), excludes.begin(), excludes.end());
        const json::value done = json::parse(Words(Run(0, arguments).output).front());
        const Repo::Snapshot changed =
            opened.LoadSnapshot(*Id::FromHex(std::string_view(done.at("new_snapshot_id").as_string())));
        EXPECT_EQ(changed.tags, (std::vector<std::string>{"x", "rewrite"}));
        EXPECT_EQ(changed.original, whole);
        EXPECT_EQ(changed.time, opened.LoadSnapshot(whole).time);
        Restic("backup --force " + source + quoted);
        // Directories above change while other tests run.
        const Repo::Repository now = Open();
        EXPECT_EQ(FindEntry(now, changed.tree, source).node.subtree,
                  FindEntry(now, now.LoadSnapshot(Latest()).tree, source).node.subtree);
        EXPECT_NE(changed.tree, opened.LoadSnapshot(whole).tree);
        EXPECT_EQ(opened.ListIds(FileKind::Snapshot).size(), count += 2);
    }
    Restic("check --read-data");
}

TEST_F(Rewrite, OnlyWhatMatchesIsReplaced)
{
    directory.Write("source/a", "a");
    directory.Write("source/secret", "secret");
    Run(0, "backup --host h1 --tag rewrite source");
    Run(0, "backup --host h2 source/a");
    const std::size_t trees = Files("data").size();
    for (const char* wrong : {"rewrite", "rewrite --exclude [", "rewrite --exclude a --no-lock"})
        Run(2, wrong);
    EXPECT_TRUE(
        Holds(Run(0, "rewrite -n --exclude secret").output, "excluding " + source + "/secret\nwould save"));
    EXPECT_TRUE(Holds(Run(0, "rewrite --exclude x").output, "no snapshots were modified"));
    EXPECT_EQ(Files("data").size(), trees);
    Repo::Lock lock;
    lock.time = Repo::Timestamp::Now();
    const Id held = opened.SaveText(FileKind::Lock, lock.ToJson());
    Run(11, "rewrite --forget --exclude secret");
    Run(0, "rewrite --exclude x");
    opened.GetBackend().Remove({FileKind::Lock, held});
    const auto whole = opened.ListIds(FileKind::Snapshot);
    for (const char* all : {"rewrite -n --exclude *", "rewrite --forget --exclude *"}) {
        const auto kept = Run(3, all);
        EXPECT_TRUE(Holds(kept.errors, "The patterns leave nothing of the snapshot"));
        EXPECT_FALSE(Holds(kept.output, "excluding"));
    }
    EXPECT_EQ(opened.ListIds(FileKind::Snapshot), whole);
    for (const char* outcome : {"modified 1 snapshot\n", "no snapshots were modified\n"})
        EXPECT_TRUE(Holds(Run(0, "rewrite --exclude secret").output, outcome));
    Run(0, "rewrite --forget --exclude secret");
    const auto snapshots = opened.LoadSnapshots();
    ASSERT_EQ(snapshots.size(), 2u);
    EXPECT_EQ(snapshots[0].snapshot.tags, std::vector<std::string>{"rewrite"});
    EXPECT_EQ(snapshots[0].snapshot.summary->totalFilesProcessed, 1u);
    EXPECT_EQ(snapshots[0].snapshot.summary->totalBytesProcessed, 1u);
    // The one with the tag replaces the old one, too.
    Run(0, "backup --host h3 source");
    Run(0, "rewrite --exclude secret");
    Run(0, "rewrite --forget --exclude secret");
    EXPECT_EQ(opened.ListIds(FileKind::Snapshot).size(), 3u);
    Run(0, "check --read-data");
}

TEST_F(Rewrite, NothingButWhatMatchesIsLost)
{
    const auto save = [this](const std::string& text) {
        Repo::PackWriter pack(opened.GetKey());
        Repo::Snapshot snapshot;
        snapshot.time = Repo::Timestamp::Now();
        snapshot.tree = Id::Of(Repo::AsBytes(text));
        pack.Add({Repo::BlobType::Tree, snapshot.tree}, Repo::AsBytes(text));
        Repo::IndexFileWriter index;
        const Id id = opened.SavePack(pack.Finish());
        index.Add(id, pack.GetBlobs());
        opened.SaveText(FileKind::Index, index.Finish());
        return opened.SaveText(FileKind::Snapshot, snapshot.ToJson()).ToHex();
    };
    // The blank is in no form that can be written.
    const std::string other = save(R"({"nodes":[{"name":"a","type":"fifo","uid":0, "gid":0}]})");
    EXPECT_TRUE(Holds(Run(3, "rewrite --exclude a " + other).errors, "without losing"));
    EXPECT_EQ(opened.ListIds(FileKind::Snapshot).size(), 1u);
    // Members of a later version.
    Repo::TreeWriter tree;
    Repo::Node node;
    node.type = Repo::NodeType::Fifo;
    node.unknown = {{"later", "[1]"}};
    for (const char* name : {"a", "b"}) {
        node.name = name;
        tree.Add(node);
    }
    const std::string later = save(tree.Finish({{"more", "2"}}));
    Run(0, "rewrite --forget --exclude a " + later);
    // A tree that is in the snapshot 2^60 times.
    SnapshotMaker maker(opened);
    Id tower = maker.Add(Repo::BlobType::Tree, Repo::TreeWriter().Finish());
    for (int level = 0; level < 60; ++level) {
        Repo::TreeWriter writer;
        for (const char* name : {"a", "b"}) {
            Repo::Node directoryNode;
            directoryNode.name = name;
            directoryNode.type = Repo::NodeType::Directory;
            directoryNode.subtree = tower;
            writer.Add(directoryNode);
        }
        tower = maker.Add(Repo::BlobType::Tree, writer.Finish());
    }
    const std::string text = Run(0, "cat tree latest").output;
    maker.Save(tower);
    EXPECT_TRUE(Holds(Run(-1, "rewrite -n --exclude none latest").output, "no snapshots were modified"));
    EXPECT_TRUE(Holds(text, R"("later":[1]}],"more":2})")) << text;
    EXPECT_FALSE(Holds(text, R"("a")"));
}

} // namespace
