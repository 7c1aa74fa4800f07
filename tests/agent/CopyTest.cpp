// Copies of snapshots: judged by restic 0.14 and by restores, of damaged sources, and in turns with restic.
#include "testing/RepositoryHistory.h"

#include <filesystem>
#include <fstream>

using namespace Agent;
using namespace Testing;
using Repo::FileKind;
namespace fs = std::filesystem;

namespace {

class CopyTest : public RepositoryHistory
{
protected:
    // To the second repository.
    ProgramResult Copy(int exitCode, const std::string& more = "") const
    {
        return Run(exitCode, "copy -r " + second + " --from-repo " + repository +
                                 " --from-password-file password " + more);
    }
    static std::size_t CountLines(const std::string& text, const std::string& word)
    {
        std::size_t count = 0;
        for (std::size_t at = 0; (at = text.find(word, at)) != std::string::npos; ++at)
            ++count;
        return count;
    }

    const std::string second = directory / "second";
    const std::string file = directory.Write("password", password);
    const Repo::Repository opened = CreateRepository(second, password);
};

TEST_F(CopyTest, CopiesAreWholeAndMadeOnce)
{
    BackUp(5);
    const std::string latest = Files("snapshots").back().filename();
    EXPECT_EQ(CountLines(Copy(0, latest).output, "copied"), 1u);
    const std::string all = Copy(0).output;
    EXPECT_EQ(CountLines(all, "copied"), 4u);
    EXPECT_EQ(CountLines(all, "skipped"), 1u);
    EXPECT_EQ(Copy(0, "--quiet").errors, "");
    const auto packs = FilesBelow(second + "/data");
    EXPECT_EQ(CountLines(Copy(0, "--json").output, R"("message_type":"skipped")"), 5u);
    EXPECT_EQ(FilesBelow(second + "/data"), packs);
    for (const Repo::StoredSnapshot& copy : opened.LoadSnapshots()) {
        ASSERT_TRUE(copy.snapshot.original);
        EXPECT_FALSE(copy.snapshot.parent);
        const TemporaryDirectory out;
        Run(0, {"restore", "-q", "-r", second, copy.id.ToHex() + ":" + source, "-t", out.Path()});
        EXPECT_EQ(DescribeTree(out.Path()), trees.at(copy.snapshot.original->ToHex()));
    }
    if (!HasRestic())
        return;
    EXPECT_TRUE(Holds(Restic("-r " + second + " check --read-data"), "no errors were found"));
    // Each program finds the copies of the other one.
    BackUp();
    Restic("-r " + second + " copy --from-repo " + repository + " --from-password-file password");
    EXPECT_EQ(opened.LoadSnapshots().size(), 6u);
    EXPECT_EQ(CountLines(Copy(0).output, "skipped"), 6u);
}

TEST_F(CopyTest, DamagedSnapshotIsReportedAndOthersAreCopied)
{
    BackUp(2);
    const auto before = Files("data");
    BackUp();
    for (const auto& pack : Files("data")) {
        if (std::find(before.begin(), before.end(), pack) == before.end())
            fs::remove(pack);
    }
    EXPECT_TRUE(Holds(Copy(3).errors, "snapshot "));
    EXPECT_EQ(opened.LoadSnapshots().size(), 2u);
    if (HasRestic()) {
        EXPECT_TRUE(Holds(Restic("-r " + second + " check --read-data"), "no errors"));
    }
    Run(2, "copy");
    Run(2, "copy -r " + second + "/. --from-password-file password --from-repo " + second);
}

TEST_F(CopyTest, DamagedTreesOfTargetAreCopiedAgain)
{
    BackUp();
    Copy(0);
    for (const auto& snapshot : FilesBelow(second + "/snapshots"))
        fs::remove(snapshot);
    const Repo::Repository damaged = OpenRepository(second, password);
    for (const Repo::IndexedPack& pack : damaged.GetIndex().GetPacks()) {
        if (!pack.hasTrees)
            continue;
        const std::string path = second + "/" + Repo::FileName{FileKind::Pack, pack.id}.Path();
        fs::permissions(path, fs::perms::owner_write, fs::perm_options::add);
        std::fstream(path, std::ios::in | std::ios::out | std::ios::binary) << std::string(200, 'x');
    }
    Copy(0);
    const TemporaryDirectory out;
    Run(0, {"restore", "-q", "-r", second, "latest:" + source, "-t", out.Path()});
    EXPECT_EQ(DescribeTree(out.Path()), DescribeTree(source));
}

} // namespace
