// Commands on a repository on a server.
#include "agent/Remote/Location.h"
#include "agent/Repository/Lock.h"

#include "testing/RcloneServer.h"
#include "testing/RepositoryFixture.h"
#include "testing/RestStore.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <climits>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <functional>
#include <netinet/in.h>
#include <poll.h>
#include <random>
#include <set>
#include <sys/resource.h>
#include <thread>
#include <unistd.h>

using namespace Agent;
using namespace Testing;
using namespace std::chrono_literals;
using std::chrono::steady_clock;

namespace {

class RemoteRepository : public RepositoryFixture
{
protected:
    RemoteRepository()
    {
        Create("rest:http://" + server.Place() + "/");
        directory.Write("source/a/b", "content");
        directory.Write("source/c", "more");
    }
    void Create(const std::string& location)
    {
        Repo::CreateOptions options;
        options.cost = {16, 1, 1};
        Remote::SecretSources secrets;
        secrets.environment = [](const char* name) {
            return std::getenv(name);
        };
        opened.emplace(Repo::Repository::Create(Remote::MakeRemoteBackend(location, {}, std::move(secrets)),
                                                Repo::Secret(Repo::AsBytes(password)), options));
        repository = location;
    }
    ProgramResult RunCached(int exitCode, const std::string& words) const
    {
        return Run(exitCode, Words(words), {}, {"KBAGENT_CACHE_DIR=" + directory / "cache"});
    }
    // Saves the lock of another host, which was refreshed this many seconds ago by the clock of this one.
    void SaveLock(std::int64_t age) const
    {
        Repo::Lock lock;
        lock.time = Repo::Timestamp::Now();
        lock.time.seconds -= age;
        lock.hostname = "elsewhere";
        opened->SaveText(Repo::FileKind::Lock, lock.ToJson());
    }
    void Interrupt()
    {
        interrupted = steady_clock::now();
        kill(std::stoi(ReadFile(directory / "pid")), SIGINT);
    }
    // Runs a command during which Interrupt is called. Its process calls `prepare` before the program begins.
    ProgramResult RunInterrupted(const std::string& words, const std::function<void()>& prepare)
    {
        const ProgramResult result = Run(130, Words(words), {.prepare = [&] {
                                             directory.Write("pid", std::to_string(getpid()));
                                             prepare();
                                         }});
#if !defined(__clang__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
        const std::chrono::duration<double> elapsed = steady_clock::now() - interrupted.load();
        EXPECT_LT(elapsed.count(), 5.0) << "seconds; 2 are promised, and a loaded machine takes longer";
#endif
        return result;
    }
    // The result of a command, of which the answer to the request of this number is spoilt.
    int RunSpoilt(unsigned int number, const HttpFault& fault, const std::string& words)
    {
        const unsigned int before = server.Count();
        answer = [&, before](const HttpRequest& request) {
            return request.number == before + number ? fault.spoil(next, request) : next(request);
        };
        const ProgramResult result = Run(-1, Words(words));
        answer = next;
        mostRequests = std::max(mostRequests, server.Count() - before);
        EXPECT_LT(result.exitCode, 128) << result.errors;
        return result.exitCode;
    }
    // One of `stride` pairs of an answer and a fault is tried. By default that is one fault for each answer.
    void SpoilEachAnswer(int stride = 0)
    {
        using Next = HttpServer::Handler;
        std::vector<HttpFault> faults = TemporaryFaults();
        const std::size_t temporary = faults.size();
        faults.push_back({"refused", [](const Next&, const HttpRequest&) {
                              return Answer(403);
                          }});
        faults.push_back({"not found", [](const Next&, const HttpRequest&) {
                              return Answer(404);
                          }});
        // Not a list, and empty ones of both kinds of servers.
        for (const char* body :
             {"wrong", "[]", "<ListBucketResult><IsTruncated>false</IsTruncated></ListBucketResult>"})
            faults.push_back({body, [body](const Next& work, const HttpRequest& request) {
                                  work(request);
                                  return Answer(200, request.method == "HEAD" ? "" : body);
                              }});
        const std::size_t count = faults.size();
        stride = Rounds("KBAGENT_FAULT_STRIDE", stride != 0 ? stride : static_cast<int>(count));
        const std::string forget = "forget --keep-last 1 --prune --max-unused 0 --no-cache";
        for (const std::string& command : {"backup --no-cache " + source, forget})
            RunSpoilt(0, faults.front(), command); // counts requests
        for (unsigned int number = 1; number <= mostRequests; ++number) {
            for (std::size_t i = 0; i < count; ++i) {
                if ((number * count + (number + i) % count) % static_cast<std::size_t>(stride) != 0)
                    continue;
                const HttpFault& fault = faults[i];
                SCOPED_TRACE(std::string(fault.label) + " " + std::to_string(number));
                const std::string content = std::to_string(number) + fault.label;
                const std::string to = directory.MakeDirectory("to/" + std::to_string(number * 100 + i));
                directory.Write("source/c", content);
                const bool isBackedUp = RunSpoilt(number, fault, "backup --no-cache " + source) == 0;
                if (!isBackedUp)
                    Run(-1, "unlock --remove-all"), RunCached(0, "backup " + source);
                const bool isRestored =
                    RunSpoilt(number, fault, "restore latest --no-cache --target " + to) == 0;
                if (isRestored) {
                    EXPECT_EQ(ReadFile(to + source + "/a/b") + ReadFile(to + source + "/c"),
                              "content" + content);
                }
                const bool isPruned = RunSpoilt(number, fault, forget) == 0;
                if (i < temporary) {
                    EXPECT_TRUE(isBackedUp && isRestored && isPruned);
                }
                Run(0, "unlock --remove-all");
                RunCached(0, "check --read-data");
            }
        }
    }
    // The files of a kind in the store.
    std::size_t Count(const std::string& folder) const
    {
        return static_cast<std::size_t>(
            std::count_if(store.files.begin(), store.files.end(),
                          [&](const auto& file) { return file.first.starts_with(folder); }));
    }

