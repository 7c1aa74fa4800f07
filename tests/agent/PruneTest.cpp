// Prunes: judged by restic 0.14 and by restores, interrupted before each write, on a full disk, and of
// damaged repositories; and the plan of one.
#include "agent/Inspect/RepositoryCheck.h"
#include "agent/Prune/PruneRun.h"
#include "agent/Repair/RepairIndex.h"
#include "agent/Repair/RepairPacks.h"
#include "agent/Repository/Lock.h"
#include "agent/Repository/Pack.h"

#include "testing/Raises.h"
#include "testing/RepositoryHistory.h"

#include <boost/json.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <sys/time.h>

using namespace Agent;
using namespace Testing;
using Repo::BlobType;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;
namespace fs = std::filesystem;
namespace json = boost::json;

namespace {

struct NoObserver : IWorkObserver, ICheckObserver
{
    void OnStage(const std::string&) override {}
    void OnNote(const std::string&) override {}
    void OnProgress(std::uint64_t, std::uint64_t) override {}
    void OnError(const std::string& text) override { ADD_FAILURE() << text; }
    void OnHint(const std::string&) override {}
    void OnTouched(const Repo::StoredSnapshot&, const std::string&, const std::string&) override {}
};

// A disk on which, after some changes, one fails or all that follow do; or with limited space.
class LimitedBackend : public Repo::LocalBackend
{
public:
    using LocalBackend::LocalBackend;

    void Save(const FileName& file, Repo::ByteView content) override
    {
        Change(file);
        if (content.size() > space)
            Repo::Named([&] { return file.Prefix(); }, [] { KRT_RAISE_OS(ENOSPC, "full"); });
        space -= content.size();
        LocalBackend::Save(file, content);
    }
    void Remove(const FileName& file) override
    {
        Change(file);
        space += file.kind == FileKind::Pack ? Size(file) : 0;
        LocalBackend::Remove(file);
    }

    std::atomic<std::int64_t> changesLeft{INT64_MAX};
    std::atomic<std::uint64_t> space{UINT64_MAX / 2};
    int error = EIO;
    bool failsOnce = false;

private:
    void Change(const FileName& file)
    {
        const std::int64_t left = changesLeft--;
        if (failsOnce ? left == 0 : left <= 0)
            Repo::Named([&] { return file.Prefix(); }, [this] { KRT_RAISE_OS(error, "failed"); });
    }
};

class PruneTest : public RepositoryHistory
{
protected:
    Repo::Repository Open(std::shared_ptr<Repo::IBackend> backend) const
    {
        return Repo::Repository::Open(std::move(backend), Repo::Secret(Repo::AsBytes(password)));
    }
    json::value PruneJson(const std::string& options = "") const
    {
        return json::parse(Run(0, "prune --json " + options).output);
    }

