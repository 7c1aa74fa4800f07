// The verification of server certificates: each row changes one property of a valid path.
#include "Backup/Core/OpenSSL.h"

#include "testing/OnThreads.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"
#include "testing/TrustScene.h"

#include <openssl/err.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <functional>
#include <memory>
#include <utility>

using namespace Backup::OpenSSL;
using namespace Testing;
using namespace Testing::Trust;
using Krt::YString;

namespace {

constexpr const char* Host = Scene::Host;
constexpr const char* KeyTooWeak = "EE certificate key too weak";
constexpr const char* SignatureTooWeak = "the certificate's signature algorithm is too weak or unknown";
constexpr const char* WrongName = "hostname mismatch";
constexpr const char* Expired = "certificate has expired";
constexpr const char* Revoked = "certificate revoked";
constexpr const char* NoList = "unable to get certificate CRL";
constexpr long long Now = JudgementTime;
const Extensions OnlyAuthorities = {{"issuingDistributionPoint", "critical,onlyCA:TRUE"}};
const Extensions OnlyServers = {{"issuingDistributionPoint", "critical,onlyuser:TRUE"}};

struct Case
{
    const char* name;
    Change change;
    const char* reason = "";
    int depth = 0;
    const char* subject = nullptr; // default: the scene's certificate at that depth
};

void Check(const std::vector<Case>& cases)
{
    for (const Case& row : cases) {
        SCOPED_TRACE(row.name);
        Scene scene;
        row.change(scene);
        const bool isTrusted = *row.reason == '\0';
        const int depth = isTrusted ? -1 : row.depth;
        EXPECT_EQ(scene.Judge(), isTrusted);
        EXPECT_EQ(scene.report.reason.Bytes(), row.reason);
        EXPECT_EQ(scene.report.depth, depth);
        constexpr std::array Subjects = {"", "CN=Server", "CN=Middle", "CN=Root"};
        EXPECT_EQ(scene.report.subject.Bytes(),
                  row.subject != nullptr ? row.subject : Subjects.at(static_cast<std::size_t>(depth + 1)));
    }
}

TEST(CertificateTrust, NameMustMatch)
{
    const std::string nul("\0", 1);
    const char* const containsNul = "a name in the certificate contains a NUL byte or can't be read";
    Check({
        {"the same", Names({Host})},
        {"other case and trailing dot", Names({"Backup.Example"}, "BACKUP.example.")},
        {"another", Names({"other.example"}), WrongName},
        {"common name alone",
         [](Scene& s) {
             s.serverForm.names = {};
             s.serverForm.subject = Host;
         },
         WrongName, 0, "CN=backup.example"},
        {"wildcard", Names({"*.backup.example"}, "a.backup.example")},
        {"partial wildcard", Names({"ba*.host.example"}, "backup.host.example"), WrongName},
        {"international", Names({"xn--bcher-kva.example"}, "xn--bcher-kva.example")},
        {"NUL after the name", Names({Host + nul + ".evil.example"}), containsNul},
        {"NUL in another name", Names({Host, "x" + nul}), containsNul},
        {"NUL in the subject", [&](Scene& s) { s.serverForm.subject = "a" + nul + "\n\u202e"; }, containsNul,
         0, "CN=a\\00\\0A\\E2\\80\\AE"},
        {"IPv4", Names({"IP:192.0.2.1"}, "192.0.2.1")},
        {"another IPv4", Names({"IP:192.0.2.1"}, "192.0.2.2"), "IP address mismatch"},
        {"address as a host name", Names({"192.0.2.1"}, "192.0.2.1"), "IP address mismatch"},
        {"IPv6", Names({"IP:2001:db8::1"}, "2001:DB8:0::1")},
        {"IPv6 in brackets, with a zone", Names({"IP:fe80::1"}, "[fe80::1%eth0]")},
    });
}

TEST(CertificateTrust, BrokenPathIsRefused)
{
    constexpr auto NotAfter = &CertificateForm::notAfter;
    const char* const noIssuer = "unable to get local issuer certificate";
    const char* const isAuthority = "the certificate is an authority's, not a server's";
    Check({
        {"expired", Set(OfServer, NotAfter, Now - 1), Expired},
        {"missing intermediate", [](Scene& s) { s.sendsMiddle = false; }, noIssuer},
        {"intermediate as the anchor", Present([](Scene& s) { s.options.anchors = {s.middle->Der()}; })},
        {"another root with that name",
         Present([](Scene& s) { s.options.anchors = {Certificate::SelfSigned(s.rootForm).Pem()}; }), noIssuer,
         1},
        {"signature damaged", Present([](Scene& s) {
             s.sent = s.server->Der();
             s.sent.back() = static_cast<char>(s.sent.back() ^ 1);
         }),
         "certificate signature failure"},
        {"self-signed", [](Scene& s) { s.isSelfSigned = true; }, "self-signed certificate"},
        {"self-signed, and the anchor",
         [](Scene& s) {
             s.isSelfSigned = s.isAnchor = true;
         }},
        {"issuer that the strict rules refuse", Extend(OfMiddle, "basicConstraints", "CA:TRUE"),
         "Basic Constraints of CA cert not marked critical", 1},
        {"authority as the server", [](Scene& s) { s.serverForm.extensions = s.middleForm.extensions; },
         isAuthority},
        {"authority that may not sign", Extend(OfServer, "basicConstraints", "critical,CA:TRUE"),
         isAuthority},
        {"within name constraints",
         Extend(OfMiddle, "nameConstraints", "critical,permitted;DNS:backup.example")},
        {"name excluded", Extend(OfMiddle, "nameConstraints", "critical,excluded;DNS:example"),
         "excluded subtree violation"},
        {"wildcard for an excluded name",
         [](Scene& s) {
             s.middleForm.extensions["nameConstraints"] = "critical,excluded;DNS:evil.example.org";
             Names({"*.example.org"}, "evil.example.org")(s);
         },
         "excluded subtree violation"},
        {"purpose client", Extend(OfServer, "extendedKeyUsage", "clientAuth"),
         "unsuitable certificate purpose"},
    });
}

TEST(CertificateTrust, WeakKeyOrSignatureIsRefused)
{
    constexpr auto Bits = &CertificateForm::rsaBits;
    constexpr auto Digest = &CertificateForm::digest;
    const char* const authorityTooWeak = "CA certificate key too weak";
    Check({
        {"RSA of 2048 bits", Set(OfServer, Bits, 2048)},
        {"RSA of 2047 bits", Set(OfServer, Bits, 2047), KeyTooWeak},
        {"RSA of 2047 bits of the issuer", Set(OfMiddle, Bits, 2047), authorityTooWeak, 1},
        {"RSA of 2047 bits of the anchor", Set(OfRoot, Bits, 2047), authorityTooWeak, 2},
        {"DSA", Set(OfServer, &CertificateForm::isDsa, true), KeyTooWeak},
        {"weak signature", Set(OfServer, Digest, "SHA1"), SignatureTooWeak},
        {"weak signature on the issuer", Set(OfMiddle, Digest, "SHA1"),
         "CA signature digest algorithm too weak", 1},
        {"weak signature on the anchor, which is not used", Set(OfRoot, Digest, "SHA1")},
        {"weak signature on an anchor that is the server",
         [](Scene& s) {
             s.isSelfSigned = s.isAnchor = true;
             s.serverForm.digest = "SHA1";
         },
         SignatureTooWeak},
    });
}

TEST(CertificateTrust, PinReplacesOnlyAnchor)
{
    const auto pinned = [](const Change& change, bool isSelfSigned = true) -> Change {
        return [=](Scene& s) {
            s.isPinned = true;
            s.isSelfSigned = isSelfSigned;
            change(s);
        };
    };
    const auto lists = [&](const std::vector<ListForm>& forms) {
        return pinned(Lists(forms), false);
    };
    constexpr long long NextCentury = 253370764800;
    Check({
        {"self-signed", pinned([](Scene&) {})},
        {"issued", pinned([](Scene&) {}, false)},
        {"another key",
         pinned(Present([](Scene& s) { s.options.pinnedKey = YString(s.middle->KeyHash().c_str()); })),
         "the public key is not the pinned one"},
        {"expired", pinned(Set(OfServer, &CertificateForm::notAfter, Now - 1)), Expired},
        {"wrong name", pinned(Names({"other.example"})), WrongName},
        {"RSA of 2047 bits", pinned(Set(OfServer, &CertificateForm::rsaBits, 2047)), KeyTooWeak},
        {"weak signature", pinned(Set(OfServer, &CertificateForm::digest, "SHA1")), SignatureTooWeak},
        {"on the third list",
         lists({{Middle},
                {Middle, {}, Now + 1, {{"authorityKeyIdentifier", "critical,keyid"}}},
                {Middle, {Server}}}),
         Revoked},
        {"not on the list", lists({{Middle, {Middle}}})},
        {"list expired", lists({{Middle, {}, Now - 1}}), "CRL has expired"},
        {"list without an end", lists({{Middle, {}, Certificate::NoEnd}})},
        {"list not yet valid",
         [&](Scene& s) {
             lists({{Middle}})(s);
             s.serverForm.notBefore = Now - 5000;
             s.options.time = Now - 3000;
         },
         "CRL is not yet valid"},
        {"by the clock",
         [&](Scene& s) {
             lists({{Middle, {}, NextCentury}})(s);
             s.serverForm.notAfter = NextCentury;
             s.options.time.reset();
         }},
        {"list of another issuer", lists({{Root}}), NoList},
        {"list of the issuer's authorities", lists({{Middle, {}, Now + 1, OnlyAuthorities}}), NoList},
    });
}

TEST(CertificateTrust, RevocationListsAreApplied)
{
    const auto inOneText = [](std::function<std::string(Scene&)> make) {
        return Present([=](Scene& s) { s.options.revocationLists = {make(s)}; });
    };
    Check({
        {"not listed", Lists({{Middle, {Root}}})},
        {"both issuers in one text", inOneText([](Scene& s) {
             return s.root->RevocationList({}) + "text\n" + s.middle->RevocationList({});
         })},
        {"revoked", Lists({{Middle, {Root, Server}}}), Revoked},
        {"issuer revoked", Lists({{Middle}, {Root, {Middle}}}), Revoked, 1},
        {"list of the issuer's issuer signed by another with that name", inOneText([](Scene& s) {
             return s.middle->RevocationList({}) + Certificate::SelfSigned(s.rootForm).RevocationList({});
         }),
         NoList, 1},
        {"list of an anchor's issuer", inOneText([](Scene& s) {
             s.options.anchors = {s.middle->Pem()};
             return s.middle->RevocationList({}) + s.root->RevocationList({*s.middle});
         })},
        {"list expired", Lists({{Middle, {}, Now - 1}}), "CRL has expired"},
        {"list of the issuer missing", Lists({{Root}}), NoList},
        {"list of the issuer's authorities", Lists({{Middle, {}, Now + 1, OnlyAuthorities}}),
         "different CRL scope"},
        {"list of the issuer's servers", Lists({{Middle, {Server}, Now + 1, OnlyServers}}), Revoked},
        {"list signed by another with that name",
         inOneText([](Scene& s) { return s.root->Issue(s.middleForm).RevocationList({}); }), NoList},
    });
}

TEST(CertificateTrust, UnreadableCertificateIsRefused)
{
    ERR_clear_error();
    const auto sends = [](std::function<std::string(const std::string& der, const std::string& pem)> damage) {
        return Present([=](Scene& s) { s.sent = damage(s.server->Der(), s.sent); });
    };
    const auto unreadable = [](const char* name, const Change& change) {
        return Case{name, change, "the certificate can't be read", -1, ""};
    };
    Check({
        {"DER", sends([](const std::string& der, const std::string&) { return der; })},
        {"text around PEM", sends([](auto&, const std::string& pem) { return "CN = x\n" + pem + "end"; })},
        {"chain after the certificate",
         [](Scene& s) {
             s.sendsMiddle = false;
             s.present = [](Scene& t) {
                 t.sent += t.middle->Pem() + t.root->KeyPem();
             };
         }},
        unreadable("nothing", sends([](auto&, auto&) { return ""; })),
        unreadable("garbage", sends([](auto&, auto&) { return std::string(5000, '\x30'); })),
        unreadable("too much", sends([](auto&, auto& pem) { return pem + std::string(16u << 20, ' '); })),
        unreadable("byte after DER", sends([](auto& der, auto&) { return der + '\0'; })),
        unreadable("DER cut", sends([](auto& der, auto&) { return der.substr(0, der.size() - 1); })),
        unreadable("PEM cut", sends([](auto&, auto& pem) { return pem.substr(0, pem.size() - 30); })),
        unreadable("damaged second block", sends([](auto&, auto& pem) { return pem + pem.substr(0, 99); })),
        {"garbage in the chain", [](Scene& s) { s.chain = {"garbage"}; },
         "a certificate of the chain can't be read", -1, ""},
    });
    EXPECT_EQ(ERR_peek_error(), 0ul) << "errors remain in the queue";
}

TEST(CertificateTrust, HostileChainIsAnswered)
{
    Check({
        {"1000 issuers with that name", Present([](Scene& s) {
             const std::string other = s.root->Issue(s.middleForm).Der();
             s.chain.insert(s.chain.begin(), 1000, other);
         })},
        {"path of 120 issuers", Present([](Scene& s) {
             Certificate issuer = *s.root;
             for (int i = 0; i < 120; ++i) {
                 issuer = issuer.Issue(s.middleForm);
                 s.chain.push_back(issuer.Der());
             }
             s.sent = issuer.Issue(s.serverForm).Pem();
         }),
         "certificate chain too long", 101, "CN=Middle"},
        {"50 issuers that each issued 50 others, which each issued them", Present([](Scene& s) {
             const Certificate other = s.middle->Issue(AuthorityForm("Other"));
             s.chain.clear();
             for (int i = 0; i < 50; ++i) {
                 s.chain.push_back(other.Issue(s.middleForm, &*s.middle).Der());
                 s.chain.push_back(s.middle->Issue(AuthorityForm("Other"), &other).Der());
             }
         }),
         "unable to get local issuer certificate", 100, "CN=Other"},
    });
}

// One path is valid; the additional certificates of each row lead into others, which are not.
TEST(CertificateTrust, ChainInAnyOrderIsTrusted)
{
    Scene scene;
    scene.middleForm.extensions["subjectKeyIdentifier"] = "01:02:03";
    ASSERT_TRUE(scene.Judge());
    const Certificate &root = *scene.root, &middle = *scene.middle;
    const Certificate stranger = Certificate::SelfSigned(AuthorityForm("Stranger"));
    const Certificate crossed = stranger.Issue(scene.middleForm, &middle);
    CertificateForm client = scene.middleForm, narrow = scene.middleForm, onlyLists = scene.middleForm;
    onlyLists.extensions["keyUsage"] = "critical,cRLSign";
    client.extensions["extendedKeyUsage"] = "clientAuth";
    narrow.extensions["nameConstraints"] = "critical,excluded;DNS:example";
    const std::pair<const char*, std::vector<Certificate>> cases[] = {
        {"cross-signed by an unknown root", {crossed}},
        {"with both roots", {crossed, stranger, root}},
        {"another purpose", {root.Issue(client, &middle)}},
        {"another key usage", {root.Issue(onlyLists, &middle)}},
        {"excluded name, and the root cross-signed",
         {root.Issue(narrow, &middle), stranger.Issue(scene.rootForm, &root)}},
        {"another key with that identifier", {root.Issue(scene.middleForm)}},
    };
    for (const auto& [name, others] : cases) {
        SCOPED_TRACE(name);
        std::vector<std::string> chain = scene.chain;
        for (const Certificate& other : others)
            chain.push_back(other.Der());
        std::sort(chain.begin(), chain.end());
        do {
            EXPECT_TRUE(IsCertificateTrusted(scene.sent, chain, Host, scene.options, &scene.report));
            EXPECT_EQ(scene.report.reason.Bytes(), "");
        } while (std::next_permutation(chain.begin(), chain.end()));
    }
}

class CertificateTrustArguments : public ::testing::Test
{
protected:
    CertificateTrustArguments() { EXPECT_TRUE(scene.Judge()); }

