// Requests through networks and to servers that fail, and servers that are hostile.
#include "agent/Access/WatchedBackend.h"
#include "agent/Http/Client.h"
#include "agent/Remote/RestBackend.h"
#include "agent/Repository/Failure.h"
#include "agent/Run/UsageError.h"

#include "testing/CertificateAuthority.h"
#include "testing/HttpServer.h"
#include "testing/OpenSslServer.h"
#include "testing/Program.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <ctime>

using namespace Agent;
using namespace Testing;
using namespace std::chrono_literals;
using Http::Method;

namespace {

Http::ClientSettings Quick()
{
    Http::ClientSettings settings;
    settings.firstWait = 1ms;
    settings.stallTime = 300ms;
    settings.attempts = 3;
    return settings;
}

// What Send raises; "" if it returns.
std::string ReasonOfFailure(Http::Client& client, const Http::Request& request)
{
    Repo::Bytes body;
    try {
        client.Send(request, body);
    } catch (const Repo::RepositoryError& error) {
        return error.what();
    }
    return "";
}

TEST(HttpClient, TemporaryFaultsAreRepeated)
{
    const std::string content(300'000, 'x');
    std::vector<HttpFault> faults = TemporaryFaults();
    faults.push_back({"silence", [](const auto&, const auto&) {
                          return HttpAnswer{"HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nhal", false, true};
                      }});
    faults.push_back(
        {"a byte now and then", [](const auto&, const auto&) {
             return HttpAnswer{"HTTP/1.1 200 OK\r\nContent-Length: 999\r\n\r\n", false, false, "x", 20ms};
         }});
    faults.push_back({"more bytes than announced", [](const auto&, const auto&) {
                          return HttpAnswer{"HTTP/1.1 500 x\r\nContent-Length: 1\r\n\r\nxyz", true};
                      }});
    for (const HttpFault& fault : faults) {
        for (const Method method : {Method::Get, Method::Put, Method::Head, Method::Delete}) {
            SCOPED_TRACE(std::string(fault.label) + " " + Http::NameOf(method));
            std::string received;
            const HttpServer::Handler work = [&](const HttpRequest& request) {
                received = request.method + " " + request.target + " " + request.body;
                return Answer(200, request.method == "HEAD" ? "" : "answer");
            };
            HttpServer server([&](const HttpRequest& request) {
                return request.number == 2 ? fault.spoil(work, request) : work(request);
            });
            Http::Client client(Http::ParseAddress("http://" + server.Place()), Quick());
            Http::Request request;
            request.method = method;
            request.target = "/a%20b?c=d";
            request.content = method == Method::Put ? Repo::AsBytes(content) : Repo::ByteView();
            Repo::Bytes body;
            for (int i = 0; i < 2; ++i) {
                EXPECT_EQ(client.Send(request, body).status, 200);
                EXPECT_EQ(Repo::AsText(body), method == Method::Head ? "" : "answer");
                EXPECT_TRUE(received == std::string(Http::NameOf(method)) + " /a%20b?c=d " +
                                            std::string(Repo::AsText(request.content)));
            }
        }
    }
}

TEST(HttpClient, LastingFaultsAreReported)
{
    HttpServer server([](const HttpRequest&) { return Answer(503, "busy", "Retry-After: 0\r\n"); });
    Http::Client client(Http::ParseAddress("http://" + server.Place()), Quick());
    Repo::Bytes body;
    testing::internal::CaptureStderr();
    EXPECT_EQ(client.Send({}, body).status, 503);
    EXPECT_TRUE(Holds(testing::internal::GetCapturedStderr(), server.Place() + ": status 503; trying again"));
    EXPECT_EQ(server.Count(), 3u);
    HttpServer refusing([](const HttpRequest& request) {
        return Answer(403, "no " + request.headers.at("authorization") + ".",
                      "X: " + request.headers.at("x-amz-security-token") + "\r\n");
    });
    Http::Client refused(Http::ParseAddress("http://" + refusing.Place()), Quick());
    Http::Request request;
    request.makeHeaders = [] {
        return std::vector<Http::Header>{{"Authorization", "Basic YQ=="}, {"x-amz-security-token", "token"}};
    };
    EXPECT_EQ(refused.Send(request, body).Find("x"), "***");
    EXPECT_EQ(Repo::AsText(body), "no Basic ***.");
    EXPECT_EQ(refusing.Count(), 1u);
    Http::Client lost(Http::ParseAddress("http://127.0.0.1:1"), Quick());
    EXPECT_TRUE(Holds(ReasonOfFailure(lost, {}), "127.0.0.1:1: "));
    WatchedBackend backend(
        std::make_shared<Remote::RestBackend>(Http::ParseAddress("http://127.0.0.1:1"), Quick()));
    EXPECT_THROW(backend.Load({Repo::FileKind::Pack, {}}, 0, 1, body), ServerLost) << "not of one pack";
    Http::Client secure(Http::ParseAddress("https://" + server.Place()), Quick());
    EXPECT_TRUE(Holds(ReasonOfFailure(secure, {}), "may not use TLS"));
    Http::Client unknown(Http::ParseAddress("http://" + std::string(64, 'a') + ".invalid"), Quick());
    EXPECT_TRUE(Holds(ReasonOfFailure(unknown, {}), "Could not resolve host")) << "also the third time";
}

TEST(HttpClient, HostileAnswersEndInBoundedMemory)
{
    const std::string much(1 << 16, 'x');
    const struct
    {
        const char* label;
        HttpAnswer answer;
        int status;         // 0 if there is a failure
        bool isTooLong;     // the body is cut at the limit
        const char* reason; // of the failure
    } rows[] = {
        {"endless body", {"HTTP/1.1 200 OK\r\n\r\n", false, false, much}, 200, true, ""},
        {"huge length",
         {"HTTP/1.1 200 OK\r\nContent-Length: 9000000000000000000\r\n\r\n", false, false, much},
         200,
         true,
         ""},
        {"endless chunks",
         {"HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n", false, false,
          "1000\r\n" + std::string(4096, 'x') + "\r\n"},
         200,
         true,
         ""},
        {"endless body of a failure", {"HTTP/1.1 404 x\r\n\r\n", false, false, much}, 404, false, ""},
        {"endless headers",
         {"HTTP/1.1 200 OK\r\n", false, false, "a: " + std::string(1000, 'b') + "\r\n"},
         0,
         false,
         "127.0.0.1"},
        {"redirect",
         {"HTTP/1.1 302 x\r\nLocation: http://127.0.0.1:1/\r\nContent-Length: 0\r\n\r\n"},
         302,
         false,
         ""},
        {"not HTTP", {"220 hello\r\n", true}, 0, false, "127.0.0.1"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        HttpServer server([&](const HttpRequest&) { return row.answer; });
        Http::Client client(Http::ParseAddress("http://" + server.Place()), Quick());
        Http::Request request;
        request.limit = 100'000;
        Repo::Bytes body;
        if (row.status == 0) {
            EXPECT_TRUE(Holds(ReasonOfFailure(client, request), row.reason));
            continue;
        }
        const Http::Response response = client.Send(request, body);
        EXPECT_EQ(response.status, row.status);
        EXPECT_EQ(response.isTooLong, row.isTooLong);
        EXPECT_LE(body.size(), request.limit);
        EXPECT_LE(body.capacity(), 2 * request.limit);
    }
}

TEST(HttpClient, LimitIsSharedByConnections)
{
    Http::RateLimit limit(8000);
    const Http::RateLimit::Clock::time_point start{1h};
    EXPECT_EQ(limit.PortionOf(1 << 20), 1024u);
    EXPECT_EQ(limit.Reserve(1000, start), start - 125ms) << "what was not used";
    EXPECT_EQ(limit.Reserve(1000, start), start);
    EXPECT_EQ(limit.Reserve(8000, start), start + 125ms);
    EXPECT_EQ(limit.Reserve(1, start), start + 1125ms);
    EXPECT_EQ(limit.Reserve(1, start + 1h), start + 1h - 125ms);
}

TEST(HttpClient, AddressesAreParsed)
{
    const struct
    {
        const char* text;
        const char* parsed; // origin, path, user, password; null if it is refused
    } rows[] = {
        {"https://Host.example:443", "https://host.example / - "},
        {"http://h:8080/a%20b/", "http://h:8080 /a%20b/ - "},
        {"https://us%40er:p%3A:w@[::1]:1/x", "https://[::1]:1 /x us@er p::w"},
        {"https://h/a@b", "https://h /a@b - "},
        {"https://user:p@ss/word@h/", nullptr},
        {"ftp://h/", nullptr},
        {"https:///x", nullptr},
        {"https://h:0/", nullptr},
        {"https://h:65536/", nullptr},
        {"https://h/a b", nullptr},
        {"https://h/?a", nullptr},
        {"https://h\xC3\xA4/", nullptr},
        {"https://h\r\nX: y/", nullptr},
        {"https://u%zz@h/", nullptr},
        {"https://::1/", nullptr},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.text);
        if (row.parsed == nullptr) {
            EXPECT_THROW(Http::ParseAddress(row.text), UsageError);
            continue;
        }
        const Http::Address address = Http::ParseAddress(row.text);
        EXPECT_EQ(address.Origin() + " " + address.path + " " + (address.user.empty() ? "-" : address.user) +
                      " " + std::string(Repo::AsText(address.password.View())),
                  row.parsed);
    }
    EXPECT_EQ(Http::WithoutCredentials("--repo=rest:https://a:b@h/c@d http://e@f x"),
              "--repo=rest:https://***@h/c@d http://***@f x");
    for (const std::string address : {"--repo=rest:https://", "rest:"})
        EXPECT_EQ(Http::ArgumentWithoutCredentials(address + "us:p/a@ s@h/c"), address + "***@h/c");
    EXPECT_EQ(Http::ArgumentWithoutCredentials("/a@b"), "/a@b");
}

TEST(HttpClient, ServerIsTrustedByAnchorOrPin)
{
    const TemporaryDirectory directory;
    CertificateForm form = ServerForm("backup.example");
    form.names.push_back("IP:127.0.0.1");
    CertificateForm authority = AuthorityForm("Root");
    for (CertificateForm* each : {&form, &authority}) {
        each->notBefore = std::time(nullptr) - 1000;
        each->notAfter = std::time(nullptr) + 1000;
    }
    const Certificate root = Certificate::SelfSigned(authority);
    const Certificate server = root.Issue(form);
    const OpenSslServer process(
        {"-cert", directory.Write("server", server.Pem()), "-key", directory.Write("key", server.KeyPem())});
    if (process.Port().empty())
        GTEST_SKIP() << "openssl s_server doesn't run here";
    const std::string anchors = directory.Write("root", root.Pem()), wrong(64, '0');
    const struct
    {
        const char* label;
        const char* host;
        Http::TrustSettings trust;
        const char* reason;
    } rows[] = {
        {"anchor", "127.0.0.1", {anchors, {}}, ""},
        {"second pin", "127.0.0.1", {"", {wrong, server.KeyHash()}}, ""},
        {"system's CAs", "127.0.0.1", {}, "is not trusted: unable to get"},
        {"wrong pin", "127.0.0.1", {"", {wrong}}, "is not trusted: "},
        {"other name", "localhost", {anchors, {}}, "is not trusted: hostname mismatch"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.label);
        Http::ClientSettings settings = Quick();
        settings.trust = row.trust;
        Http::Client client(Http::ParseAddress(std::string("https://") + row.host + ":" + process.Port()),
                            settings);
        Http::Request request;
        request.limit = 1 << 20;
        const std::string reason = ReasonOfFailure(client, request);
        EXPECT_EQ(reason.empty(), *row.reason == '\0') << reason;
        EXPECT_TRUE(Holds(reason, row.reason));
    }
    EXPECT_THROW(Http::Client(Http::ParseAddress("https://h"), {.trust = {directory / "none", {}}}),
                 Krt::Exception::YError);
}

} // namespace