    NoObserver observer;
};

TEST_F(PruneTest, WhatSnapshotsNeedRemains)
{
    BackUp(Rounds("LIFE_ROUNDS", 8));
    Forget();
    const auto before = FilesBelow(repository);
    const std::uint64_t size = CountBytes();
    const json::value planned = PruneJson("-n --max-unused 0");
    EXPECT_EQ(FilesBelow(repository), before);
    EXPECT_TRUE(Holds(Run(0, "prune --max-unused unlimited -v").output, "partly used packs:"));
    ExpectSound();
    const json::value done = PruneJson("--max-unused 0");
    EXPECT_EQ(done.at("blobs").at("used"), planned.at("blobs").at("used"));
    EXPECT_EQ(done.at("bytes").at("remaining_unused"), 0);
    EXPECT_EQ(done.at("bytes").at("used"), done.at("bytes").at("remaining"));
    EXPECT_LT(CountBytes(), size);
    ExpectSound();
    const auto after = FilesBelow(repository);
    EXPECT_EQ(PruneJson("--max-unused 0").at("packfiles").at("remove_total"), 0);
    EXPECT_EQ(FilesBelow(repository), after) << "there was nothing to do";
    // Both programs continue what the other one pruned.
    BackUp(4);
    Forget();
    if (HasRestic())
        Restic("prune --max-unused 0");
    BackUp(2);
    Forget();
    Run(0, "prune --repack-small --repack-uncompressed");
    ExpectSound();
    for (const auto& file : Files("snapshots"))
        fs::remove(file);
    Run(0, "prune");
    EXPECT_TRUE(Files("data").empty() && Files("index").empty());
}

// The work is repeated with one failure more in each run, until there is none.
TEST_F(PruneTest, EachFailureLeavesSoundRepository)
{
    BackUp(5);
    Forget();
    directory.Write("repo/" + FileName{FileKind::Pack, Id::Of({})}.Path(), "of an interrupted backup");
    const std::string kept = directory / "kept";
    fs::copy(repository, kept, fs::copy_options::recursive);
    PruneOptions options;
    options.maxUnused = UnusedLimit::Parse("0");
    const auto prune = [&](Repo::Repository& opened) {
        Prune(opened, options, observer, [](const PruneStatistics&) {});
    };
    const auto repairIndex = [&](Repo::Repository& opened) {
        RepairIndex(opened, true, observer);
    };
    const auto repairPacks = [&](Repo::Repository& opened) {
        opened.LoadIndex();
        RepairPacks(opened, {opened.GetIndex().GetPacks().front().id}, observer);
    };
    const std::function<void(Repo::Repository&)> works[] = {prune, repairIndex, repairPacks};
    const int stride = Rounds("LIFE_FAULTS", 4);
    for (int kind = 0; kind < 9; ++kind) {
        bool isDone = false;
        for (int changes = 0; !isDone && changes < 200; changes += stride) {
            SCOPED_TRACE(std::to_string(kind) + ": " + std::to_string(changes));
            fs::remove_all(repository);
            fs::copy(kept, repository, fs::copy_options::recursive);
            const auto backend = std::make_shared<LimitedBackend>(repository.c_str());
            Repo::Repository opened = Open(backend);
            backend->failsOnce = kind % 3 == 0;
            backend->error = kind % 3 == 1 ? ENOSPC : EIO;
            backend->changesLeft = changes;
            isDone = !CatchError([&] { works[kind / 3](opened); });
            Repo::Repository checked = Open(std::make_shared<Repo::LocalBackend>(repository.c_str()));
            EXPECT_EQ(CheckRepository(checked, PackSubset(), observer).errors, 0u);
            prune(checked);
            EXPECT_EQ(CheckRepository(checked, PackSubset(), observer).hasUnusedPacks, false);
        }
        EXPECT_TRUE(isDone);
    }
    ExpectSound();
}

TEST_F(PruneTest, KilledCommandsLeaveSoundRepository)
{
    const char* const commands[] = {
        "backup -q source",     "forget --keep-last 3 --prune --max-unused 0",
        "prune --max-unused 0", "repair index --read-all-packs",
        "repair snapshots",
    };
    BackUp(4);
    int killed = 0;
    const int rounds = Rounds("LIFE_KILLS", 5);
    for (int round = 0; round < rounds; ++round) {
        BackUp(2);
        const std::string command = commands[static_cast<std::size_t>(round) % std::size(commands)];
        const long delay = 100000 + static_cast<long>(random() % 500000); // the lock alone takes 200 ms
        const auto prepare = [&] {
            fs::current_path(directory.Path());
            setenv("KBAGENT_PASSWORD", password.c_str(), 1);
            const itimerval timer{{0, 0}, {0, delay}};
            setitimer(ITIMER_REAL, &timer, nullptr);
        };
        killed += RunProgram(Words(command + " -r repo"), {.prepare = prepare}).exitCode == 128 + SIGALRM;
        if (HasRestic()) {
            Restic("unlock");
            Restic("check");
        } else {
            Run(0, "unlock --remove-all");
        }
        Run(0, {"backup", "-q", "--force", source});
        DropRemoved();
    }
    std::printf("killed %d of %d commands\n", killed, rounds);
    Run(0, "check --read-data");
    ExpectRestorable();
}

TEST_F(PruneTest, ExclusiveLockOfEitherProgramExcludesTheOther)
{
    BackUp();
    const Repo::Repository opened = Open(std::make_shared<Repo::LocalBackend>(repository.c_str()));
    Repo::Lock lock;
    lock.time = Repo::Timestamp::Now();
    lock.hostname = "elsewhere";
    for (const bool isExclusive : {true, false}) {
        lock.isExclusive = isExclusive;
        const Id held = opened.SaveText(FileKind::Lock, lock.ToJson());
        for (const char* command : {"forget latest", "prune", "repair index", "repair snapshots", "recover"})
            Run(11, command);
        Run(isExclusive ? 11 : 0, "snapshots");
        if (HasRestic()) {
            Restic("prune", 1);
            Restic("snapshots", isExclusive ? 1 : 0);
        }
        opened.GetBackend().Remove({FileKind::Lock, held});
    }
}

// What is lost is stored again, so that there are two copies if the packs come back.
TEST_F(PruneTest, DamagedCopyIsNotTheOneThatStays)
{
    BackUp();
    const auto packs = Files("data");
    for (const auto& pack : packs)
        fs::rename(pack, directory / pack.filename());
    directory.Write("source/more", RandomBytes(500000));
    Run(3, {"backup", "-q", "--force", source});
    for (const auto& pack : packs) {
        std::string content = ReadFile(directory / pack.filename());
        for (std::size_t i = 40; i + 2000 < content.size(); i += 1000)
            content[i] = static_cast<char>(content[i] ^ 1);
        directory.Write(fs::relative(pack, directory.Path()), content);
    }
    for (const auto& file : Files("snapshots")) {
        if (!trees.contains(file.filename()))
            fs::remove(file); // now the old packs have nothing unused
    }
    EXPECT_TRUE(Holds(Run(0, "prune --max-unused 0").output, "another copy of a damaged blob is kept"));
    ExpectSound();
}

TEST_F(PruneTest, FullDiskIsFreed)
{
    BackUp(4);
    Forget();
    for (const std::uint64_t space : {std::uint64_t(0), std::uint64_t(4) << 20}) {
        const auto backend = std::make_shared<LimitedBackend>(repository.c_str());
        Repo::Repository opened = Open(backend);
        backend->space = space;
        PruneOptions options;
        options.maxUnused = UnusedLimit::Parse("0");
        const auto failure =
            CatchError([&] { Prune(opened, options, observer, [](const PruneStatistics&) {}); });
        EXPECT_EQ(failure.has_value(), space == 0);
        ExpectSound();
        options.hasNoFreeSpace = true;
        PruneStatistics statistics;
        Prune(opened, options, observer, [&](const PruneStatistics& planned) { statistics = planned; });
        EXPECT_EQ(statistics.repackedPacks, 0u);
        ExpectSound();
    }
    const Repo::Repository opened = Open(std::make_shared<Repo::LocalBackend>(repository.c_str()));
    directory.Write("repo/locks/" + std::string(64, 'a'), "");
    Run(11, "prune --recover-no-free-space");
    Run(0, "unlock --remove-all");
    Run(0, "prune --recover-no-free-space");
}

TEST_F(PruneTest, DamageEndsPruneBeforeRemoval)
{
    BackUp(4);
    Forget();
    const std::string kept = directory / "kept";
    fs::copy(repository, kept, fs::copy_options::recursive);
    std::size_t stopped = 0;
    for (const char* part : {"data", "index", "snapshots"}) {
        for (const auto& file : Files(part)) {
            for (const bool isRemoved : {true, false}) {
                fs::permissions(file, fs::perms::owner_write, fs::perm_options::add);
                isRemoved ? static_cast<void>(fs::remove(file))
                          : fs::resize_file(file, fs::file_size(file) - 1);
                if (!isRemoved || part != std::string("snapshots")) {
                    const auto before = FilesBelow(repository);
                    const auto backend = std::make_shared<Repo::LocalBackend>(repository.c_str());
                    Repo::Repository opened = Open(backend);
                    if (CatchError([&] { Prune(opened, {}, observer, [](const PruneStatistics&) {}); })) {
                        ++stopped;
                        EXPECT_EQ(FilesBelow(repository), before) << file;
                    } else {
                        EXPECT_TRUE(part == std::string("data") ||
                                    (part == std::string("index") && isRemoved));
                        EXPECT_EQ(CheckRepository(opened, {}, observer).errors, 0u) << file;
                    }
                }
                fs::remove_all(repository);
                fs::copy(kept, repository, fs::copy_options::recursive);
            }
        }
    }
    EXPECT_GT(stopped, 8u);
    for (const auto& file : Files("index"))
        fs::remove(file);
    EXPECT_TRUE(Holds(Run(1, "prune").errors, "kbagent check"));
    for (const char* wrong : {"--max-unused x", "--max-unused 101%", "--max-repack-size 5Q", "--no-lock"})
        Run(2, "prune " + std::string(wrong));
}

// An index by hand: each pack has blobs named by letters of 1000 bytes, trees in upper case.
class PrunePlanTest : public ::testing::Test
{
protected:
    static Repo::BlobHandle HandleOf(char letter)
    {
        return {letter < 'a' ? BlobType::Tree : BlobType::Data, Id::Of(Repo::AsBytes({&letter, 1}))};
    }
    void Add(const std::string& blobs, bool isCompressed = true)
    {
        std::vector<Repo::PackedBlob> packed;
        for (const char letter : blobs)
            packed.push_back({HandleOf(letter), 0, 1000, 2000, isCompressed});
        const Id id = Id::Of(Repo::AsBytes(std::to_string(names.size())));
        index.AddPack(id, packed);
        files[id] = index.GetPacks().back().size;
        names.push_back(id);
    }
    // The fate of each pack as a letter.
    std::string Plan(const std::string& used, const PruneOptions& options = {})
    {
        BlobFacts facts{std::vector<bool>(index.CountBlobs()), std::vector<bool>(index.CountBlobs())};
        for (const char letter : used)
            facts.isUsed[index.Find(HandleOf(letter))->number] = true;
        const PrunePlan plan = MakePrunePlan(index, facts, files, options);
        statistics = plan.statistics;
        std::string fates;
        for (const PackFate fate : plan.fates)
            fates += fate == PackFate::Keep ? 'k' : fate == PackFate::Repack ? 'r' : '-';
        return fates;
    }

