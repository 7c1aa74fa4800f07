// kbagent trust: result, reason and exit code, for files and over a real handshake.
#include "testing/CertificateAuthority.h"
#include "testing/OpenSslServer.h"
#include "testing/Program.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

using Testing::Certificate;
using Testing::RunProgram;

namespace {

class TrustCommand : public ::testing::Test
{
protected:
    TrustCommand()
    {
        directory.Write("root", root.Pem());
        directory.Write("chain", middle.Pem());
        directory.Write("server", server.Pem());
        directory.Write("key", server.KeyPem());
    }
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
        std::string arguments; // separated by blanks; files are in the directory
        int exitCode;
        std::string text; // the beginning of standard output, or of standard error for exit codes 1 and 2
    };
    void Check(const std::vector<Case>& cases) const
    {
        for (const Case& row : cases) {
            std::istringstream words("trust " + row.arguments);
            const std::vector<std::string> arguments{std::istream_iterator<std::string>(words), {}};
            const auto result = RunProgram(arguments, {.prepare = [this] {
                                               std::filesystem::current_path(directory.Path());
                                           }});
            EXPECT_EQ(result.exitCode, row.exitCode) << row.name << ": " << result.errors;
            const bool isVerified = row.exitCode == 0 || row.exitCode == 4;
            const std::string& text = isVerified ? result.output : result.errors;
            EXPECT_EQ(text.substr(0, row.text.size()), row.text) << row.name;
        }
    }

    const Certificate root = Certificate::SelfSigned(Testing::AuthorityForm("Root"));
    const Certificate middle = root.Issue(Testing::AuthorityForm("Middle"));
    const Certificate server = middle.Issue(Form());
    const Testing::TemporaryDirectory directory;
    const std::string at = " --at " + std::to_string(Testing::JudgementTime);
    const std::string pin = " --pin sha256:" + server.KeyHash();
    const std::string good = "trusted\n  subject   CN=a\\0Ab\n  issuer    CN=Middle\n"
                             "  valid     2023-11-14T21:56:40Z to 2023-11-14T22:30:00Z\n  key       sha256:" +
                             server.KeyHash() + "\n";
};

TEST_F(TrustCommand, FilesAreVerified)
{
    directory.Write("server.der", server.Der());
    directory.Write("list", middle.RevocationList({server}));
    directory.Write("empty", middle.RevocationList({}));
    directory.Write("[a,b]", root.RevocationList({middle}));
    const std::string host = " --name backup.example", cert = "--cert server.der", named = cert + host;
    Check({
        {"trusted", named + " --chain chain --anchors root" + at, 0, good},
        {"pinned", cert + pin + " --name 127.0.0.1 --at 2023-11-14T22:13:20Z", 0, good},
        {"too early", named + pin + " --at 2023-11-14", 4,
         "not trusted: certificate is not yet valid\n  subject"},
        {"revoked", named + " --chain chain --anchors root --crl list" + at, 4,
         "not trusted: certificate revoked\n"},
        {"issuer revoked by the second list",
         named + " --crl empty --chain chain --crl [a,b] --anchors root" + at, 4,
         "not trusted: certificate revoked\n  found in  CN=Middle\n"},
        {"the issuer is the reason", named + " --chain chain" + at, 4,
         "not trusted: unable to get local issuer certificate\n  found in  CN=Middle\n  subject"},
        {"address in brackets", cert + pin + " --name [::1]" + at, 4, "not trusted: IP address mismatch\n"},
    });
}

TEST_F(TrustCommand, UnusableArgumentsFail)
{
    const std::string host = " --name backup.example", cert = "--cert server", named = cert + host;
    Check({
        {"no file", "--cert none" + host, 1, "kbagent: error: Failed to open "},
        {"no certificate", "--cert key" + host, 1, "kbagent: error: No certificate can be read from key"},
        {"no chain", named + " --chain key", 1, "kbagent: error: No certificate can be read from key"},
        {"no revocation list", named + " --crl key", 1, "kbagent: error: --crl key: No revocation list can"},
        {"no anchors", named + " --anchors key", 1, "kbagent: error: No trust anchor"},
        {"name that can't be one", "1.2.3:1", 1, "kbagent: error: Not a host name"},
        {"neither server nor certificate", host, 2, "kbagent: error: Name a server or"},
        {"server and certificate", "a:1 " + named, 2, "kbagent: error: Name a server or"},
        {"no name", cert, 2, "kbagent: error: --cert requires --name"},
        {"short pin", named + " --pin 12", 2, "kbagent: error: --pin requires 64"},
        {"pin and anchors", "a:1" + pin + " --anchors root", 2, "kbagent: error: "},
        {"29th of February", "a:1 --at 2023-02-29", 2, "kbagent: error: Not a time"},
        {"hour 24", "a:1 --at 2023-02-28T24:00:00Z", 2, "kbagent: error: Not a time"},
        {"no port", "a", 2, "kbagent: error: Not HOST:PORT"},
        {"port out of range", "a:65536", 2, "kbagent: error: Not HOST:PORT"},
        {"address without brackets", "::1:443", 2, "kbagent: error: Not HOST:PORT"},
    });
}

TEST_F(TrustCommand, ServerIsVerifiedOverHandshake)
{
    const std::string key = directory / "key", certificate = directory / "server";
    const Testing::OpenSslServer process({"-cert", certificate, "-key", key, "-cert_chain",
                                          directory / "chain", "-servername", "backup.example", "-cert2",
                                          certificate, "-key2", key, "-servername_fatal"});
    Testing::CertificateForm form = Form();
    form.rsaBits = 1024;
    const Certificate weak = middle.Issue(form);
    const Testing::OpenSslServer weakProcess({"-cert", directory.Write("weak", weak.Pem()), "-key",
                                              directory.Write("weak key", weak.KeyPem()), "-cipher",
                                              "DEFAULT@SECLEVEL=0"});
    if (process.Port().empty() || weakProcess.Port().empty())
        GTEST_SKIP() << "openssl s_server doesn't run here";
    const std::string address = "127.0.0.1:" + process.Port(), anchored = address + " --anchors root" + at;
    Check({
        {"by its address", anchored, 0, good},
        {"by its address with a trailing dot", anchored + " --name 127.0.0.1.", 0, good},
        {"by a name", "--name backup.example. " + address + pin + at, 0, good},
        {"unknown CA", address + at, 4, "not trusted: unable to get local issuer certificate\n"},
        {"a name that the server refuses", address + " --name other.example" + at, 1,
         "kbagent: error: No TLS handshake with 127.0.0.1 port " + process.Port() + ": "},
        {"weak key", "127.0.0.1:" + weakProcess.Port() + " --pin " + weak.KeyHash() + at, 4,
         "not trusted: EE certificate key too weak\n"},
    });
}

TEST_F(TrustCommand, UnreachableServerFails)
{
    const int listener = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in bound = {};
    bound.sin_family = AF_INET;
    bound.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof bound;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&bound), size), 0);
    ASSERT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&bound), &size), 0);
    const std::string port = std::to_string(ntohs(bound.sin_port)), address = "127.0.0.1:" + port;
    Check({{"port without a listener", address, 1,
            "kbagent: error: Can't connect to 127.0.0.1 port " + port + ": Connection refused\n"}});
    ASSERT_EQ(listen(listener, 1), 0);
    Check({{"listener without an answer", address + " --timeout 1", 1,
            "kbagent: error: No TLS handshake with "}});
    close(listener);
}

} // namespace
