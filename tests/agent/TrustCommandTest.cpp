// kbagent trust: verdict, reason and exit code, on files and over a real handshake.
#include "testing/CertificateAuthority.h"
#include "testing/OpenSslServer.h"
#include "testing/Program.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <sys/socket.h>
#include <unistd.h>

using Testing::Certificate;
using Testing::RunProgram;

namespace {

class TrustCommand : public ::testing::Test
{
protected:
    static Testing::CertificateForm Form()
    {
        Testing::CertificateForm form = Testing::ServerForm("backup.example");
        form.names.push_back("IP:127.0.0.1");
        form.subject = "a\nb";
        return form;
    }

    struct Case
    {
        const char* name;
        std::vector<std::string> arguments;
        int exitCode;
        std::string told; // the beginning of standard output, or of standard error for 1 and 2
    };
    static void Check(const std::vector<Case>& cases)
    {
        for (const Case& row : cases) {
            std::vector<std::string> arguments{"trust"};
            arguments.insert(arguments.end(), row.arguments.begin(), row.arguments.end());
            const auto result = RunProgram(arguments);
            EXPECT_EQ(result.exitCode, row.exitCode) << row.name << ": " << result.errors;
            const bool isJudged = row.exitCode == 0 || row.exitCode == 4;
            const std::string& text = isJudged ? result.output : result.errors;
            EXPECT_EQ(text.substr(0, row.told.size()), row.told) << row.name;
        }
    }

