// A repository with snapshots of a tree that changes, for tests of what removes data.
#pragma once

#include "agent/Inspect/RepositoryCheck.h"
#include "agent/Prune/WorkObserver.h"

#include "testing/RepositoryFixture.h"
#include "testing/Tree.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace Testing {

/// Takes each error of a check for a failure of the test.
struct NoObserver : Agent::IWorkObserver, Agent::ICheckObserver
{
    void OnStage(const std::string&) override {}
    void OnNote(const std::string&) override {}
    void OnProgress(std::uint64_t, std::uint64_t, const char*) override {}
    void OnProgress(const Agent::ProgressFacts&) override {}
    void OnError(const std::string& text) override { ADD_FAILURE() << text; }
    void OnHint(const std::string&) override {}
    void OnTouched(const Agent::Repo::StoredSnapshot&, const std::string&, const std::string&) override {}
};

class RepositoryHistory : public RepositoryFixture
{
protected:
    RepositoryHistory() { Create(); }

    std::string RandomBytes(std::size_t size)
    {
        std::string bytes;
        std::generate_n(std::back_inserter(bytes), size, [&] { return static_cast<char>(random()); });
        return bytes;
    }

    /// Changes the tree and backs it up, by both programs in turn if restic is installed.
    void BackUp(int times = 1)
    {
        for (int i = 0; i < times; ++i) {
            const int number = backups++;
            directory.Write("source/d" + std::to_string(number % 3) + "/changed",
                            RandomBytes(20000 + random() % 90000));
            directory.Write("source/d" + std::to_string(number % 4) + "/text",
                            std::string(5000, static_cast<char>('a' + number % 26)));
            directory.Write("source/new" + std::to_string(number), RandomBytes(1 + random() % 300000));
            std::filesystem::remove(directory / ("source/new" + std::to_string(number - 2)));
            const auto before = Files("snapshots");
            if (number % 2 == 1 && HasRestic())
                Restic("backup -q " + source);
            else
                Run(0, {"backup", "-q", source});
            ExpectOfNew(before, DescribeTree(source));
        }
    }
    /// Snapshots that are not among these files are expected to have this tree.
    void ExpectOfNew(const std::vector<std::filesystem::path>& before, const std::string& tree)
    {
        for (const auto& file : Files("snapshots")) {
            const std::string name = file.filename();
            if (name.size() == Agent::Repo::Id::Digits && // otherwise it is temporary
                std::find(before.begin(), before.end(), file) == before.end())
                trees[name] = tree;
        }
    }

    /// Removes each second snapshot.
    void Forget()
    {
        std::vector<std::string> arguments{"forget", "-q"};
        const auto files = Files("snapshots");
        for (std::size_t i = 0; i < files.size(); i += 2)
            arguments.push_back(files[i].filename());
        Run(0, arguments);
        DropRemoved();
    }
    /// Snapshots that were removed are not expected any more.
    void DropRemoved()
    {
        std::erase_if(trees, [this](const auto& each) {
            return !std::filesystem::exists(repository + "/snapshots/" + each.first);
        });
    }

    /// Both programs find the repository sound, and each snapshot is what was backed up.
    void ExpectSound() const
    {
        Run(0, "check --read-data");
        if (HasRestic()) {
            EXPECT_TRUE(Holds(Restic("check --read-data"), "no errors were found"));
        }
        EXPECT_EQ(Files("snapshots").size(), trees.size());
        ExpectRestorable();
    }
    /// Each known snapshot is what was backed up.
    void ExpectRestorable() const
    {
        for (const auto& [id, tree] : trees) {
            const TemporaryDirectory out;
            Run(0, {"restore", "-q", id + ":" + source, "--target", out.Path()});
            EXPECT_EQ(DescribeTree(out.Path()), tree) << id;
        }
    }

    std::uint64_t CountBytes() const
    {
        std::uint64_t bytes = 0;
        for (const auto& file : Files("data"))
            bytes += std::filesystem::file_size(file);
        return bytes;
    }

    std::map<std::string, std::string> trees; ///< by the id of the snapshot
    std::mt19937 random{static_cast<unsigned int>(time(nullptr))};
    int backups = 0;
};

} // namespace Testing