    Repo::Index index;
    PackSizes files;
    std::vector<Id> names;
    PruneStatistics statistics;
};

TEST_F(PrunePlanTest, LeastIsRepackedThatTheLimitsPermit)
{
    Add("abcdefgh"); // one unused
    Add("ijkl");     // two unused
    Add("mnop");     // all unused
    Add("qrst");
    Add("UV"); // one unused
    Add("WX");
    const std::string used = "abcdefgijqrstUWX";
    const auto with = [](const char* limit, std::uint64_t most = UINT64_MAX) {
        PruneOptions options;
        options.maxUnused = UnusedLimit::Parse(limit);
        options.maxRepackSize = most;
        return options;
    };
    EXPECT_EQ(Plan(used), "rr-krk");
    EXPECT_EQ(Plan(used, with("unlimited")), "kk-krk") << "trees are repacked all the same";
    EXPECT_EQ(Plan(used, with("1200")), "kr-krk") << "the largest share comes first";
    EXPECT_EQ(Plan(used, with("10%")), "kr-krk");
    EXPECT_EQ(Plan(used, with("0", 0)), "kk-kkk");
    EXPECT_EQ(Plan(used, with("0", 7000)), "kr-krk");
    EXPECT_EQ(statistics.used.blobs, used.size());
    EXPECT_EQ(statistics.RemainingUnused(), 1041u);
    PruneOptions onlyTrees = with("0");
    onlyTrees.repacksOnlyTrees = true;
    EXPECT_EQ(Plan(used, onlyTrees), "kk-krk");
    PruneOptions small = with("unlimited");
    small.smallSize = 3000;
    EXPECT_EQ(Plan(used, small), "kk-krk") << "one small pack stays";
    small.smallSize = 8000;
    EXPECT_EQ(Plan(used, small), "kk-krk");
    Add("yz");
    EXPECT_EQ(Plan(used + "yz", small), "kk-rrkr");
    Add("Y", false);
    EXPECT_EQ(Plan(used + "Y", with("unlimited")), "kk-krk-r") << "trees are stored compressed";
    EXPECT_EQ(statistics.uncompressedBytes, 1037u);
}

TEST_F(PrunePlanTest, OneCopyStaysInPackThatIsNotRepacked)
{
    Add("abx"); // x is unused; a and b were repacked before the interruption
    Add("ab");
    Add("cd");
    Add("cd");
    Add("efg");
    Add("hef");
    EXPECT_EQ(Plan("abcdefgh"), "-kk-kr") << "e and f are needed once";
    EXPECT_EQ(statistics.duplicate.blobs, 6u);
    EXPECT_EQ(statistics.remove.blobs + statistics.repackRemove.blobs, 7u);
    // The only whole copy, whatever it costs.
    files.erase(names[1]);
    files[names[2]] -= 1;
    EXPECT_EQ(Plan("abcdefgh"), "r--kkr");
    files.erase(names[0]);
    EXPECT_TRUE(CatchError([&] { Plan("a"); }));
    EXPECT_EQ(Plan("cdefgh"), "---kkr") << "what is missing is not needed";
    files[Id::Of({})] = 500;
    Plan("cd");
    EXPECT_EQ(statistics.TotalRemove().bytes, statistics.unused.bytes + 500 + 2 * 1041);
}

} // namespace
