// What a walk makes of a tree that changes under it.
#include "agent/Walk/Walker.h"
#include "agent/Walk/Roots.h"

#include "testing/TemporaryDirectory.h"

#include "Backup/File/Unix/DescentPolicy.h"
#include "Backup/File/Unix/YFile.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <functional>
#include <set>
#include <tuple>

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

TEST(Walker, TakesEntriesAsTheyAreAndNotAsTheyWereListed)
{
    // What is done in the tree when "a" comes by, where the listing was read; then what is seen, what fails.
    const std::tuple<std::string, Names, Names> changes[] = {
        {"rm b; mkdir b; touch b/inside",
         {"", "/a", "/b", "/b/inside", "/directory", "/directory/inside"},
         {}},
        {"rm -r directory; touch directory", {"", "/a", "/b", "/directory"}, {}},
        {"rm -r directory; ln -s / directory", {"", "/a", "/b", "/directory"}, {}},
        {"rm -r directory b", {"", "/a"}, {"/b", "/directory"}},
    };
    for (const auto& row : changes) {
        const auto& [commands, seen, failed] = row;
        for (const bool asksForStatus : {false, true}) {
            SCOPED_TRACE(commands + (asksForStatus ? ", with a look at the status" : ""));
            const Testing::TemporaryDirectory tree;
            for (const char* name : {"a", "b", "directory/inside"})
                tree.Write(name, "");
            Watcher watcher(tree.Path());
            watcher.asksForStatus = asksForStatus;
            watcher.trigger = "a";
            watcher.change = [&] {
                EXPECT_EQ(std::system(("cd " + tree.Path() + " && " + std::get<0>(row)).c_str()), 0);
            };
            watcher.Walk();
            EXPECT_EQ(watcher.seen, seen);
            EXPECT_EQ(watcher.failed, failed);
            EXPECT_EQ(watcher.stopped, Names());
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
