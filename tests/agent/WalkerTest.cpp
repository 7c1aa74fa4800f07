// What a walk makes of a tree that changes under it.
#include "agent/Walk/Walker.h"
#include "agent/Walk/Roots.h"

#include "testing/TemporaryDirectory.h"

#include "Backup/File/Unix/DescentPolicy.h"
#include "Backup/File/Unix/YFile.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <functional>
#include <set>

namespace {

namespace fs = std::filesystem;
using Krt::File::YPath;
using Names = std::set<std::string>;

// Notes what comes by, and does something as soon as an entry of some name does.
class Watcher : public Agent::IWalkVisitor
{
public:
    bool asksForStatus = false;
    std::string trigger;
    std::function<void()> change;

    Watcher(const std::string& root) : m_root(root) {}

    void Walk()
    {
        Agent::Job job = Agent::LoadJob("", {m_root});
        Agent::Walker(job.rules, std::move(job.roots), *this).Run();
    }
    bool OnSelected(const Agent::WalkedEntry& entry) override
    {
        if (entry.name == trigger.c_str())
            change();
        if (asksForStatus)
            entry.Status();
        m_file.OpenEntry(entry.parent, entry.name, entry.path);
        seen.insert(Below(entry.path));
        return Backup::File::IsFollowableDirectoryFromKrtAttributes(entry.path, m_file.LookUpAttributes());
    }
    void OnExcluded(const YPath&) override {}
    void OnMountNotEntered(const YPath& path) override { stopped.insert(Below(path)); }
    void OnMountEntered(const YPath& path) override { stopped.insert(Below(path)); }
    void OnStoreSkipped(const YPath&) override {}
    void OnFailed(const YPath& path, const Krt::YString&) override { failed.insert(Below(path)); }
    bool IsCancelled() override { return false; }

    Names seen, failed, stopped;

private:
    std::string Below(const YPath& path) const { return path.Bytes().substr(m_root.size()); }

    std::string m_root;
    Backup::File::YFile m_file;
};

struct Change
{
    const char* label;
    void (*make)(const Testing::TemporaryDirectory&);
    Names seen;
    Names failed;
};

// The listing was read when "a" comes by; "b" comes next.
const Change Changes[] = {
    {"a file became a directory",
     [](const Testing::TemporaryDirectory& tree) {
         fs::remove(tree / "b");
         tree.Write("b/inside", "");
     },
     {"", "/a", "/b", "/b/inside", "/directory", "/directory/inside"},
     {}},
    {"a directory became a file",
     [](const Testing::TemporaryDirectory& tree) {
         fs::remove_all(tree / "directory");
         tree.Write("directory", "");
     },
     {"", "/a", "/b", "/directory"},
     {}},
    {"a directory became a link",
     [](const Testing::TemporaryDirectory& tree) {
         fs::remove_all(tree / "directory");
         fs::create_symlink("/", tree / "directory");
     },
     {"", "/a", "/b", "/directory"},
     {}},
    {"both are gone",
     [](const Testing::TemporaryDirectory& tree) {
         fs::remove_all(tree / "directory");
         fs::remove(tree / "b");
     },
     {"", "/a"},
     {"/b", "/directory"}},
};

TEST(Walker, TakesEntriesAsTheyAreAndNotAsTheyWereListed)
{
    for (const Change& row : Changes) {
        for (const bool asksForStatus : {false, true}) {
            const Testing::TemporaryDirectory tree;
            for (const char* name : {"a", "b", "directory/inside"})
                tree.Write(name, "");
            Watcher watcher(tree.Path());
            watcher.asksForStatus = asksForStatus;
            watcher.trigger = "a";
            watcher.change = [&] {
                row.make(tree);
            };
            watcher.Walk();
            EXPECT_EQ(watcher.seen, row.seen) << row.label << asksForStatus;
            EXPECT_EQ(watcher.failed, row.failed) << row.label << asksForStatus;
            EXPECT_EQ(watcher.stopped, Names()) << row.label << asksForStatus;
        }
    }
}

// Only so many directories are held open on the way down.
TEST(Walker, ComesBackToDirectoriesThatItClosed)
{
    constexpr int Depth = 150;
    for (const bool swaps : {false, true}) {
        const Testing::TemporaryDirectory tree;
        std::string directory = "top";
        std::string upper;
        for (int i = 0; i < Depth; ++i) {
            directory += "/d";
            tree.Write(directory + "/later", "");
            if (i == 9)
                upper = directory;
        }
        tree.Write(directory + "/bottom", "");
        Watcher watcher(tree.Path());
        watcher.trigger = "bottom";
        watcher.change = [&] {
            if (!swaps)
                return;
            fs::rename(tree / upper, tree / "moved");
            tree.Write(upper + "/later", "");
        };
        watcher.Walk();
        EXPECT_EQ(watcher.seen.count("/" + directory + "/later"), 1u);
        EXPECT_EQ(watcher.failed.count("/" + upper + "/later"), swaps) << "another directory stands there";
        EXPECT_EQ(watcher.seen.count("/" + upper + "/later"), !swaps);
        EXPECT_EQ(watcher.seen.count("/top/d/later"), 1u);
    }
}

} // namespace
