// Backends on servers: what Backend's contract does not have.
#include "agent/Access/WatchedBackend.h"
#include "agent/Remote/Location.h"
#include "agent/Remote/RestBackend.h"
#include "agent/Repository/Failure.h"
#include "agent/Run/UsageError.h"

#include "testing/Program.h"
#include "testing/RestStore.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <random>

using namespace Agent;
using namespace Agent::Remote;
using namespace Testing;
using Repo::AsBytes;
using Repo::Failure;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;

namespace {

Http::ClientSettings Quick()
{
    Http::ClientSettings settings;
    settings.firstWait = std::chrono::milliseconds(1);
    settings.attempts = 3;
    return settings;
}

S3Backend OpenS3(const HttpServer& server)
{
    return S3Backend(ParseS3Location("s3:http://" + server.Place() + "/bucket/a/b/", {}),
                     {"key", Repo::Secret(AsBytes("hidden")), {}}, Quick());
}

// The kind and text of a failure; Missing and "" for none.
std::pair<Failure, std::string> FailureOf(const std::function<void()>& call)
{
    try {
        call();
    } catch (const Repo::RepositoryError& error) {
        return {error.GetFailure(), error.what()};
    }
    return {Failure::Missing, ""};
}

TEST(S3Backend, RefusalsHaveClearTexts)
{
    const struct
    {
        const char* code;
        int status;
        const char* more; // elements of the document
        Failure failure;
        const char* text;
    } rows[] = {
        {"NoSuchBucket", 404, "", Failure::NoRepository, "the bucket bucket does not exist"},
        {"AccessDenied", 403, "", Failure::Backend, "may not GET this object"},
        {"InvalidAccessKeyId", 403, "", Failure::Backend, "does not know the access key"},
        {"SignatureDoesNotMatch", 403, "", Failure::Backend, "secret key is not that"},
        {"RequestTimeTooSkewed", 403, "", Failure::Backend, "its time is Mon, 01 Jan 2024 00:00:00 GMT"},
        {"AuthorizationHeaderMalformed", 400, "<Region>eu-west-9</Region>", Failure::Backend,
         "in the region eu-west-9, not in us-east-1"},
        {"PermanentRedirect", 301, "", Failure::Backend, "the server answered 301 (PermanentRedirect: a b)"},
        {"NoSuchKey", 404, "", Failure::Missing, "does not exist"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.code);
        const std::string document = "<?xml version=\"1.0\"?><Error><Code>" + std::string(row.code) +
                                     "</Code><Message>a\nb</Message>" + row.more + "</Error>";
        HttpServer server([&](const HttpRequest& request) {
            return Answer(row.status, request.method == "HEAD" ? "" : document,
                          "Date: Mon, 01 Jan 2024 00:00:00 GMT\r\n");
        });
        S3Backend backend = OpenS3(server);
        Repo::Bytes body;
        const auto found = FailureOf([&] { backend.LoadWhole({}, 10, body); });
        EXPECT_EQ(found.first, row.failure);
        EXPECT_TRUE(Holds(found.second, row.text));
        EXPECT_EQ(found.second.find("hidden"), std::string::npos);
        if (row.failure == Failure::Backend) {
            EXPECT_TRUE(Holds(FailureOf([&] { backend.Size({}); }).second, row.text)) << "HEAD has no body";
        }
        EXPECT_LE(server.Count(), 3u) << "it is not repeated";
    }
}

TEST(S3Backend, ListsHaveAnyNumberOfPages)
{
    const Id ids[] = {Id::Of(AsBytes("1")), Id::Of(AsBytes("2"))};
    bool isHostile = false; // the pages refer to each other
    HttpServer server([&](const HttpRequest& request) {
        const bool isSecond = request.target.find("continuation-token=next%2F%2B%3D&") != std::string::npos;
        const std::string name = ids[isSecond ? 1 : 0].ToHex();
        const std::string folder = "a/b/data/" + name.substr(0, 2) + "/";
        std::string text =
            "<ListBucketResult xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><IsTruncated>";
        text += isSecond && !isHostile ? "false</IsTruncated>"
                                       : std::string("true</IsTruncated><NextContinuationToken>next/+=") +
                                             (isSecond ? "2" : "") + "</NextContinuationToken>";
        for (const std::string& key :
             {folder + name, folder + name + "x", "a/b/data/00/" + name, folder + "x"})
            text += "<Contents><Key>" + key + "</Key><Size>7</Size></Contents>";
        return Answer(200, text + "</ListBucketResult>");
    });
    S3Backend backend = OpenS3(server);
    std::map<Id, std::uint64_t> found;
    const auto list = [&] {
        backend.List(FileKind::Pack, [&](const Id& id, std::uint64_t size) { found[id] = size; });
    };
    list();
    EXPECT_EQ(found, (std::map<Id, std::uint64_t>{{ids[0], 7}, {ids[1], 7}}));
    isHostile = true;
    EXPECT_EQ(FailureOf(list).first, Failure::Backend);
}

TEST(S3Backend, DocumentThatIsNotWholeListIsRefused)
{
    const std::string key = "<Key>a/b/keys/" + Id::Of({}).ToHex() + "</Key>", end = "</ListBucketResult>";
    const std::string list = "<ListBucketResult><IsTruncated>false</IsTruncated>";
    for (const std::string& document :
         {std::string("<html><body>Log in</body></html>"), "<ListBucketResult>" + end,
          std::string("<Error><Code>InternalError</Code></Error>"), list + "<KeyCount>2</KeyCount>" + end,
          list + "<Contents>" + key + "<Size>x</Size></Contents>" + end}) {
        SCOPED_TRACE(document);
        HttpServer server([&](const HttpRequest&) { return Answer(200, document); });
        S3Backend backend = OpenS3(server);
        EXPECT_FALSE(
            FailureOf([&] { backend.List(FileKind::Key, [](const Id&, std::uint64_t) {}); }).second.empty());
    }
}

TEST(S3Backend, NewFileIsStoredOnceInSpiteOfFaults)
{
    // The first attempt is stored, and its answer is lost.
    std::map<std::string, std::string> objects;
    HttpServer server([&](const HttpRequest& request) {
        const auto found = objects.find(request.target);
        if (request.method != "PUT")
            return found == objects.end() ? Answer(404)
                                          : Answer(200, request.method == "HEAD" ? "" : found->second);
        if (found != objects.end())
            return Answer(412, "<Error><Code>PreconditionFailed</Code></Error>");
        EXPECT_EQ(request.headers.count("if-none-match"), 1u);
        objects[request.target] = request.body;
        return HttpAnswer{"", true};
    });
    S3Backend backend = OpenS3(server);
    EXPECT_TRUE(backend.SaveNew({}, AsBytes("mine")));
    EXPECT_EQ(objects, (std::map<std::string, std::string>{{"/bucket/a/b/config", "mine"}}));
    EXPECT_FALSE(backend.SaveNew({}, AsBytes("other")));
}

TEST(S3Backend, NewFileIsStoredThoughServerLacksCondition)
{
    HttpServer server([](const HttpRequest& request) {
        const bool isRefused = request.headers.count("if-none-match") != 0;
        return isRefused ? Answer(400, "<Error><Code>NotImplemented</Code></Error>")
                         : Answer(request.method == "PUT" ? 200 : 404);
    });
    EXPECT_TRUE(OpenS3(server).SaveNew({}, AsBytes("new")));
}

// A server for one pass, and the backend that uses it through the network.
struct Pass
{
    HttpServer::Handler server;
    std::function<std::unique_ptr<Repo::IBackend>(const std::string& place)> open;
};

// Spoils the answer to each request of a use of the backend, in one pass for each, by each fault.
void SurviveFaults(const std::function<Pass()>& begin)
{
    const std::string text = "content of a file";
    const FileName pack{FileKind::Pack, Id::Of(AsBytes(text))}, config;
    for (const HttpFault& fault : TemporaryFaults()) {
        unsigned int requests = 1;
        for (unsigned int number = 1; number <= requests; ++number) {
            SCOPED_TRACE(std::string(fault.label) + " " + std::to_string(number));
            const Pass pass = begin();
            HttpServer network([&](const HttpRequest& request) {
                return request.number == number ? fault.spoil(pass.server, request) : pass.server(request);
            });
            const std::unique_ptr<Repo::IBackend> backend = pass.open(network.Place());
            const auto list = [&] {
                unsigned int listed = 0;
                backend->List(FileKind::Pack, [&](const Id&, std::uint64_t) { ++listed; });
                return listed;
            };
            Repo::Bytes read;
            backend->Prepare();
            EXPECT_TRUE(backend->SaveNew(config, AsBytes("config")));
            EXPECT_FALSE(backend->SaveNew(config, AsBytes("other")));
            backend->Save(config, AsBytes("new config"));
            backend->LoadWhole(config, 100, read);
            EXPECT_EQ(Repo::AsText(read), "new config");
            backend->Save(pack, AsBytes(text));
            backend->Load(pack, 3, 4, read);
            EXPECT_EQ(Repo::AsText(read), text.substr(3, 4));
            EXPECT_EQ(list(), 1u);
            backend->Remove(pack);
            EXPECT_EQ(list(), 0u);
            requests = network.Count();
        }
    }
}

TEST(RestBackend, AnyRequestMayFailOnce)
{
    for (const bool isReplacing : {true, false}) {
        SurviveFaults([&] {
            const auto store = std::make_shared<RestStore>(RestStore{.isReplacing = isReplacing});
            return Pass{[store](const HttpRequest& request) { return store->Handle(request); },
                        [](const std::string& place) {
                            return std::make_unique<RestBackend>(Http::ParseAddress("http://" + place),
                                                                 Quick());
                        }};
        });
    }
}

// Between the backend and a real server.
TEST(S3Backend, AnyRequestMayFailOnce)
{
    const char* const bucket = std::getenv("KBAGENT_TEST_S3");
    if (bucket == nullptr)
        GTEST_SKIP() << "KBAGENT_TEST_S3 names no bucket; testing/s3-server.sh starts a server";
    const S3Location location = ParseS3Location(bucket, {});
    int passes = 0;
    SurviveFaults([&] {
        const std::string prefix = location.bucket + "/faults-" + std::to_string(std::random_device{}()) +
                                   "-" + std::to_string(++passes);
        return Pass{ForwardTo(std::to_string(location.server.port)), [prefix](const std::string& place) {
                        return std::make_unique<S3Backend>(
                            ParseS3Location("s3:http://" + place + "/" + prefix, {}),
                            FindCredentials([](const char* name) { return std::getenv(name); }, "", {}),
                            Quick());
                    }};
    });
}

// A proxy sends it.
TEST(RestBackend, OneWrongNotFoundIsNotBelieved)
{
    const FileName file{FileKind::Snapshot, Id::Of({})};
    RestStore store{.files = {{"/" + file.Path(), "four"}}};
    HttpServer server([&](const HttpRequest& request) {
        return request.number % 2 == 1 ? Answer(404) : store.Handle(request);
    });
    RestBackend backend(Http::ParseAddress("http://" + server.Place()), Quick());
    EXPECT_EQ(backend.Size(file), 4u);
    backend.Remove(file);
    EXPECT_TRUE(store.files.empty());
    backend.Remove(file);
    EXPECT_EQ(server.Count(), 6u);
}

// The first removal stalls until the lock expires.
TEST(RestBackend, RemovalIsNotRepeatedUnlessLockIsRefreshed)
{
    HttpServer server([](const HttpRequest& request) {
        return request.number == 1 ? HttpAnswer{"", false, true} : Answer(200);
    });
    WatchedBackend backend(
        std::make_shared<RestBackend>(Http::ParseAddress("http://" + server.Place()), Quick()));
    bool isLost = true, isRefreshed = false;
    const auto hasExpired = [&] {
        return server.Count() != 0 && !isRefreshed;
    };
    const auto refresh = [&] {
        if (hasExpired() && isLost)
            throw LockLost("lost");
        isRefreshed = isRefreshed || hasExpired();
    };
    backend.SetWriteGuard(refresh, hasExpired);
    EXPECT_THROW(backend.Remove({FileKind::Pack, Id::Of({})}), LockLost);
    EXPECT_EQ(server.Count(), 1u);
    backend.Remove({FileKind::Lock, Id::Of({})});
    isLost = false;
    backend.Remove({FileKind::Pack, Id::Of({})});
    EXPECT_EQ(server.Count(), 3u);
}

// The bounds are the times of 48 KiB without the eighth of a second that a limit allows in advance. The last
// 16 KiB begin then.
TEST(RestBackend, LimitsSlowTransfersDown)
{
    using std::chrono::milliseconds, std::chrono::steady_clock;
    RestStore store;
    HttpServer server([&](const HttpRequest& request) { return store.Handle(request); });
    RemoteOptions options;
    options.uploadLimit = 256; // KiB a second
    options.downloadLimit = 128;
    const auto backend = MakeRemoteBackend("rest:http://" + server.Place() + "/", options, {});
    const Repo::Bytes content(64 << 10);
    Repo::Bytes read;
    const auto begin = steady_clock::now();
    backend->Save({}, content);
    const auto middle = steady_clock::now();
    backend->LoadWhole({}, content.size(), read);
    EXPECT_GE(middle - begin, milliseconds(60));
    EXPECT_GE(steady_clock::now() - middle, milliseconds(250));
}

TEST(RestBackend, AppendOnlyServerIsNamed)
{
    RestStore store{.isReplacing = false, .isAppendOnly = true};
    HttpServer server([&](const HttpRequest& request) {
        EXPECT_EQ(request.headers.at("authorization"), "Basic dXNlcjpwdw==");
        return store.Handle(request);
    });
    RestBackend backend(Http::ParseAddress("http://user:pw@" + server.Place() + "/"), Quick());
    for (const FileKind kind : {FileKind::Lock, FileKind::Snapshot}) {
        const FileName file{kind, Id::Of({})};
        backend.Save(file, AsBytes("x"));
        backend.Save(file, AsBytes("x"));
        EXPECT_EQ(FailureOf([&] { backend.Remove(file); }).second.empty(), kind == FileKind::Lock);
    }
    const std::string text = FailureOf([&] { backend.Remove({FileKind::Snapshot, Id::Of({})}); }).second;
    EXPECT_TRUE(Holds(text, "append-only"));
    EXPECT_EQ(backend.Describe().Bytes(), "rest:http://" + server.Place() + "/");
}

TEST(RestBackend, PasswordInRefusalIsHidden)
{
    HttpServer server([](const HttpRequest&) { return Answer(400, "user:p/w p%2Fw"); });
    RestBackend backend(Http::ParseAddress("http://user:p%2Fw@" + server.Place()), Quick());
    Repo::Bytes body;
    EXPECT_TRUE(Holds(FailureOf([&] { backend.LoadWhole({}, 10, body); }).second, ": user:*** ***"));
}

TEST(RestBackend, ConfigurationIsKeptOrPrinted)
{
    for (const bool refusesAll : {false, true}) {
        RestStore store{.isReplacing = false, .files = {{"/config", "old"}}};
        bool isRemoved = false;
        HttpServer server([&](const HttpRequest& request) {
            isRemoved = isRemoved || request.method == "DELETE";
            const bool isRefused =
                isRemoved && request.method == "POST" && (refusesAll || request.body == "new");
            return isRefused ? Answer(507) : store.Handle(request);
        });
        RestBackend backend(Http::ParseAddress("http://" + server.Place()), Quick());
        const std::string text = FailureOf([&] { backend.Save({}, AsBytes("new")); }).second;
        EXPECT_TRUE(Holds(text, refusesAll ? "xxd -r -p): 6f6c64" : "507"));
        EXPECT_EQ(store.files["/config"], refusesAll ? "" : "old");
    }
}

TEST(RestBackend, WrongAnswersAreRefused)
{
    const std::string key = R"({"name":")" + Id::Of({}).ToHex() + R"(","size":1})";
    std::string keys = "[" + key;
    for (int i = 0; i < 100'000; ++i)
        keys += "," + key;
    const struct
    {
        const char* label;
        HttpAnswer answer;
        Failure failure;
    } rows[] = {
        {"other part", Answer(206, "abcd", "Content-Range: bytes 4-7/9\r\n"), Failure::Backend},
        {"whole file", Answer(200, "abcdefghi"), Failure::Backend},
        {"short part", Answer(206, "abc", "Content-Range: bytes 1-3/9\r\n"), Failure::Damaged},
        {"more than the part", Answer(206, "abcde", "Content-Range: bytes 1-5/9\r\n"), Failure::Backend},
        {"null", Answer(200, "null"), Failure::Backend},
        {"no directory", Answer(404), Failure::Missing},
        {"too many keys", Answer(200, keys + "]", "Content-Type: application/vnd.x.restic.rest.v2\r\n"),
         Failure::Backend},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        HttpServer server([&](const HttpRequest&) { return row.answer; });
        RestBackend backend(Http::ParseAddress("http://" + server.Place()), Quick());
        Repo::Bytes read;
        EXPECT_EQ(FailureOf([&] { backend.Load({}, 1, 4, read); }).first, row.failure);
        EXPECT_FALSE(
            FailureOf([&] { backend.List(FileKind::Key, [](const Id&, std::uint64_t) {}); }).second.empty());
        const auto locks = FailureOf([&] { backend.List(FileKind::Lock, [](const Id&, std::uint64_t) {}); });
        EXPECT_EQ(locks.second.empty(), row.answer.bytes.starts_with("HTTP/1.1 404"));
    }
}

TEST(RemoteLocation, ServerWithoutTlsIsNoticed)
{
    RemoteOptions options;
    options.requiresTls = true;
    options.pins = {std::string(64, 'a'), "sha256:" + std::string(64, 'A')};
    MakeRemoteBackend("rest:https://h/", options, {});
    for (const char* location : {"rest:http://h/", "s3:http://h/bucket"})
        EXPECT_THROW(MakeRemoteBackend(location, options, {}), UsageError);
    EXPECT_TRUE(SendsPasswordOpenly("rest:http://u:p@127.h/", {}));
    for (const char* location : {"rest:https://u:p@h/", "rest:http://u:p@127.0.0.1:8000/", "rest:http://h/"})
        EXPECT_FALSE(SendsPasswordOpenly(location, {})) << location;
}

TEST(RemoteLocation, IsParsedAsByRestic)
{
    const struct
    {
        const char* text;
        std::vector<std::string> options;
        const char* parsed; // origin, bucket, prefix, region; null if it is refused
    } rows[] = {
        {"s3:https://h:9000/bucket/a//b/", {}, "https://h:9000 bucket a/b "},
        {"s3:h/bucket", {}, "https://h bucket  "},
        {"s3://h/bucket/%20", {"s3.region=r", "s3.bucket-lookup=dns"}, "https://h bucket   r"},
        {"s3:http://h/bucket", {}, "http://h bucket  "},
        {"s3:https://h/", {}, nullptr},
        {"s3:https://u:p@h/bucket", {}, nullptr},
        {"s3:h/..", {}, nullptr},
        {"s3:h/bucket/../x", {}, nullptr},
        {"s3:h/buck%2Fet", {}, nullptr},
        {"s3:h/bucket", {"s3.bucket-lookup=x"}, nullptr},
        {"s3:h/bucket", {"s3.unknown=x"}, nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        RemoteOptions options;
        options.extended = row.options;
        if (row.parsed == nullptr) {
            EXPECT_THROW(ParseS3Location(row.text, options), UsageError);
            continue;
        }
        const S3Location parsed = ParseS3Location(row.text, options);
        EXPECT_EQ(parsed.server.Origin() + " " + parsed.bucket + " " + parsed.prefix + " " + parsed.region,
                  row.parsed);
    }
}

} // namespace
