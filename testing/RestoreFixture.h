// Custom snapshots, and their restore into a directory next to a tree that no restore may touch.
#pragma once

#include "testing/ProgramFixture.h"
#include "testing/Records.h"
#include "testing/StoreFiles.h"
#include "testing/Tree.h"

#include <optional>

namespace Testing {

/// An entry of a snapshot, and the content of its file.
struct Recorded
{
    Agent::SnapshotEntry entry;
    std::optional<std::string> content = std::nullopt;
};

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

    /// Describes the tree outside of the target. Without the numbers of links, since the target may have a
    /// further hard link to one of its files.
    std::string DescribeOutside() const
    {
        const std::string outside = directory / "outside";
        const struct stat status = Testing::StatusOf(outside);
        return std::to_string(status.st_mode) + " " + std::to_string(status.st_mtim.tv_nsec) + "\n" +
               DescribeTree(outside, {.links = false, .identity = true});
    }

    static Recorded EntryOf(const Backup::File::YMetadataBase& metadata,
                            std::optional<std::string> content = std::nullopt)
    {
        Recorded recorded{.entry = {}, .content = std::move(content)};
        recorded.entry.record = metadata.ToJSON();
        return recorded;
    }
    static Recorded Directory(const Names& names, unsigned int mode = 0755)
    {
        return EntryOf(UnixRecord(names, S_IFDIR | mode));
    }
    static Recorded LinkTo(const Names& names, const std::string& linkTarget)
    {
        return EntryOf(UnixRecord(names, S_IFLNK | 0777, 0, linkTarget));
    }
    static Recorded FileWith(const Names& names, const std::string& content, unsigned long long group = 0)
    {
        Recorded recorded = EntryOf(UnixRecord(names, S_IFREG | 0644, content.size()), content);
        recorded.entry.hardLinkGroup = group;
        return recorded;
    }
    static Recorded WindowsFile(const std::vector<Names>& paths, const std::string& content,
                                unsigned int attributes = 0x20)
    {
        return EntryOf(WindowsRecord(paths, attributes, content.size()), content);
    }
    Krt::File::YDirectory OpenTarget() const
    {
        return Krt::File::YDirectory::Open(Krt::File::YPath(target.c_str()));
    }
    struct stat StatusOf(const std::string& name) const { return Testing::StatusOf(target + "/" + name); }

    void MakeSnapshot(const std::vector<Recorded>& entries) const
    {
        const Agent::Store opened = Agent::Store::OpenOrCreate(store);
        StoreRun run(opened);
        for (const auto& [entry, content] : entries) {
            if (content)
                run.Add(*content, entry);
            else
                run.Add(entry);
        }
        run.snapshot.Finish(0, 0);
    }
    /// Restores the given paths of the latest snapshot.
    ProgramResult Restore(int exitCode, const ProgramSettings& settings = {},
                          const std::vector<std::string>& paths = {}) const
    {
        std::vector<std::string> arguments = {"restore", "--to", target};
        arguments.insert(arguments.end(), paths.begin(), paths.end());
        return Run(exitCode, arguments, settings);
    }
    ProgramResult RestoreOf(int exitCode, const std::vector<Recorded>& entries) const
    {
        MakeSnapshot(entries);
        return Restore(exitCode);
    }

    std::string before;
};

} // namespace Testing