    bool Verify(const std::string& host = Host) const
    {
        return IsCertificateTrusted(scene.sent, scene.chain, YString(std::string_view(host)), options);
    }
    void ExpectUnusable(const std::string& text, const std::string& host = Host) const
    {
        EXPECT_RAISES(Verify(host), Krt::ErrorCode::InvalidArgument, "IsCertificateTrusted", text);
    }

    Scene scene;
    TrustOptions options;
};

TEST_F(CertificateTrustArguments, UnusableHostRaises)
{
    const std::string noName = "Not a host name or an IP address: '";
    const std::string longLabel = "a." + std::string(64, 'b');
    std::string tooLong = "a";
    while (tooLong.size() <= 253)
        tooLong += ".a";
    for (const std::string host : {"",          tooLong.c_str(), ".",     "a..b",        ".example",
                                   "*.example", "a b",           "1.2.3", "01.2.3.4",    "1.2.3.4.5",
                                   "1.2.3.256", "0x7f000001",    "1.0X4", "[a.example]", "[1.2.3.4]",
                                   "[]",        "::1::",         "1:2",   "::+1.2.3.4",  "a/b",
                                   "g::1",      "::1.2.3",       "a.0X1", "[::1",        longLabel.c_str()})
        ExpectUnusable(noName + host + "'", host);
    const std::string international = "b\u00fccher.example";
    ExpectUnusable(noName + international + "'; an international name is given as A-labels (xn--...)",
                   international);
}

TEST_F(CertificateTrustArguments, UnusablePinRaises)
{
    for (const std::string& pin : {std::string(62, 'a'), std::string(66, 'a'), std::string(64, 'g')}) {
        options.pinnedKey = pin.c_str();
        ExpectUnusable("A pinned key is 64 hexadecimal digits, not " + pin);
    }
    options = scene.options;
    options.pinnedKey = scene.server->KeyHash().c_str();
    ExpectUnusable("A pinned key replaces the trust anchor; give one or the other");
}

TEST_F(CertificateTrustArguments, UnusableRevocationListRaises)
{
    const Extensions unknown = {{"1.2.3.4", "critical,ASN1:NULL"}};
    const auto scope = [](const char* value) {
        return Extensions{{"issuingDistributionPoint", value}};
    };
    for (const auto& [ofList, ofEntry] : std::vector<std::pair<Extensions, Extensions>>{
             {{{"2.5.29.27", "critical,ASN1:INTEGER:1"}}, {}}, // of a delta
             {scope("critical,indirectCRL:TRUE"), {}},
             {scope("critical,onlysomereasons:keyCompromise"), {}},
             {scope("critical,onlyuser:TRUE,onlyCA:TRUE"), {}},
             {unknown, {}},
             {{}, unknown}}) {
        SCOPED_TRACE(ofList.empty() ? "entry" : ofList.begin()->second);
        options.revocationLists = {scene.middle->RevocationList({}),
                                   scene.middle->RevocationList({*scene.server}, Now + 1, ofList, ofEntry)};
        ExpectUnusable("A revocation list is a delta, indirect, for some reasons alone, or has an unknown "
                       "critical extension; give the complete list of its issuer");
    }
    CertificateForm form = AuthorityForm("Signer");
    form.rsaBits = 2048;
    const Certificate signer = Certificate::SelfSigned(form);
    for (const char* const digest : {"MD5", "SHA1"}) {
        options.revocationLists = {signer.RevocationList({}, Now + 1, {}, {}, digest)};
        ExpectUnusable("The signature algorithm of a revocation list is too weak or unknown");
    }
    options.revocationLists = {scene.sent};
    ExpectUnusable("No revocation list can be read from the bytes given");
}

TEST_F(CertificateTrustArguments, UnusableTimeOrAnchorsRaise)
{
    for (const long long time : {-62167219201, 253402300800}) {
        options.time = time;
        ExpectUnusable("The time of verification is outside the years 0 to 9999: " + std::to_string(time));
    }
    options.time.reset();
    const TemporaryDirectory directory;
    const std::string file = directory.Write("anchors", "none"), missing = directory / "missing";
    const std::string large = directory.Write("large", std::string((16 << 20) + 1, ' '));
    options.anchorFiles = {file.c_str()};
    ExpectUnusable("No trust anchor can be read from " + file);
    for (const auto& [path, text] :
         {std::pair(directory.Path(), "Not a regular file: "), {large, "Too large for certificates: "}}) {
        options.anchorFiles = {path.c_str()};
        EXPECT_RAISES(Verify(), Krt::ErrorCode::InvalidArgument, "ReadCertificateFile", text + path);
    }
    options.anchorFiles = {missing.c_str()};
    EXPECT_RAISES_OS(Verify(), Krt::MessageType::General, ENOENT, "ReadCertificateFile",
                     "Failed to open " + missing);
}

TEST(CertificateTrust, ConnectionBeforeHandshakeRaises)
{
    const std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)> context(SSL_CTX_new(TLS_client_method()),
                                                                    &SSL_CTX_free);
    const std::unique_ptr<SSL, decltype(&SSL_free)> connection(SSL_new(context.get()), &SSL_free);
    EXPECT_RAISES(IsCertificateTrusted(connection.get(), Host), Krt::ErrorCode::InvalidArgument,
                  "IsCertificateTrusted", "The handshake of the connection isn't done");
}

