// Prunes: judged by restic 0.14 and by restores, interrupted before each write, on a full disk, and of
// damaged repositories; and the plan of one.
#include "agent/Copy/SnapshotCopy.h"
#include "agent/Inspect/RepositoryCheck.h"
#include "agent/Prune/PruneRun.h"
#include "agent/Repair/Recovery.h"
#include "agent/Repair/RepairIndex.h"
#include "agent/Repair/RepairPacks.h"
#include "agent/Repair/RepairSnapshots.h"
#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/Lock.h"
#include "agent/Repository/Pack.h"
#include "agent/Rewrite/SnapshotReplacement.h"
#include "agent/Rewrite/TreeFilter.h"

#include "testing/FileSizeLimit.h"
#include "testing/MountNamespace.h"
#include "testing/Raises.h"
#include "testing/RepositoryHistory.h"

#include <boost/json.hpp>

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace Agent;
using namespace Testing;
using Repo::BlobType;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;
namespace fs = std::filesystem;
namespace json = boost::json;

namespace {

// A disk on which, after some changes, one fails or all that follow do; or with limited space.
class LimitedBackend : public Repo::LocalBackend
{
public:
    using LocalBackend::LocalBackend;

    void Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Repo::Bytes& out) override
    {
        readOfPacks += file.kind == FileKind::Pack ? length : 0;
        LocalBackend::Load(file, offset, length, out);
    }
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
    std::atomic<std::uint64_t> readOfPacks{0}; // bytes
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
    using Work = std::function<void(Repo::Repository& opened)>;
    // Repeats the work on the repository as it is now, with one change more before the failure in each run,
    // until there is none. `check` is called after each with a repository on a disk that works.
    // In the short form, only each `stride`th of these runs takes place.
    void FailEachChange(int stride, const Work& work, const Work& check) const
    {
        const std::string kept = directory / "kept";
        fs::remove_all(kept);
        fs::copy(repository, kept, fs::copy_options::recursive);
        stride = Rounds("LIFE_FAULTS", stride);
        for (const char* kind : {"EIO once", "ENOSPC", "EIO"}) {
            bool isDone = false;
            for (int changes = 0; !isDone && changes < 200; changes += stride) {
                SCOPED_TRACE(kind + (": " + std::to_string(changes)));
                fs::remove_all(repository);
                fs::copy(kept, repository, fs::copy_options::recursive);
                const auto backend = std::make_shared<LimitedBackend>(repository.c_str());
                Repo::Repository opened = Open(backend);
                backend->failsOnce = std::string_view(kind).ends_with("once");
                backend->error = std::string_view(kind) == "ENOSPC" ? ENOSPC : EIO;
                backend->changesLeft = changes;
                isDone = !CatchError([&] { work(opened); });
                Repo::Repository after = Open(std::make_shared<Repo::LocalBackend>(repository.c_str()));
                check(after);
            }
            EXPECT_TRUE(isDone) << kind;
        }
    }
    // The text of DescribeTree without the files that BackUp calls "new".
    static std::string WithoutNewFiles(const std::string& tree)
    {
        std::istringstream lines(tree);
        std::string text;
        for (std::string line; std::getline(lines, line);)
            text += line.find("/new") < 2 ? "" : line + "\n";
        return text;
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
    Run(0, "prune --repack-smaller-than 17M --pack-size 17 --compression max");
    ExpectSound();
    for (const auto& file : Files("snapshots"))
        fs::remove(file);
    Run(0, "prune");
    EXPECT_TRUE(Files("data").empty() && Files("index").empty());
}

TEST_F(PruneTest, EachFailureLeavesSoundRepository)
{
    BackUp(5);
    Forget();
    directory.Write("repo/" + FileName{FileKind::Pack, Id::Of({})}.Path(), "of an interrupted backup");
    PruneOptions options;
    options.maxUnused = UnusedLimit::Parse("0");
    const Work prune = [&](Repo::Repository& opened) {
        Prune(opened, options, observer, [](const PruneStatistics&) {});
    };
    const Work repairIndex = [&](Repo::Repository& opened) {
        KRT_RAISE_UNLESS(RepairIndex(opened, true, observer).left.empty(), Krt::ErrorCode::InvalidState, "");
    };
    const Work repairPacks = [&](Repo::Repository& opened) {
        opened.LoadIndex();
        RepairPacks(opened, {opened.GetIndex().GetPacks().front().id}, observer);
    };
    for (const Work& work : {prune, repairIndex, repairPacks}) {
        const Repo::Repository now = Open(std::make_shared<Repo::LocalBackend>(repository.c_str()));
        for (const Id& id : now.ListIds(FileKind::Index)) // twice, so that there is something to repair
            now.SaveText(FileKind::Index, now.LoadText({FileKind::Index, id}));
        FailEachChange(4, work, [&](Repo::Repository& opened) {
            EXPECT_EQ(CheckRepository(opened, PackSubset(), observer).errors, 0u);
            prune(opened);
            EXPECT_EQ(CheckRepository(opened, PackSubset(), observer).hasUnusedPacks, false);
        });
    }
    ExpectSound();
}

TEST_F(PruneTest, EachFailureOfNewSnapshotsIsRepeated)
{
    BackUp(3);
    const auto expectWhole = [&](Repo::Repository& opened, std::size_t least, std::size_t most) {
        EXPECT_EQ(CheckRepository(opened, PackSubset(), observer).errors, 0u);
        const std::size_t snapshots = opened.ListIds(FileKind::Snapshot).size();
        EXPECT_TRUE(snapshots >= least && snapshots <= most) << snapshots;
    };
    // All but one of the snapshots are lost, and what they had is recovered.
    const std::string whole = directory / "whole";
    fs::copy(repository, whole, fs::copy_options::recursive);
    const auto files = Files("snapshots");
    fs::remove(files[0]);
    fs::remove(files[1]);
    const Work recover = [&](Repo::Repository& opened) {
        opened.LoadIndex();
        const std::vector<Id> roots = FindLostRoots(opened, opened.LoadSnapshots(), observer);
        Repo::Snapshot snapshot;
        snapshot.time = Repo::Timestamp::Now();
        SaveRecovered(opened, roots, snapshot);
    };
    FailEachChange(1, recover, [&](Repo::Repository& opened) {
        opened.LoadIndex();
        if (!FindLostRoots(opened, opened.LoadSnapshots(), observer).empty())
            recover(opened);
        expectWhole(opened, 2, 2);
        EXPECT_TRUE(FindLostRoots(opened, opened.LoadSnapshots(), observer).empty());
    });
    // Packs of each type are lost. A snapshot that was replaced, but not removed, is replaced again.
    const Work repairSnapshots = [&](Repo::Repository& opened) {
        opened.LoadIndex();
        RepairSnapshots(opened, opened.LoadSnapshots(), {.removesOld = true}, observer);
    };
    fs::remove_all(repository);
    fs::copy(whole, repository, fs::copy_options::recursive);
    Repo::Repository damaged = Open(std::make_shared<Repo::LocalBackend>(repository.c_str()));
    damaged.LoadIndex();
    const auto& packs = damaged.GetIndex().GetPacks();
    const Id root = damaged.FindSnapshot("latest").snapshot.tree; // which remains
    for (std::size_t i = 0; i < packs.size(); i += 2) {
        if (i != damaged.GetIndex().Find({BlobType::Tree, root})->pack)
            damaged.GetBackend().Remove({FileKind::Pack, packs[i].id});
    }
    RepairIndex(damaged, false, observer);
    FailEachChange(2, repairSnapshots, [&](Repo::Repository& opened) {
        repairSnapshots(opened);
        expectWhole(opened, 1, 4);
    });
    // Entries are left out, and the snapshots that had them are removed.
    fs::remove_all(repository);
    fs::copy(whole, repository, fs::copy_options::recursive);
    Patterns excludes;
    excludes.Add("new*", false);
    const Work rewrite = [&](Repo::Repository& opened) {
        opened.LoadIndex();
        Repo::BlobSaver saver(opened, {});
        for (const Repo::StoredSnapshot& stored : opened.LoadSnapshots()) {
            Repo::Snapshot changed = stored.snapshot;
            changed.tree = TreeFilter(opened, excludes)
                               .Apply(
                                   stored.snapshot.tree, [&](std::string_view text) { saver.SaveTree(text); },
                                   [](const std::string&) {});
            if (changed.tree == stored.snapshot.tree)
                continue;
            ReplaceSnapshot(opened, saver, stored.id, changed, {}, true);
        }
    };
    FailEachChange(3, rewrite, [&](Repo::Repository& opened) {
        expectWhole(opened, 3, 4);
        rewrite(opened);
        expectWhole(opened, 3, 4);
    });
    // Into an empty repository.
    fs::remove_all(repository);
    CreateRepository(repository, password);
    Repo::Repository origin = Open(std::make_shared<Repo::LocalBackend>(whole.c_str()));
    origin.LoadIndex();
    const Work copy = [&](Repo::Repository& opened) {
        opened.LoadIndex();
        opened.FindLostPacks();
        SnapshotCopy copying(origin, opened, {}, observer);
        const std::vector<Repo::StoredSnapshot> copies = opened.LoadSnapshots();
        for (const Repo::StoredSnapshot& stored : origin.LoadSnapshots()) {
            if (!FindCopy(stored, copies))
                copying.Copy(stored);
        }
    };
    FailEachChange(3, copy, [&](Repo::Repository& opened) {
        EXPECT_EQ(CheckRepository(opened, PackSubset(), observer).errors, 0u);
        copy(opened);
        expectWhole(opened, 3, 3);
    });
}

// By a signal for which the program has no handler, so that it ends as by SIGKILL. What a command may not
// remove is compared after each; the trees of all snapshots that are left are compared at the end.
TEST_F(PruneTest, KilledCommandsLeaveSoundRepository)
{
    const std::string commands[] = {
        "backup -q source",
        "forget --keep-last 4",
        "forget --keep-last 3 --prune --max-unused 0",
        "prune --max-unused 0",
        "repair index --read-all-packs",
        "repair packs",
        "repair snapshots",
        "rewrite --forget --exclude new* latest",
        "recover",
        "copy --from-repo other --from-password-file password",
    };
    const auto listSnapshots = [this] {
        return Open(std::make_shared<Repo::LocalBackend>(repository.c_str())).ListIds(FileKind::Snapshot);
    };
    CreateRepository(directory / "other", password);
    directory.Write("password", password);
    BackUp(4);
    int killed = 0;
    int tried = 0;
    const int wanted = Rounds("LIFE_KILLS", 3);
    for (std::size_t next = random(); killed < wanted && tried < 3 * wanted; ++tried, ++next) {
        BackUp(2);
        std::string command = commands[next % std::size(commands)];
        const auto packs = Files("data");
        const fs::path pack = packs[random() % packs.size()];
        const bool losesPack = command == "repair snapshots"; // which comes back
        if (command == "repair packs")
            command += " " + pack.filename().string();
        if (command.starts_with("copy"))
            Run(0, {"backup", "-q", "-r", "other", "source"});
        if (losesPack) {
            fs::rename(pack, directory / "lost");
            Run(-1, "repair index"); // other packs may have its blobs
        }
        const auto before = listSnapshots();
        const auto filesBefore = Files("snapshots");
        const long delay = 100000 + static_cast<long>(random() % 500000); // the lock alone takes 200 ms
        const auto prepare = [&] {
            fs::current_path(directory.Path());
            setenv("KBAGENT_PASSWORD", password.c_str(), 1);
            const itimerval timer{{0, 0}, {0, delay}};
            setitimer(ITIMER_REAL, &timer, nullptr);
        };
        SCOPED_TRACE(command + " for " + std::to_string(delay) + " us");
        killed += RunProgram(Words(command + " -r repo"), {.prepare = prepare}).exitCode == 128 + SIGALRM;
        HasRestic() ? static_cast<void>(Restic("unlock")) : static_cast<void>(Run(0, "unlock --remove-all"));
        const auto after = listSnapshots();
        if (command.starts_with("rewrite")) {
            EXPECT_GE(after.size(), before.size());
            ExpectOfNew(filesBefore, WithoutNewFiles(DescribeTree(source)));
        } else if (command.starts_with("forget")) {
            EXPECT_GE(after.size(), 3u);
        } else {
            EXPECT_TRUE(std::includes(after.begin(), after.end(), before.begin(), before.end()));
        }
        if (command.starts_with("rewrite") || command.starts_with("forget"))
            DropRemoved();
        if (losesPack) {
            fs::rename(directory / "lost", pack);
            Run(0, "repair index");
        }
        if (HasRestic())
            Restic("check");
        Run(0, {"backup", "-q", "--force", source});
    }
    std::printf("killed %d of %d commands\n", killed, tried);
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
        const std::string repairPacks = "repair packs " + Files("data").front().filename().string();
        for (const std::string& command :
             {std::string("forget latest"), std::string("prune"), std::string("repair index"), repairPacks,
              std::string("repair snapshots"), std::string("recover")})
            Run(11, command);
        Run(isExclusive ? 11 : 0, "snapshots");
        if (HasRestic()) {
            Restic("prune", 1);
            Restic("snapshots", isExclusive ? 1 : 0);
        }
        opened.GetBackend().Remove({FileKind::Lock, held});
    }
    if (!HasRestic())
        return;
    const auto isLocked = [this] {
        const auto locks = Files("locks");
        return std::any_of(locks.begin(), locks.end(),
                           [](const fs::path& file) { return file.filename().string().size() == 64; });
    };
    // restic is stopped while it has an exclusive lock. If it ends before that, it is started again.
    pid_t restic = 0;
    int status = 0;
    for (int attempts = 0;; waitpid(restic, &status, 0)) {
        ASSERT_LT(attempts++, 20);
        restic = fork();
        if (restic == 0) {
            setenv("HOME", directory.Path().c_str(), 1);
            setenv("RESTIC_PASSWORD", password.c_str(), 1);
            execlp("restic", "restic", "--no-cache", "-q", "-r", repository.c_str(), "check", nullptr);
            _exit(127);
        }
        siginfo_t info{};
        while (!isLocked() && info.si_pid == 0 && usleep(1000) == 0)
            waitid(P_PID, static_cast<id_t>(restic), &info, WEXITED | WNOHANG | WNOWAIT);
        kill(restic, SIGSTOP);
        waitid(P_PID, static_cast<id_t>(restic), &info, WSTOPPED | WEXITED | WNOWAIT);
        if (isLocked())
            break;
        kill(restic, SIGCONT);
    }
    for (const char* command : {"backup -q source", "forget latest", "prune", "snapshots"})
        Run(11, command);
    kill(restic, SIGCONT);
    waitpid(restic, &status, 0);
    EXPECT_EQ(status, 0);
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

TEST_F(PruneTest, OnlyCopiesAreReadOfWhichOthersAreRemoved)
{
    const auto backend = std::make_shared<LimitedBackend>(repository.c_str());
    Repo::Repository opened = Open(backend);
    const std::string inFirst = RandomBytes(3000), inBoth = RandomBytes(2000), inSecond = RandomBytes(1000);
    SnapshotMaker first(opened), second(opened);
    Repo::Node node;
    node.name = "file";
    node.type = Repo::NodeType::File;
    node.content = {first.Add(BlobType::Data, inFirst), first.Add(BlobType::Data, inBoth),
                    second.Add(BlobType::Data, inSecond)};
    second.Add(BlobType::Data, inBoth);
    Repo::TreeWriter writer;
    writer.Add(node);
    const Id tree = first.Add(BlobType::Tree, writer.Finish());
    first.Save(tree);
    second.Save(tree);
    const auto readFor = [&](const char* maxUnused) {
        PruneOptions options;
        options.maxUnused = UnusedLimit::Parse(maxUnused);
        options.isDryRun = true;
        backend->readOfPacks = 0;
        Prune(opened, options, observer, [](const PruneStatistics&) {});
        return backend->readOfPacks.load();
    };
    const std::uint64_t ofTree = readFor("unlimited");
    EXPECT_EQ(ofTree, opened.GetIndex().Find({BlobType::Tree, tree})->blob.length) << "both copies stay";
    EXPECT_EQ(readFor("0"),
              ofTree + opened.GetIndex().Find({BlobType::Data, (*node.content)[1]})->blob.length);
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
    std::string large(100000, ' ');
    for (char& c : large)
        c = static_cast<char>(random());
    directory.Write("source/large", large);
    const FileSizeLimit limit(5000); // which a lock does not reach
    EXPECT_TRUE(Holds(Run(1, "backup source").errors, "'kbagent prune --recover-no-free-space' removes it"));
}

TEST(PruneMounts, FullFileSystemIsFreed)
{
    MountNamespace::Run([](const MountNamespace& space) {
        const std::string repository = space / "repository", source = space / "s";
        space.Mount("small", repository, "tmpfs", 0, "size=24m");
        CreateRepository(repository, "");
        fs::create_directory(source);
        const auto run = [&](int exitCode, const std::string& words) {
            const ProgramResult result =
                RunProgram(Words(words + " --insecure-no-password -r " + repository));
            EXPECT_EQ(result.exitCode, exitCode) << words << "\n" << result.errors;
            return result;
        };
        for (int i = 0; i < 2; ++i) {
            ASSERT_EQ(std::system(("head -c 6000000 /dev/urandom >" + source + "/large").c_str()), 0);
            run(0, "backup -q " + source);
        }
        EXPECT_NE(std::system(("cat /dev/zero 2>/dev/null >" + repository + "/others").c_str()), 0);
        EXPECT_TRUE(Holds(run(1, "forget --keep-last 1").errors, "No space left on device"));
        run(0, "forget --keep-last 1 --recover-no-free-space");
        run(0, "prune --recover-no-free-space");
        EXPECT_GT(fs::space(repository).available, 5000000u);
        run(0, "check --read-data");
        run(0, "backup -q " + source);
    });
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
    // Snapshots that are not seen.
    const auto data = Files("data");
    const fs::path seen = Files("snapshots").front();
    std::string name = seen.filename();
    std::transform(name.begin(), name.end(), name.begin(),
                   [](char c) { return c >= 'a' ? static_cast<char>(c - 'a' + 'A') : c; });
    fs::rename(seen, seen.parent_path() / name);
    EXPECT_TRUE(Holds(Run(1, "prune").errors, name + "' is ignored until its name is in lower case"));
    fs::rename(seen.parent_path() / name, seen);
    fs::rename(seen.parent_path(), directory / "away");
    for (const char* command :
         {"prune", "snapshots", "forget -l 1", "tag --add x", "rewrite -e x", "check", "backup -f source"})
        EXPECT_TRUE(Holds(Run(1, command).errors, "the directory 'snapshots' does not exist"));
    EXPECT_TRUE(Holds(Run(1, "check").errors, "hint: the directory 'snapshots' should be put back; if it"));
    Run(0, "key list");
    EXPECT_EQ(Files("data"), data);
    EXPECT_TRUE(Holds(Run(0, "recover").output, "saved new snapshot"));
    fs::remove_all(seen.parent_path());
    fs::rename(directory / "away", seen.parent_path());
    for (const auto& file : Files("index"))
        fs::remove(file);
    EXPECT_TRUE(Holds(Run(1, "prune").errors, "'kbagent check --read-data'"));
    Run(1, "forget --keep-last 1 --prune --dry-run");
    Run(1, "prune --dry-run --no-lock");
    const std::string forgotten = Run(3, "forget --keep-last 1 --prune").errors;
    EXPECT_TRUE(Holds(forgotten, "prune: The snapshots were removed, but what only they need was not: "));
    EXPECT_EQ(Files("snapshots").size(), 1u);
    for (const char* wrong : {"--max-unused x", "--max-unused 101%", "--max-repack-size 5Q", "--no-lock",
                              "--repack-smaller-than 17M", "--repack-smaller-than 5M --pack-size 4",
                              "--repack-uncompressed --compression off"})
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