    const Certificate root = Certificate::SelfSigned(Testing::AuthorityForm("Root"));
    const Certificate middle = root.Issue(Testing::AuthorityForm("Middle"));
    const Certificate server = middle.Issue(Form());
    const Testing::TemporaryDirectory directory;
    const std::string rootFile = directory.Write("root.pem", root.Pem());
    const std::string chainFile = directory.Write("chain.pem", middle.Pem());
    const std::string serverFile = directory.Write("server.der", server.Der());
    const std::string at = std::to_string(Testing::JudgementTime);
    const std::string good = "trusted\n  subject   CN=a\\0Ab\n  issuer    CN=Middle\n"
                             "  valid     2023-11-14T21:56:40Z to 2023-11-14T22:30:00Z\n  key       " +
                             server.KeyHash() + "\n";
};

TEST_F(TrustCommand, JudgesFiles)
{
    const std::string list = directory.Write("list.pem", middle.RevocationList({server}));
    const std::string name = "backup.example";
    Check({
        {"trusted",
         {"--cert", serverFile, "--chain", chainFile, "--anchors", rootFile, "--name", name, "--at", at},
         0,
         good},
        {"pinned",
         {"--cert", serverFile, "--pin", server.KeyHash(), "--name", "127.0.0.1", "--at",
          "2023-11-14T22:13:20Z"},
         0,
         good},
        {"too early",
         {"--cert", serverFile, "--pin", server.KeyHash(), "--name", name, "--at", "2023-11-14"},
         4,
         "not trusted: certificate is not yet valid\n  subject"},
        {"revoked",
         {"--cert", serverFile, "--chain", chainFile, "--anchors", rootFile, "--name", name, "--at", at,
          "--crl", list},
         4,
         "not trusted: certificate revoked\n"},
        {"the issuer is the reason",
         {"--cert", serverFile, "--chain", chainFile, "--name", name, "--at", at},
         4,
         "not trusted: unable to get local issuer certificate\n  found in  CN=Middle\n  subject"},
        {"address in brackets",
         {"--cert", serverFile, "--pin", server.KeyHash(), "--name", "[::1]", "--at", at},
         4,
         "not trusted: IP address mismatch\n"},
        {"no file", {"--cert", rootFile + "x", "--name", name}, 1, "kbagent: error: Failed to open "},
        {"no anchors",
         {"--cert", serverFile, "--anchors", list, "--name", name},
         1,
         "kbagent: error: No trust anchor"},
        {"name that can't be one", {"1.2.3:1"}, 1, "kbagent: error: Not a host name"},
        {"nothing to judge", {"--name", name}, 2, "kbagent: error: Name a server or"},
        {"both", {"a:1", "--cert", serverFile, "--name", name}, 2, "kbagent: error: Name a server or"},
        {"no name", {"--cert", serverFile}, 2, "kbagent: error: --cert needs --name"},
        {"pin", {"--cert", serverFile, "--name", name, "--pin", "12"}, 2, "kbagent: error: --pin takes 64"},
        {"pin and anchors", {"a:1", "--pin", server.KeyHash(), "--anchors", rootFile}, 2, "kbagent: error: "},
        {"day that isn't", {"a:1", "--at", "2023-02-29"}, 2, "kbagent: error: Not a time"},
        {"hour that isn't", {"a:1", "--at", "2023-02-28T24:00:00Z"}, 2, "kbagent: error: Not a time"},
        {"no port", {"a"}, 2, "kbagent: error: Not HOST:PORT"},
        {"port that isn't", {"a:65536"}, 2, "kbagent: error: Not HOST:PORT"},
        {"address without brackets", {"::1:443"}, 2, "kbagent: error: Not HOST:PORT"},
    });
}

TEST_F(TrustCommand, JudgesServersOverAHandshake)
{
    const std::string key = directory.Write("key.pem", server.KeyPem());
    const std::string certificate = directory.Write("server.pem", server.Pem());
    const Testing::OpenSslServer process({"-cert", certificate, "-key", key, "-cert_chain", chainFile,
                                          "-servername", "backup.example", "-cert2", certificate, "-key2",
                                          key, "-servername_fatal"});
    if (process.Port().empty())
        GTEST_SKIP() << "openssl s_server doesn't run here";
    const std::string address = "127.0.0.1:" + process.Port();
    Check({
        {"by its address", {address, "--anchors", rootFile, "--at", at}, 0, good},
        {"by its address with a dot behind it",
         {address, "--name", "127.0.0.1.", "--anchors", rootFile, "--at", at},
         0,
         good},
        {"by a name", {address, "--name", "backup.example.", "--pin", server.KeyHash(), "--at", at}, 0, good},
        {"unknown authority",
         {address, "--at", at},
         4,
         "not trusted: unable to get local issuer certificate\n"},
        {"a name that it refuses",
         {address, "--name", "other.example", "--at", at},
         1,
         "kbagent: error: No TLS handshake with 127.0.0.1 port " + process.Port() + ": "},
    });
}

TEST_F(TrustCommand, WeakServerGetsAsFarAsTheVerdict)
{
    Testing::CertificateForm form = Form();
    form.rsaBits = 1024;
    const Certificate weak = middle.Issue(form);
    const Testing::OpenSslServer process({"-cert", directory.Write("weak.pem", weak.Pem()), "-key",
                                          directory.Write("key.pem", weak.KeyPem()), "-cipher",
                                          "DEFAULT@SECLEVEL=0"});
    if (process.Port().empty())
        GTEST_SKIP() << "openssl s_server doesn't run here";
    Check({{"weak key",
            {"127.0.0.1:" + process.Port(), "--pin", weak.KeyHash(), "--at", at},
            4,
            "not trusted: EE certificate key too weak\n"}});
}

TEST_F(TrustCommand, ServerThatCantBeAsked)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in bound = {};
    bound.sin_family = AF_INET;
    bound.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof bound;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&bound), size), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &size), 0);
    const std::string address = "127.0.0.1:" + std::to_string(ntohs(bound.sin_port));
    const std::string refused = "Can't connect to 127.0.0.1 port " + std::to_string(ntohs(bound.sin_port));
    Check({{"nobody listens", {address}, 1, "kbagent: error: " + refused + ": Connection refused\n"}});
    ASSERT_EQ(listen(listener, 1), 0);
    Check({{"nobody answers", {address, "--timeout", "1"}, 1, "kbagent: error: No TLS handshake with "}});
    close(listener);
}

} // namespace
