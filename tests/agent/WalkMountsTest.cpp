// A backup over a tree with real mounts: which of them it enters, and what it tells of the others. The same
// is told to users in docs/rules.md.
#include "testing/Configuration.h"
#include "testing/MountNamespace.h"
#include "testing/ProgramFixture.h"
#include "testing/SelectionText.h"

#include "agent/Run/Text.h"

#include <gtest/gtest.h>

#include <tuple>

using Testing::Holds;
using Testing::MountKind;
using Testing::MountNamespace;
using Testing::ProgramResult;
using List = std::vector<std::string>;

namespace {

std::string Shown(const std::string& path)
{
    return Agent::Printable(std::string_view(path));
}

// Each run has a store of its own and the configuration that is given.
class Walk
{
public:
    explicit Walk(const MountNamespace& space) : m_space(space) {}

    ProgramResult Run(int exitCode, const std::string& configuration, List arguments)
    {
        m_configuration.Set(configuration);
        const std::string store = m_space / "store" + std::to_string(++m_runs);
        arguments.insert(arguments.begin(), {"backup", "--store", store});
        const ProgramResult result = Testing::RunProgram(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.errors;
        const ProgramResult list = Testing::RunProgram({"list", "--store", store, "--snapshot", "latest"});
        EXPECT_EQ(list.exitCode, 0) << list.errors;
        m_list = list.output;
        return result;
    }
    bool Stored(const std::string& path) const { return Holds(m_list, " " + Shown(path) + "\n"); }

private:
    const MountNamespace& m_space;
    const Testing::Configuration m_configuration;
    int m_runs = 0;
    std::string m_list;
};

class WalkMounts : public testing::TestWithParam<MountKind>
{};

TEST_P(WalkMounts, EntersFixedDisksAndWhatIsListed)
{
    const MountKind& kind = GetParam();
    MountNamespace::Run([&](const MountNamespace& space) {
        const std::string tree = space.MakeDirectory("tree"), target = tree + "/" + kind.directory;
        const std::string inside = target + "/inside", after = tree + "/z";
        kind.mount(space, target);
        MountNamespace::Write(inside, "x");
        MountNamespace::Write(after, "y");
        if (kind.readOnly)
            space.MakeReadOnly(target);

        Walk walk(space);
        const bool fixed = kind.driveClass == 3;
        const ProgramResult below = walk.Run(0, "", {tree});
        EXPECT_TRUE(walk.Stored(target) && walk.Stored(after)) << "entered or not, its own record is taken";
        EXPECT_EQ(walk.Stored(inside), fixed);
        EXPECT_EQ(Holds(below.output, "mount point not entered: " + Shown(target) + "\n"), !fixed);

        const ProgramResult named = walk.Run(0, "", {target});
        EXPECT_TRUE(walk.Stored(inside));
        EXPECT_EQ(Holds(named.errors, Shown(target) + " is a mount point that a walk would not enter"),
                  !fixed);

        if (target.find_first_of(",\n") != std::string::npos)
            return; // no place in the list
        const ProgramResult listed = walk.Run(0, "IncludedMountpoints=/elsewhere," + target, {tree});
        EXPECT_TRUE(walk.Stored(inside));
        EXPECT_FALSE(Holds(listed.output, "not entered"));
    });
}

INSTANTIATE_TEST_SUITE_P(Kinds, WalkMounts, testing::ValuesIn(Testing::MountKinds()),
                         [](const auto& kind) { return kind.param.label; });

TEST(WalkOverMounts, RulesBelowAMountThatIsNotEnteredNeedAStartOfTheirOwn)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string tree = space.MakeDirectory("tree"), deep = tree + "/mount/deep",
                          file = deep + "/file";
        space.Mount("memory", tree + "/mount", "tmpfs");
        MountNamespace::Write(file, "x");
        const auto writeJob = [&](const std::string& rules) {
            MountNamespace::Write(space / "job", Testing::JobText(rules));
        };
        Walk walk(space);
        writeJob("include " + deep + " recursive any explicit");
        walk.Run(0, "", {"--job", space / "job"});
        EXPECT_TRUE(walk.Stored(file)) << "nobody asks about mounts above a start";
        writeJob("include " + tree + " any; include " + deep + " recursive any explicit");
        EXPECT_TRUE(Holds(walk.Run(0, "", {"--job", space / "job"}).output, "mount point not entered: "));
        EXPECT_FALSE(walk.Stored(file)) << "the rule above is the only start";
        walk.Run(0, "", {"--job", space / "job", deep});
        EXPECT_TRUE(walk.Stored(file));
        // What the rules leave out is not asked about, so not reported; a bind on one device is no mount.
        MountNamespace::Write(tree + "/real/file", "x");
        space.Bind(tree + "/real", tree + "/bound");
        writeJob("include " + tree + " recursive any; exclude " + tree + " exact=mount");
        EXPECT_FALSE(Holds(walk.Run(0, "", {"--job", space / "job"}).output, "not entered"));
        EXPECT_FALSE(walk.Stored(tree + "/mount"));
        EXPECT_TRUE(walk.Stored(tree + "/real/file") && walk.Stored(tree + "/bound/file"));
    });
}

TEST(WalkOverMounts, ASubvolumeFailsUnlessTheKeyOrAMountOfItsOwnHelps)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string tree = space.MakeDirectory("tree"), disk = tree + "/disk",
                          subvolume = disk + "/sub", inside = subvolume + "/inside";
        space.MountImage("btrfs", disk);
        MountNamespace::MakeSubvolume(disk, "sub");
        MountNamespace::Write(inside, "x");
        MountNamespace::Write(disk + "/z", "y");
        MountNamespace::Write(space / "job", Testing::JobText("include " + tree + " recursive any; silent " +
                                                              disk + " exact=sub"));
        const std::tuple<const char*, std::string, List, int, bool, bool> cases[] = {
            {"as it is", "", {tree}, 3, false, false},
            {"listed", "IncludedMountpoints=" + subvolume, {tree}, 3, false, false},
            {"with the key", "walkIntoUnknownMountPoints=1", {tree}, 0, true, true},
            {"named", "", {subvolume}, 3, false, true},
            {"excluded", "", {"--job", space / "job"}, 0, false, false},
        };
        Walk walk(space);
        for (const auto& [name, configuration, arguments, exitCode, record, content] : cases) {
            const ProgramResult result = walk.Run(exitCode, configuration, arguments);
            EXPECT_EQ(walk.Stored(subvolume), record) << name;
            EXPECT_EQ(walk.Stored(inside), content) << name;
            EXPECT_EQ(Holds(result.errors, "walkIntoUnknownMountPoints=1"), exitCode == 3) << name;
            EXPECT_EQ(walk.Stored(disk + "/z"), arguments != List{subvolume}) << name;
        }
        space.Bind(subvolume, subvolume);
        walk.Run(0, "", {tree});
        EXPECT_TRUE(walk.Stored(subvolume) && walk.Stored(inside));
    });
}

} // namespace
