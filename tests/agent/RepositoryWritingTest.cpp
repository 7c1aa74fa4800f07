// The commands that create repositories and change their keys, locks, tags and version, judged by restic
// 0.14.
#include "agent/Access/RepositoryLock.h"
#include "agent/Access/WatchedBackend.h"
#include "agent/Run/Interrupt.h"

#include "testing/FileSizeLimit.h"
#include "testing/Raises.h"
#include "testing/RepositoryFixture.h"

#include <boost/json.hpp>

#include <atomic>
#include <csignal>
#include <set>
#include <sys/stat.h>
#include <unistd.h>

using namespace Agent;
using namespace Testing;
using Repo::FileKind;
using Repo::Id;
namespace fs = std::filesystem;
namespace json = boost::json;

namespace {

class RepositoryWriting : public RepositoryFixture
{
protected:
    // An empty snapshot of a host; returns its id.
    static Id SaveSnapshot(const Repo::Repository& opened, const std::string& host,
                           const std::vector<std::string>& tags)
    {
        Repo::Snapshot snapshot;
        snapshot.time = Repo::Timestamp::Now();
        snapshot.tree = Id::Of(Repo::AsBytes("tree of " + host));
        snapshot.paths = {"/x"};
        snapshot.hostname = host;
        snapshot.tags = tags;
        snapshot.unknown = {{"own", "[1]"}};
        return opened.SaveText(FileKind::Snapshot, snapshot.ToJson());
    }
    static Id SaveLock(const Repo::Repository& opened, const std::string& host, std::uint32_t pid,
                       std::int64_t age, bool isExclusive = false)
    {
        Repo::Lock lock;
        lock.isExclusive = isExclusive;
        lock.time = Repo::Timestamp::Now();
        lock.time.seconds -= age;
        lock.hostname = host;
        lock.username = "anna";
        lock.pid = pid;
        return opened.SaveText(FileKind::Lock, lock.ToJson());
    }
    Repo::Repository Open(const std::string& withPassword) const
    {
        return Repo::Repository::Open(std::make_shared<Repo::LocalBackend>(repository.c_str()),
                                      Repo::Secret(Repo::AsBytes(withPassword)));
    }
};

TEST_F(RepositoryWriting, NewRepositoryIsReadByRestic)
{
    if (!HasRestic())
        GTEST_SKIP() << "restic is not installed";
    const json::value created = json::parse(Run(0, "init --json").output);
    EXPECT_EQ(created.at("message_type").as_string(), "initialized");
    EXPECT_EQ(created.at("repository").as_string(), std::string_view(repository));
    directory.Write("s/f", std::string(3000000, 'x') + "end");
    Restic("check");
    Restic("backup s --tag a,b");
    EXPECT_EQ(json::parse(Restic("cat config")).at("id"), created.at("id"));
    // Keys of each program open the repository for the other.
    directory.Write("second", "second\n");
    directory.Write("third", "third");
    const std::string id =
        Words(Run(0, "key add --new-password-file second --user u --host h").output).back();
    Restic("key add --new-password-file third");
    const std::string first = password;
    password = "third";
    Run(0, "check --read-data");
    password = "second";
    EXPECT_TRUE(Holds(Restic("key list"), "*" + id + "  u     h "));
    Run(0, "key remove " + Open(first).GetKeyId().ToHex());
    Run(1, "key remove " + id);
    Run(0, "key passwd --new-password-file third");
    Run(12, "key list");
    password = "third";
    EXPECT_EQ(Files("keys").size(), 2u);
    // Tags: the file changes, the snapshot remains.
    const json::value before = json::parse(Restic("snapshots --json")).at(0);
    const json::value changed = json::parse(Words(Run(0, "tag --add c --remove a --json").output).front());
    json::value after = json::parse(Restic("snapshots --json")).at(0);
    EXPECT_EQ(changed.at("old_snapshot_id"), before.at("id"));
    EXPECT_EQ(changed.at("new_snapshot_id"), after.at("id"));
    EXPECT_EQ(after.at("original"), before.at("id"));
    EXPECT_EQ(json::serialize(after.at("tags")), R"(["b","c"])");
    for (const char* key : {"time", "tree", "paths", "hostname"})
        EXPECT_EQ(after.at(key), before.at(key)) << key;
    Restic("check --read-data");
}

TEST_F(RepositoryWriting, ChunksAreCutAsInSource)
{
    Run(0, "init");
    EXPECT_TRUE(Holds(Run(1, "init").errors, "already a repository"));
    fs::rename(repository, directory / "source");
    for (const char* wrong : {"init --repository-version 1", "init --repository-version x",
                              "init --from-repo source", "init --copy-chunker-params", "init --no-lock"})
        Run(2, wrong);
    EXPECT_FALSE(fs::exists(repository));
    directory.Write("password", "secret");
    Run(0, "init --copy-chunker-params --from-repo source --from-password-file password");
    const auto polynomial = Open("secret").GetConfig().polynomial;
    fs::remove_all(repository);
    Run(0, {"init", "--copy-chunker-params"}, {},
        {"RESTIC_FROM_REPOSITORY=source", "RESTIC_FROM_PASSWORD=secret"});
    EXPECT_EQ(Open("secret").GetConfig().polynomial, polynomial);
    // Without a configuration there is no repository, and keys of another are not mixed with new ones.
    fs::remove(repository + "/config");
    Run(10, "check");
    EXPECT_TRUE(Holds(Run(1, "init").errors, "without a configuration"));
}

TEST_F(RepositoryWriting, SecondOfTwoCreationsFails)
{
    struct SlowBackend : Repo::LocalBackend
    {
        using LocalBackend::LocalBackend;
        void Prepare() override
        {
            LocalBackend::Prepare();
            meanwhile();
        }
        std::function<void()> meanwhile;
    };
    const auto slow = std::make_shared<SlowBackend>(repository.c_str());
    slow->meanwhile = [this] {
        Create();
    };
    Repo::CreateOptions options;
    options.cost = {16, 1, 1};
    EXPECT_TRUE(
        CatchError([&] { Repo::Repository::Create(slow, Repo::Secret(Repo::AsBytes("other")), options); }));
    EXPECT_EQ(Files("keys"),
              std::vector<fs::path>{repository + "/keys/" + Open("secret").GetKeyId().ToHex()});
    EXPECT_TRUE(Files("").size() == 2);
}

TEST_F(RepositoryWriting, EmptyPasswordNeedsItsOption)
{
    const auto run = [&](int exitCode, const std::string& words) {
        return Run(exitCode, Words(words), {}, {"KBAGENT_PASSWORD="});
    };
    directory.Write("empty", " \n");
    run(1, "init --password-file empty");
    run(2, "init --password-file empty --insecure-no-password");
    Run(2, "init --insecure-no-password"); // there is a variable with a password
    run(0, "init --insecure-no-password");
    run(0, "check --insecure-no-password");
    directory.Write("password", "secret");
    run(2, "key add --insecure-no-password --new-insecure-no-password --new-password-file password");
    run(1, "key add --insecure-no-password --new-password-file empty");
    run(0, "key passwd --insecure-no-password --new-password-file password");
    run(12, "check --insecure-no-password");
    Run(0, "key passwd --new-insecure-no-password");
    run(0, "key list --insecure-no-password");
    EXPECT_EQ(Files("keys").size(), 1u);
}

TEST_F(RepositoryWriting, LastKeyStays)
{
    Repo::Repository opened = Create();
    const Id first = opened.GetKeyId();
    EXPECT_TRUE(CatchError([&] { opened.RemoveKey(first); }));
    Repo::KeyOptions options;
    options.cost = {16, 1, 1};
    const Id second = opened.AddKey(Repo::Secret(Repo::AsBytes("other")), options);
    opened.RemoveKey(second);
    // The one in use was removed by hand.
    const Id third = opened.AddKey(Repo::Secret(Repo::AsBytes("other")), options);
    opened.GetBackend().Remove({FileKind::Key, first});
    EXPECT_TRUE(CatchError([&] { opened.RemoveKey(third); }));
    EXPECT_EQ(Open("other").GetKeyId(), third);
    // What can't be added leaves the old one.
    {
        const FileSizeLimit limit(100);
        EXPECT_TRUE(CatchError([&] { opened.ReplaceKey(Repo::Secret(Repo::AsBytes("new")), options); }));
    }
    EXPECT_EQ(Files("keys").size(), 1u);
}

TEST_F(RepositoryWriting, OnlyLocksOfDeadProcessesAreRemoved)
{
    const Repo::Repository opened = Create();
    char host[256];
    gethostname(host, sizeof host);
    const pid_t dead = fork();
    if (dead == 0)
        _exit(0);
    waitpid(dead, nullptr, 0);
    const auto own = static_cast<std::uint32_t>(getpid());
    SaveLock(opened, host, static_cast<std::uint32_t>(dead), 0);
    SaveLock(opened, "elsewhere", own, 31 * 60);
    SaveLock(opened, host, UINT32_MAX, 0);
    const std::set<Id> living{SaveLock(opened, host, own, 60), SaveLock(opened, "elsewhere", 1, 60)};
    EXPECT_EQ(Run(0, "unlock").output, "removed 3 locks\n");
    const std::vector<Id> left = opened.ListIds(FileKind::Lock);
    EXPECT_EQ(std::set<Id>(left.begin(), left.end()), living);
    directory.Write("repo/locks/" + std::string(64, 'a'), "damaged");
    EXPECT_TRUE(Holds(Run(3, "unlock").errors, "locks/" + std::string(64, 'a')));
    EXPECT_EQ(Run(0, "unlock --remove-all").output, "removed 3 locks\n");
    EXPECT_TRUE(Files("locks").empty());
}

TEST_F(RepositoryWriting, LockIsRequiredAndKept)
{
    const Repo::Repository opened = Create();
    const Id snapshot = SaveSnapshot(opened, "a", {});
    const Id lock = SaveLock(opened, "elsewhere", 1, 0);
    Run(11, "tag --add x");
    Run(11, "key remove " + opened.GetKeyId().ToHex());
    Run(2, "tag --add x --no-lock");
    EXPECT_EQ(opened.ListIds(FileKind::Snapshot), std::vector<Id>{snapshot});
    Run(0, "snapshots");
    opened.GetBackend().Remove({FileKind::Lock, lock});
    // A writer whose lock was removed during a standby writes nothing more.
    LockSettings settings;
    settings.settling = settings.expiry = std::chrono::milliseconds(1);
    RepositoryLock held(opened, settings);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    held.RequireFresh();
    EXPECT_EQ(Files("locks").size(), 1u);
    fs::remove(Files("locks").front());
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_THROW(held.RequireFresh(), LockLost);
    EXPECT_THROW(held.RequireFresh(), LockLost) << "it stays lost";
    // SIGHUP is how restic asks whether the process exists.
    const int before = IsInterrupted();
    CatchInterrupts();
    const RepositoryLock another(opened, settings);
    raise(SIGHUP);
    EXPECT_EQ(IsInterrupted(), before);
}

// Another process has looked before, and writes its lock only now.
TEST_F(RepositoryWriting, LockThatSettlesLaterFindsWhatCameMeanwhile)
{
    const Repo::Repository opened = Create();
    LockSettings settings;
    settings.settling = std::chrono::milliseconds(1);
    settings.settlesLater = true;
    RepositoryLock held(opened, settings);
    const Id other = SaveLock(opened, "elsewhere", 1, 0, true);
    EXPECT_THROW(held.RequireFresh(), LockedError);
    EXPECT_THROW(held.Settle(), LockedError);
    EXPECT_THROW(RepositoryLock(opened, settings), LockedError);
    opened.GetBackend().Remove({FileKind::Lock, other});
    held.Settle();
    SaveLock(opened, "elsewhere", 1, 0, true);
    held.RequireFresh();
}

TEST_F(RepositoryWriting, LockThatCanNotBeWrittenEndsNoProcess)
{
    struct FailingBackend : Repo::LocalBackend
    {
        using LocalBackend::LocalBackend;
        void Save(const Repo::FileName& file, Repo::ByteView content) override
        {
            for (; isStalled; std::this_thread::sleep_for(std::chrono::milliseconds(1)))
                hasStalled = true;
            if (fails && ++failed != 0)
                throw std::bad_alloc();
            if (isSlow) { // and another process removes the locks meanwhile
                std::this_thread::sleep_for(std::chrono::milliseconds(600));
                for (const auto& lock : fs::directory_iterator((Describe() + "/locks").Bytes()))
                    fs::remove(lock);
            }
            LocalBackend::Save(file, content);
        }
        void List(FileKind kind, const std::function<void(const Id&, std::uint64_t)>& visit) override
        {
            if (!isLate)
                LocalBackend::List(kind, visit);
        }
        void Remove(const Repo::FileName& file) override
        {
            if (fails || keeps)
                KRT_RAISE_OS(EIO, "Failed to remove");
            LocalBackend::Remove(file);
        }
        std::atomic<bool> fails{false}, keeps{false}, isLate{false}, isSlow{false};
        std::atomic<bool> isStalled{false}, hasStalled{false};
        std::atomic<int> failed{0};
    };
    Create();
    const auto backend = std::make_shared<FailingBackend>(repository.c_str());
    const auto opened = Repo::Repository::Open(backend, Repo::Secret(Repo::AsBytes(password)));
    int left = 0;
    LockSettings settings;
    settings.settling = settings.refreshInterval = std::chrono::milliseconds(1);
    settings.onLeft = [&](const Krt::Exception::YError& error) {
        left += error.GetOsError() == EIO;
    };
    {
        RepositoryLock held(opened, settings);
        backend->isStalled = true;
        while (!backend->hasStalled)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        held.RequireFresh(); // waits for no refreshment of a lock that is fresh
        backend->isStalled = false;
        backend->fails = true;
        while (backend->failed < 3)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        held.RequireFresh();
    }
    EXPECT_EQ(left, 1);
    backend->fails = false;
    const std::size_t before = Files("locks").size();
    settings.expiry = std::chrono::milliseconds(1);
    {
        RepositoryLock held(opened, settings);
        backend->keeps = true;
        for (int i = 0; i < 3; ++i) {
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
            EXPECT_NO_THROW(held.RequireFresh()) << "a lock that is not removed is not lost";
        }
        EXPECT_GT(Files("locks").size(), before + 1);
        backend->keeps = false;
    }
    EXPECT_EQ(Files("locks").size(), before);
    EXPECT_EQ(left, 1);
    backend->isLate = true;
    EXPECT_THROW(RepositoryLock(opened, settings), Repo::RepositoryError);
    EXPECT_EQ(Files("locks").size(), before);
    backend->isLate = false;
    std::atomic<bool> isLost{false};
    settings.expiry = std::chrono::milliseconds(500);
    settings.onLost = [&] {
        isLost = true;
    };
    const RepositoryLock held(opened, settings);
    backend->isSlow = true;
    for (int i = 0; i < 1000 && !isLost; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    EXPECT_TRUE(isLost);
}

// A FIFO without a writer; and a program that prints no password.
TEST_F(RepositoryWriting, InterruptWhileInputIsAwaitedLeavesNothing)
{
    Create();
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    const std::string ask = directory.Write("ask", "#!/bin/sh\necho $$ >pid\nexec sleep 600\n");
    chmod(ask.c_str(), 0700);
    // Interrupts the program some time after the file or directory has got content.
    const auto interruptAfter = [](const std::string& place) {
        return ProgramSettings{.prepare = [place] {
            alarm(60);
            const pid_t program = getpid();
            if (fork() != 0)
                return;
            for (int i = 0; i < 3000 && (!fs::exists(place) || fs::is_empty(place)); ++i)
                usleep(10000);
            sleep(1);
            kill(program, SIGTERM);
            _exit(0);
        }};
    };
    for (const char* command : {"import --contents source fifo", "key passwd --new-password-file fifo"}) {
        Run(128 + SIGTERM, Words(command), interruptAfter(repository + "/locks"));
        EXPECT_TRUE(Files("locks").empty()) << command;
        Run(0, "unlock --remove-all");
    }
    Run(128 + SIGTERM, {"snapshots", "--password-command", ask}, interruptAfter(directory / "pid"),
        {"KBAGENT_PASSWORD="});
    const int asking = std::atoi(ReadFile(directory / "pid").c_str());
    const std::string words = "/proc/" + std::to_string(asking) + "/cmdline"; // empty after the end
    const auto isRunning = [&] {
        return fs::exists(words) && !ReadFile(words).empty();
    };
    for (int i = 0; i < 100 && isRunning(); ++i)
        usleep(50000);
    EXPECT_FALSE(isRunning());
    kill(asking, SIGKILL);
}

TEST_F(RepositoryWriting, TagsChangeOnlyWhatIsChosen)
{
    const Repo::Repository opened = Create();
    const Id a = SaveSnapshot(opened, "a", {"x", "y"});
    const Id b = SaveSnapshot(opened, "b", {"x"});
    for (const char* wrong : {"tag", "tag --set a --add b", "tag --add ,"})
        Run(2, wrong);
    EXPECT_TRUE(Holds(Run(0, "tag --add x").output, "on 0 snapshots"));
    EXPECT_TRUE(Holds(Run(0, "tag --remove x --host a").output, "on 1 snapshot\n"));
    EXPECT_TRUE(Holds(Run(0, "tag --set z,z,w --tag y").output, "on 1 snapshot\n"));
    const Repo::StoredSnapshot found =
        opened.FindSnapshot("latest", {.hosts = {"a"}, .tags = {}, .paths = {}});
    EXPECT_EQ(found.snapshot.tags, (std::vector<std::string>{"z", "w"}));
    EXPECT_EQ(found.snapshot.original, a);
    ASSERT_EQ(found.snapshot.unknown.size(), 1u);
    EXPECT_EQ(opened.LoadSnapshot(b).tags, std::vector<std::string>{"x"});
    Run(0, "tag --set , " + b.ToHex());
    EXPECT_EQ(opened.ListIds(FileKind::Snapshot).size(), 2u);
    EXPECT_EQ(opened.LoadSnapshots({.hosts = {}, .tags = {{}}, .paths = {}}).size(), 1u);
    Run(3, "tag --add q 0123456789");
}

TEST_F(RepositoryWriting, VersionOneIsUpgradedBeforeItIsWritten)
{
    const bool hasRestic = HasRestic();
    const Repo::Repository opened = Create(1);
    directory.Write("s/f", "content");
    if (hasRestic)
        Restic("backup s");
    for (const char* command :
         {"tag --add x", "backup s", "backup -n s", "rewrite -n -e x", "forget -n --prune -l 1", "prune -n"})
        EXPECT_TRUE(Holds(Run(1, command).errors, "migrate upgrade_repo_v2")) << command;
    EXPECT_TRUE(Holds(Run(0, "migrate").output, "upgrade_repo_v2"));
    Run(2, "migrate other");
    // Damage keeps it as it is.
    const std::string path = "repo/" + Repo::FileName{FileKind::Index, Id::Of({})}.Path();
    directory.Write(path, "damaged");
    EXPECT_TRUE(Holds(Run(1, "migrate upgrade_repo_v2").errors, "has errors"));
    EXPECT_EQ(Open("secret").GetConfig().version, 1u);
    fs::remove(directory / path);
    Run(0, "migrate upgrade_repo_v2");
    Run(1, "migrate upgrade_repo_v2");
    EXPECT_EQ(Run(0, "migrate").output, "no migrations found\n");
    EXPECT_EQ(Open("secret").GetConfig().id, opened.GetConfig().id);
    EXPECT_EQ(Open("secret").GetConfig().version, 2u);
    Run(0, "tag --add x");
    if (hasRestic) {
        Restic("backup s");
        Restic("check --read-data");
    }
}

} // namespace