    std::optional<Repo::Repository> opened;
    RestStore store{.isReplacing = false};
    HttpServer::Handler next = [this](const HttpRequest& request) {
        return store.Handle(request);
    };
    HttpServer::Handler answer = next;
    unsigned int mostRequests = 0; // of a command
    std::atomic<steady_clock::time_point> interrupted{};
    HttpServer server{[this](const HttpRequest& request) {
        return answer(request);
    }};
};

TEST_F(RemoteRepository, UnchangedBackupMakesFewRequests)
{
    RunCached(0, "backup " + source);
    RunCached(0, "backup " + source);
    // Directories above the source may have changed, so that trees are written.
    const auto requests = [this] {
        return server.Count() - Count("/data/") - Count("/index/");
    };
    for (const unsigned int locks : {0u, 2u}) {
        for (unsigned int i = 0; i < locks; ++i)
            SaveLock(60);
        const std::size_t before = requests();
        RunCached(0, "backup " + source);
        EXPECT_LE(requests() - before, 12u + locks);
    }
    RunCached(0, "unlock --remove-all");
    const std::size_t before = requests();
    Run(0, Words("backup --no-cache --limit-upload 10000 --limit-download 10000 " + source), {},
        {"KBAGENT_CACHE_DIR=" + directory / "cache"});
    EXPECT_GT(requests() - before, 12u);
    EXPECT_EQ(Count("/locks/"), 0u);
    EXPECT_EQ(Count("/snapshots/"), 5u);
    RunCached(0, "check --read-data");
    std::filesystem::remove_all(directory / "cache");
    RunCached(0, "restore latest --target " + target);
    EXPECT_EQ(ReadFile(target + source + "/a/b"), "content");
    EXPECT_TRUE(std::filesystem::exists(directory / "cache/CACHEDIR.TAG"));
    RunCached(10, "snapshots -r " + repository + "other/");
}

// The answer to each request of backup, restore, forget and prune is spoilt, in one run for each. A run
// succeeds in spite of temporary faults. Otherwise the repository stays sound, and a restore that succeeds is
// complete.
TEST_F(RemoteRepository, AnyAnswerMayBeSpoilt)
{
    SpoilEachAnswer();
}

// Between the program and a real server.
TEST_F(RemoteRepository, AnyAnswerOfS3MayBeSpoilt)
{
    const char* const bucket = std::getenv("KBAGENT_TEST_S3");
    if (bucket == nullptr)
        GTEST_SKIP() << "KBAGENT_TEST_S3 names no bucket; testing/s3-server.sh starts a server";
    const Remote::S3Location location = Remote::ParseS3Location(bucket, {});
    answer = next = ForwardTo(std::to_string(location.server.port));
    Create("s3:http://" + server.Place() + "/" + location.bucket + "/commands-" +
           std::to_string(std::random_device{}()));
    SpoilEachAnswer();
}

TEST_F(RemoteRepository, AnyAnswerOfRcloneMayBeSpoilt)
{
    const RcloneServer rclone(directory.MakeDirectory("served"));
    if (rclone.Place().empty())
        GTEST_SKIP() << "rclone is not installed";
    answer = next = ForwardTo(rclone.Place().substr(rclone.Place().find(':') + 1));
    Create("rest:http://" + server.Place() + "/");
    SpoilEachAnswer(40);
}

// The first answer for each file, or part of a file, has a wrong byte.
TEST_F(RemoteRepository, WrongAnswerIsNoLoss)
{
    RunCached(0, "backup " + source);
    const auto before = store.files;
    std::set<std::string> asked;
    answer = [&](const HttpRequest& request) {
        HttpAnswer spoilt = next(request);
        const auto range = request.headers.find("range");
        const std::string what = request.target + (range != request.headers.end() ? range->second : "");
        if (request.method == "GET" && !what.ends_with('/') && asked.insert(what).second)
            spoilt.bytes.back() ^= 1;
        return spoilt;
    };
    const std::string pack = before.lower_bound("/data/")->first.substr(6);
    for (const std::string words :
         {"repair snapshots --forget --no-cache", "repair snapshots --forget --cache-dir new",
          "repair index --read-all-packs --no-cache", "check --read-data --no-cache"}) {
        asked.clear();
        Run(0, Words(words));
        EXPECT_EQ(store.files, before) << words;
    }
    asked.clear();
    EXPECT_FALSE(Holds(Run(0, "repair packs --no-cache " + pack).output, "lost"));
    answer = next;
    RunCached(0, "check --read-data");
}

TEST_F(RemoteRepository, AllCommandsUseServers)
{
    const std::string local = "-r " + directory / "local", from = " --from-repo " + repository;
    const std::string passwordFile = directory.Write("password", password);
    CreateRepository(directory / "local", password);
    RunCached(0, "backup " + source);
    for (const std::string& words : std::vector<std::string>{
             "ls latest", "dump latest " + source + "/c", "stats", "list packs", "cat config", "key list",
             "tag --add x latest", "rewrite --exclude b --forget latest", "repair index", "repair snapshots",
             "recover", "migrate", "unlock", "explain -r " + repository + " " + source,
             "copy " + local + from + " --from-password-file " + passwordFile,
             "copy --from-repo " + directory / "local" + " --from-password-file " + passwordFile,
             "init -r " + directory / "third --copy-chunker-params" + from + " --from-password-file " +
                 passwordFile,
             "check --read-data"})
        RunCached(0, words);
    // A lock that is stored, though the server reports a failure.
    answer = [this](const HttpRequest& request) {
        const HttpAnswer stored = next(request);
        return request.method == "POST" && request.target.starts_with("/locks/") ? Answer(507) : stored;
    };
    EXPECT_TRUE(Holds(RunCached(1, "backup " + source).errors, "507"));
    EXPECT_EQ(Count("/locks/"), 0u);
    const std::string none = directory / "none";
    EXPECT_TRUE(Holds(Run(1, Words("snapshots -r rest:https://h/"), {}, {"RESTIC_CACERT=" + none}).errors,
                      "error: RESTIC_CACERT: Failed to open " + none));
}

TEST_F(RemoteRepository, AppendOnlyStoreTakesBackups)
{
    store.isAppendOnly = true;
    RunCached(0, "backup " + source);
    const std::string pack = store.files.lower_bound("/data/")->first; // its index file has another one, too
    const std::string unneeded = "/data/" + std::string(64, 'a');
    store.files[unneeded] = "what a prune removes";
    for (const auto& [exitCode, words, saved] :
         {std::tuple(3, "tag --add x latest", "saved new snapshot "),
          {3, "tag --add x", "modified tags on 0 snapshots"},
          {3, "rewrite --forget --exclude c", "saved new snapshot "},
          {3, "key passwd --new-insecure-no-password", "saved new key as "},
          {3, "forget --keep-last 1 --prune", "removed 0 of "},
          {1, "prune", ""}}) {
        const ProgramResult refused = RunCached(exitCode, words);
        EXPECT_TRUE(Holds(refused.errors, "append-only"));
        EXPECT_TRUE(Holds(refused.output, saved));
        EXPECT_EQ(bool(Holds(refused.output, "loading all snap")), words == std::string("prune"));
    }
    store.files.erase(unneeded);
    RunCached(0, "check --read-data");
    store.files.erase(pack);
    const std::size_t indexes = Count("/index/");
    for (const char* note : {"added index file ", "deleting obsolete index files"}) {
        const ProgramResult left = RunCached(3, "repair index");
        EXPECT_TRUE(Holds(left.errors, "it was replaced, but can't be removed: "));
        EXPECT_TRUE(Holds(left.output, note));
        EXPECT_EQ(Count("/index/"), indexes + 1) << "nothing is added again";
    }
    store.keepsLocks = true;
    EXPECT_TRUE(Holds(RunCached(3, "backup " + source).errors, "'kbagent unlock' has to"));
}

TEST_F(RemoteRepository, InterruptEndsCommandThoughServerIsSilent)
{
    // The port has as many connections as may wait to be accepted. A further one is not answered.
    const int listener = socket(AF_INET, SOCK_STREAM, 0), waiting = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    auto* const place = reinterpret_cast<sockaddr*>(&address);
    socklen_t size = sizeof(address);
    ASSERT_TRUE(bind(listener, place, size) == 0 && listen(listener, 0) == 0 &&
                getsockname(listener, place, &size) == 0 && connect(waiting, place, size) == 0);
    const std::string backup = "backup --no-cache " + source;
    const std::string copy = "copy --no-cache --from-password-file " + directory.Write("password", password) +
                             " --from-repo rest:http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) +
                             "/";
    const struct
    {
        const char* label;
        std::string words;
        const char* target; // beginning of the target of the request with which the state begins
        std::optional<HttpAnswer> answer; // to it and all further ones; the server's own if there is none
    } rows[] = {
        {"silence", backup, "/snapshots/", HttpAnswer{"", false, true}},
        {"a byte now and then", backup, "/snapshots/",
         HttpAnswer{"HTTP/1.1 200 OK\r\nContent-Length: 999\r\n\r\n", false, false, "x", 20ms}},
        {"wait for the next attempt", backup, "/snapshots/", Answer(503, "", "Retry-After: 60\r\n")},
        {"limit", backup + " --limit-download 10", "/snapshots/", Answer(200, std::string(1 << 17, ' '))},
        {"packs of a restore",
         "restore latest --cache-dir " + directory / "cache" + " --target " + directory / "restored",
         "/data/", HttpAnswer{"", false, true}},
        {"no connection", copy, "/locks/", std::nullopt},
    };
    RunCached(0, "backup " + source); // the trees are in the cache
    std::size_t locks = 0;
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        std::thread interrupter;
        answer = [&](const HttpRequest& request) {
            if (!interrupter.joinable() && request.target.starts_with(row.target))
                interrupter = std::thread([this] {
                    std::this_thread::sleep_for(400ms); // until the program waits
                    Interrupt();
                });
            return interrupter.joinable() && row.answer ? *row.answer : store.Handle(request);
        };
        const ProgramResult result = RunInterrupted(row.words, [] {});
        answer = next;
        if (interrupter.joinable())
            interrupter.join();
        for (const char* text : {"did not respond in time after the interrupt", "'kbagent unlock' has to"})
            EXPECT_EQ(bool(Holds(result.errors, text)), row.answer.has_value()) << result.errors;
        locks += row.answer ? 1 : 0;
        EXPECT_EQ(Count("/locks/"), locks);
    }
    close(waiting);
    close(listener);
}

