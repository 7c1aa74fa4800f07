// A byte of flags, a host's name, and then, each with its length in front, a revocation list, an anchor, the
// server's certificate and what was sent with it.
#include "fuzz/Input.h"

#include "Backup/Core/OpenSSL.h"
#include "testing/CertificateAuthority.h"

#include <openssl/err.h>

namespace {

using namespace Backup::OpenSSL;
using Fuzz::Expect;

bool IsPrintable(const Krt::YString& text)
{
    const std::string& bytes = text.Bytes();
    return std::all_of(bytes.begin(), bytes.end(), [](char byte) { return byte >= 0x20 && byte < 0x7F; });
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    // Its key is new in each process, so no input contains a certificate that it signed.
    static const std::string stranger =
        Testing::Certificate::SelfSigned(Testing::AuthorityForm("Authority")).Der();
    Fuzz::Input input(data, size);
    const unsigned int flags = input.Byte();
    const Krt::YString host(input.Text().c_str());
    const std::string list = input.Bytes(), anchor = input.Bytes(), certificate = input.Bytes();
    std::vector<std::string> chain;
    while (!input.IsEmpty())
        chain.push_back(input.Bytes());

    TrustOptions options;
    options.time = Testing::JudgementTime;
    options.anchors = {(flags & 1) != 0 ? stranger : (flags & 2) != 0 ? certificate : anchor};
    if ((flags & 4) != 0)
        options.revocationLists = {list};
    TrustReport report;
    bool trusted = false;
    const auto judge = [&] {
        trusted = IsCertificateTrusted(certificate, chain, host, options, &report);
    };
    const bool raises = Fuzz::Raises(judge);
    Expect(ERR_peek_error() == 0, "no error stays in the queue");
    if (raises)
        return 0;
    Expect(trusted == report.reason.IsEmpty(), "a refusal has its reason, and nothing else has one");
    for (const auto& text : {report.reason, report.subject, report.server.subject, report.server.issuer})
        Expect(IsPrintable(text), "the report can be printed");
    Expect(!trusted || (flags & 1) == 0, "an anchor that signed nothing makes nothing trusted");

    options.anchors.clear();
    options.pinnedKey = report.server.keyHash;
    if (options.pinnedKey.IsEmpty())
        return 0;
    Expect(!Fuzz::Raises(judge), "a pin in the place of an anchor raises nothing");
    options.pinnedKey = Krt::YString(std::string(64, '0').c_str());
    judge();
    Expect(!trusted, "another key is not the pinned one");
    return 0;
}