TEST(CertificateTrust, ServerWithoutCertificateIsRefused)
{
    using Connection = std::unique_ptr<SSL, decltype(&SSL_free)>;
    BIO* ends[2];
    ASSERT_EQ(BIO_new_bio_pair(&ends[0], 0, &ends[1], 0), 1);
    const auto connect = [](BIO* end) {
        SSL_CTX* const context = SSL_CTX_new(TLS_method());
        SSL_CTX_set_max_proto_version(context, TLS1_2_VERSION);
        SSL_CTX_set_cipher_list(context, "AECDH-AES128-SHA:@SECLEVEL=0");
        Connection connection(SSL_new(context), &SSL_free);
        SSL_CTX_free(context);
        SSL_set_bio(connection.get(), end, end);
        return connection;
    };
    const Connection client = connect(ends[0]);
    const Connection server = connect(ends[1]);
    for (int round = 0; round < 3; ++round) {
        SSL_connect(client.get());
        SSL_accept(server.get());
    }
    ASSERT_TRUE(SSL_is_init_finished(client.get()));
    TrustReport report;
    EXPECT_FALSE(IsCertificateTrusted(client.get(), Host));
    EXPECT_FALSE(IsCertificateTrusted(client.get(), Host, {}, &report));
    EXPECT_EQ(report.reason.Bytes(), "the server showed no certificate");
}

TEST(CertificateTrust, WithoutAnchorsSystemStoreIsUsed)
{
    Scene scene;
    ASSERT_TRUE(scene.Judge());
    const TemporaryDirectory directory;
    const std::string store = directory.Write("store.pem", scene.root->Pem());
    scene.options.anchors.clear();
    EXPECT_FALSE(IsCertificateTrusted(scene.sent, scene.chain, Host, scene.options));
    setenv("SSL_CERT_FILE", store.c_str(), 1);
    EXPECT_TRUE(IsCertificateTrusted(scene.sent, scene.chain, Host, scene.options));
    unsetenv("SSL_CERT_FILE");
}

TEST(CertificateTrust, ConcurrentVerificationsAreIndependent)
{
    Scene scene;
    ASSERT_TRUE(scene.Judge());
    OnThreads(4, [&](int thread) {
        const bool isRight = thread % 2 == 0;
        for (int round = 0; round < 20; ++round)
            EXPECT_EQ(IsCertificateTrusted(scene.sent, scene.chain, isRight ? Host : "other.example",
                                           scene.options),
                      isRight);
    });
}

} // namespace