// The server receives packs and never responds. The program reads from a pipe, so that the test counts what
// it has taken.
TEST_F(RemoteRepository, StalledBackupReadsNoFurther)
{
    constexpr std::size_t MebiByte = 1 << 20;
    std::atomic<bool> isStalled{false}, hasEnded{false};
    answer = [&](const HttpRequest& request) {
        if (request.method != "POST" || !request.target.starts_with("/data/"))
            return store.Handle(request);
        isStalled = true;
        return HttpAnswer{"", false, true};
    };
    int input[2];
    ASSERT_EQ(pipe2(input, O_CLOEXEC), 0);
    std::size_t taken = 0;
    std::thread feeder([&] {
        std::mt19937_64 random;
        std::array<std::uint64_t, PIPE_BUF / 8> block; // for which there is room whenever there is any
        for (pollfd room{input[1], POLLOUT, 0}; !hasEnded && taken < 384 * MebiByte;) {
            std::generate(block.begin(), block.end(), std::ref(random));
            if (poll(&room, 1, 2000) > 0)
                taken += static_cast<std::size_t>(write(input[1], block.data(), sizeof(block)));
            else if (isStalled)
                break;
        }
        if (!hasEnded)
            Interrupt();
    });
    RunInterrupted("backup --no-cache --pack-size 4 --stdin", [&] { dup2(input[0], STDIN_FILENO); });
    hasEnded = true;
    feeder.join();
    for (const int end : input)
        close(end);
    // Eight packs, of 4 MiB and a chunk at most, and the chunks that the threads have.
    EXPECT_LT(taken, 128 * MebiByte);
    EXPECT_EQ(Count("/locks/"), 0u);
#if !defined(__clang__) && !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    rusage usage{};
    getrusage(RUSAGE_CHILDREN, &usage);
    EXPECT_LT(usage.ru_maxrss, 256 << 10) << "KiB";
#endif
}

TEST_F(RemoteRepository, StoreThatListsLateIsRefused)
{
    answer = [this](const HttpRequest& request) {
        return request.target == "/locks/" ? Answer(200, "[]") : next(request);
    };
    for (const std::string& words : {"backup " + source, std::string("prune")})
        EXPECT_TRUE(Holds(RunCached(1, words).errors, "the store lists files late"));
    EXPECT_EQ(Count("/locks/"), 0u);
}

// Clocks of two hosts differ by ten minutes from that of this one, and locks are refreshed every five.
TEST_F(RemoteRepository, ClocksOfHostsMayDiffer)
{
    SaveLock(-10 * 60);
    SaveLock(10 * 60 + 5 * 60);
    RunCached(0, "backup " + source);
    if (HasRestic())
        Restic("backup " + source);
    RunCached(0, "backup " + source);
    EXPECT_EQ(RunCached(0, "unlock").output, "removed 0 locks\n");
    for (const char* words : {"prune", "forget --keep-last 1 --prune"})
        EXPECT_TRUE(Holds(RunCached(11, words).errors, "locked by PID"));
    EXPECT_EQ(Count("/locks/"), 2u);
    RunCached(0, "check --read-data");
}

} // namespace
