// Snapshots made to measure, and their restore into a directory beside which a tree stands that no restore
// may touch.
#pragma once

#include "agent/Store/SnapshotWriter.h"

#include "testing/ProgramFixture.h"
#include "testing/Records.h"
#include "testing/StoreFiles.h"
#include "testing/Tree.h"

#include <optional>
#include <sys/stat.h>

namespace Testing {

class RestoreFixture : public ProgramFixture
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

    /// All but the number of names, since a further name of a file may stand in the target.
    std::string DescribeOutside() const
    {
        const std::string outside = directory / "outside";
        struct stat status = {};
        EXPECT_EQ(lstat(outside.c_str(), &status), 0);
        return std::to_string(status.st_mode) + " " + std::to_string(status.st_mtim.tv_nsec) + "\n" +
               DescribeTree(outside, {.links = false, .identity = true});
    }

    static Agent::SnapshotEntry EntryOf(const Backup::File::YMetadataBase& metadata)
    {
        Agent::SnapshotEntry entry;
        entry.record = metadata.ToJSON();
        return entry;
    }
    static Agent::SnapshotEntry Directory(const Names& names, unsigned int mode = 0755)
    {
        return EntryOf(UnixRecord(names, S_IFDIR | mode));
    }
    static Agent::SnapshotEntry LinkTo(const Names& names, const std::string& linkTarget)
    {
        return EntryOf(UnixRecord(names, S_IFLNK | 0777, 0, linkTarget));
    }
    Agent::SnapshotEntry WithContent(Agent::SnapshotEntry entry, const std::string& content)
    {
        entry.content = WriteObject(*m_writer, content);
        return entry;
    }
    Agent::SnapshotEntry FileWith(const Names& names, const std::string& content,
                                  unsigned long long group = 0)
    {
        Agent::SnapshotEntry entry =
            WithContent(EntryOf(UnixRecord(names, S_IFREG | 0644, content.size())), content);
        entry.hardLinkGroup = group;
        return entry;
    }
    Agent::SnapshotEntry WindowsFile(const std::vector<Names>& paths, const std::string& content,
                                     unsigned int attributes = 0x20)
    {
        return WithContent(EntryOf(WindowsRecord(paths, attributes, content.size())), content);
    }
    struct stat StatusOf(const std::string& name) const
    {
        struct stat status = {};
        EXPECT_EQ(lstat((target + "/" + name).c_str(), &status), 0) << name;
        return status;
    }

    /// Runs `fill` with a snapshot to fill.
    template <class Fill>
    void MakeSnapshot(Fill fill)
    {
        const Agent::Store opened = Agent::Store::OpenOrCreate(store);
        Agent::StoreSession session(opened);
        m_writer.emplace(session);
        Agent::SnapshotWriter writer(session, Agent::SnapshotHeader());
        fill(writer);
        writer.Finish(0, 0);
        m_writer.reset();
    }
    ProgramResult Restore(const ProgramSettings& settings = {},
                          const std::vector<std::string>& paths = {}) const
    {
        std::vector<std::string> arguments = {"restore", "--store", store, "--to", target};
        arguments.insert(arguments.end(), paths.begin(), paths.end());
        return RunProgram(arguments, settings);
    }
    template <class Fill>
    ProgramResult RestoreOf(Fill fill, const std::vector<std::string>& paths = {})
    {
        MakeSnapshot(fill);
        return Restore({}, paths);
    }

    std::string before;
    std::optional<Agent::ObjectWriter> m_writer;
};

} // namespace Testing
