// The number of system calls for each entry of a walk, and what is read of a repository. One more call for
// each file costs a tenth of its time. The number does not depend on the load of the machine.
#include "testing/Capture.h"
#include "testing/RepositoryFixture.h"
#include "testing/SystemCalls.h"
#include "testing/TemporaryDirectory.h"
#include "testing/Tree.h"

#include "agent/Restore/SnapshotRestore.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <optional>
#include <stdexcept>
#include <sys/xattr.h>
#include <thread>

namespace {

constexpr unsigned long More = 300;

// Status, open, extended attributes, close. A directory: status, two looks for a mount, extended attributes;
// open, two reads of its names, close. A link: its target takes one.
const struct
{
    double calls;
    Testing::TreeEntry entry;
    bool hasAttribute = false;
} Kinds[] = {{4, Testing::File("file", "text")},
             {5, Testing::File("file with an extended attribute", "text"), true},
             {8, Testing::Dir("directory")},
             {3, Testing::Link("link", "target")}};

TEST(CaptureCalls, CallsPerEntryStayFew)
{
    for (const auto& kind : Kinds) {
        const Testing::TemporaryDirectory directory;
        const auto add = [&](const std::string& suffix) {
            bool isAdded = true;
            for (unsigned long i = 0; i < More; ++i) {
                Testing::TreeEntry entry = kind.entry;
                entry.name += suffix + std::to_string(i);
                Testing::MakeTree(directory.Path(), {entry});
                isAdded = isAdded && (!kind.hasAttribute || setxattr((directory / entry.name).c_str(),
                                                                     "user.name", "value", 5, 0) == 0);
            }
            return isAdded;
        };
        const auto count = [&] {
            return Testing::CountSystemCalls([&] { Testing::Capture().Run(directory.Path()); });
        };
        if (!add("few")) {
            std::printf("%s: this file system has none\n", kind.entry.name.c_str());
            continue;
        }
        const auto few = count();
        if (!few)
            GTEST_SKIP() << "this machine lets no process trace another";
        ASSERT_TRUE(add("more"));
        const auto many = count();
        ASSERT_TRUE(many);
        // The rest are calls for memory and for the names of the parent directory.
        const double calls = static_cast<double>(*many - *few) / More;
        EXPECT_LT(calls, kind.calls + 0.3) << kind.entry.name;
        EXPECT_GT(calls, kind.calls - 0.3)
            << kind.entry.name << ": if there are fewer calls, update the table";
    }
}

// A file that is stored: status, open, status, attributes, read, status, close; and those of its directory.
// One that has not changed: its status. The rest are waits of threads, whose number differs by a tenth for an
// entry.
class BackupCallsPerEntry : public Testing::RepositoryFixture
{
protected:
    std::optional<unsigned long> CountCalls() const
    {
        return Testing::CountSystemCalls([this] {
            setenv("KBAGENT_REPOSITORY", repository.c_str(), 1);
            setenv("KBAGENT_PASSWORD", password.c_str(), 1);
            if (Testing::CallProgram({"backup", "--quiet", source}) != 0)
                throw std::runtime_error("the backup failed");
        });
    }
};

TEST_F(BackupCallsPerEntry, StayFew)
{
    constexpr std::size_t Directories = 10, Files = 200;
    Create();
    const auto empty = CountCalls();
    if (!empty)
        GTEST_SKIP() << "this machine lets no process trace another";
    for (std::size_t i = 0; i < Directories * Files; ++i) {
        const std::string parent = "source/d" + std::to_string(i / Files);
        if (i % Files == 0)
            directory.MakeDirectory(parent);
        directory.Write(parent + "/f" + std::to_string(i), std::to_string(i));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(3500)); // until the files' times are trusted
    const auto first = CountCalls();
    const auto unchanged = CountCalls();
    ASSERT_TRUE(first && unchanged);
    constexpr double Entries = Directories * (Files + 1);
    EXPECT_LT(static_cast<double>(*first - *empty) / Entries, 8.5);
    EXPECT_LT(static_cast<double>(*unchanged - *empty) / Entries, 1.9);
}

// To restore a file of a snapshot, the trees above it are read.
TEST_F(BackupCallsPerEntry, OneFileNeedsTheTreesAboveIt)
{
    struct CountingBackend : Agent::Repo::LocalBackend
    {
        using LocalBackend::LocalBackend;
        void Load(const Agent::Repo::FileName& file, std::uint64_t offset, std::uint64_t length,
                  Agent::Repo::Bytes& out) override
        {
            bytes += file.kind == Agent::Repo::FileKind::Pack ? length : 0;
            LocalBackend::Load(file, offset, length, out);
        }
        std::uint64_t bytes = 0;
    };
    constexpr std::size_t Directories = 40, Files = 20;
    const std::string content(1000, 'x');
    Create();
    for (std::size_t i = 0; i < Directories * Files; ++i) {
        const std::string parent = "source/d" + std::to_string(i / Files);
        if (i % Files == 0)
            directory.MakeDirectory(parent);
        directory.Write(parent + "/f" + std::to_string(i), content + std::to_string(i));
    }
    Run(0, {"backup", source});
    const auto backend = std::make_shared<CountingBackend>(repository.c_str());
    auto opened = Agent::Repo::Repository::Open(backend, Agent::Repo::Secret(Agent::Repo::AsBytes(password)));
    opened.LoadIndex();
    Agent::RestoreSettings settings;
    settings.paths = {source + "/d7/f150"};
    Agent::Report report;
    backend->bytes = 0;
    Agent::SnapshotRestore(opened, Krt::File::YDirectory::Open(target.c_str()), settings, report)
        .Run(opened.FindSnapshot("latest").snapshot.tree);
    EXPECT_EQ(Testing::ReadFile(target + source + "/d7/f150"), content + "150");
    // These are about 4,500. The trees of the other directories have ten times as many.
    EXPECT_LT(backend->bytes, 6000u);
}

} // namespace
