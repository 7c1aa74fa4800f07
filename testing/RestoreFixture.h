// Custom snapshots, and their restore into a directory next to a tree that no restore may touch.
#pragma once

#include "testing/RepositoryFixture.h"
#include "testing/Tree.h"

#include "Krt/File/YDirectory.h"

#include <sys/stat.h>
#include <unistd.h>

namespace Testing {

/// An entry of a custom snapshot.
struct Recorded
{
    Agent::Repo::Node node;
    std::string content = {};           ///< of a file
    std::vector<Recorded> entries = {}; ///< of a directory
};

class RestoreFixture : public RepositoryFixture
{
protected:
    void SetUp() override
    {
        MakeTree(directory.MakeDirectory("outside"),
                 {Dir("dir"), File("dir/file", "sentinel"), Link("dir/link", "file"), Fifo("dir/fifo"),
                  Dir("dir/sub"), File("dir/sub/file", "deeper"), File("file", "too")});
        before = DescribeOutside();
    }
    void TearDown() override { EXPECT_EQ(DescribeOutside(), before); }

    /// Describes the tree outside of the target. Without the numbers of links, since the target may have a
    /// further hard link to one of its files.
    std::string DescribeOutside() const
    {
        const std::string outside = directory / "outside";
        const struct stat status = Testing::StatusOf(outside);
        return std::to_string(status.st_mode) + " " + std::to_string(status.st_mtim.tv_nsec) + "\n" +
               DescribeTree(outside, {.links = false, .identity = true});
    }

    /// Returns an entry owned by this process's user, last written 1000000000 seconds after 1970.
    static Recorded EntryOf(const std::string& name, Agent::Repo::NodeType type, unsigned int mode)
    {
        Recorded entry;
        Agent::Repo::Node& node = entry.node;
        node.name = name;
        node.type = type;
        node.mode = Agent::Repo::MakeNodeMode(mode);
        node.uid = geteuid();
        node.gid = getegid();
        node.mtime = node.atime = node.ctime = Agent::Repo::Timestamp::Local(1000000000, 0);
        return entry;
    }
    static Recorded Directory(const std::string& name, std::vector<Recorded> entries,
                              unsigned int mode = 0755)
    {
        Recorded entry = EntryOf(name, Agent::Repo::NodeType::Directory, S_IFDIR | mode);
        entry.entries = std::move(entries);
        return entry;
    }
    static Recorded LinkTo(const std::string& name, const std::string& linkTarget)
    {
        Recorded entry = EntryOf(name, Agent::Repo::NodeType::Symlink, S_IFLNK | 0777);
        entry.node.linkTarget = linkTarget;
        return entry;
    }
    static Recorded FifoAt(const std::string& name, unsigned int mode = 0640)
    {
        return EntryOf(name, Agent::Repo::NodeType::Fifo, S_IFIFO | mode);
    }
    /// With an inode, it is one of two names of the file.
    static Recorded FileWith(const std::string& name, const std::string& content, unsigned int mode = 0644,
                             unsigned long long inode = 0)
    {
        Recorded entry = EntryOf(name, Agent::Repo::NodeType::File, S_IFREG | mode);
        entry.content = content;
        entry.node.inode = inode;
        entry.node.links = inode == 0 ? 1 : 2;
        return entry;
    }

    /// Adds a snapshot to the repository, which is created if it does not exist.
    void MakeSnapshot(const std::vector<Recorded>& entries) const
    {
        const Agent::Repo::Repository opened = std::filesystem::exists(repository) ? Open() : Create();
        SnapshotMaker maker(opened);
        maker.Save(AddTree(maker, entries));
    }
    /// Restores the latest snapshot. Without a lock, which would wait for others.
    ProgramResult Restore(int exitCode, const ProgramSettings& settings = {},
                          const std::vector<std::string>& more = {}) const
    {
        std::vector<std::string> arguments = {"restore", "--no-lock", "latest", "--target", target};
        arguments.insert(arguments.end(), more.begin(), more.end());
        return Run(exitCode, arguments, settings);
    }
    ProgramResult RestoreOf(int exitCode, const std::vector<Recorded>& entries) const
    {
        MakeSnapshot(entries);
        return Restore(exitCode);
    }
    Krt::File::YDirectory OpenTarget() const
    {
        return Krt::File::YDirectory::Open(Krt::File::YPath(target.c_str()));
    }
    struct stat StatusOf(const std::string& name) const { return Testing::StatusOf(target + "/" + name); }

    std::string before;

private:
    static Agent::Repo::Id AddTree(SnapshotMaker& maker, const std::vector<Recorded>& entries)
    {
        std::string text = R"({"nodes":[)";
        for (const Recorded& entry : entries) {
            Agent::Repo::Node node = entry.node;
            if (node.type == Agent::Repo::NodeType::Directory)
                node.subtree = AddTree(maker, entry.entries);
            if (node.type == Agent::Repo::NodeType::File && !node.content) {
                node.content = {maker.Add(Agent::Repo::BlobType::Data, entry.content)};
                node.size = entry.content.size();
            }
            text += text.ends_with('[') ? "" : ",";
            Agent::Repo::AppendNode(node, text);
        }
        return maker.Add(Agent::Repo::BlobType::Tree, text + "]}\n");
    }
};

} // namespace Testing
