#include "agent/Http/ServerTrust.h"

#include "agent/Run/Text.h"

#include "Backup/Core/OpenSSL.h"

#include "Krt/Exception/Raise.h"
#include "Krt/String/Ascii.h"

#include <openssl/ssl.h>
#include <openssl/x509.h>

#include <exception>

namespace Agent::Http {

using Backup::OpenSSL::IsCertificateTrusted;
using Backup::OpenSSL::TrustOptions;
using Krt::YString;

namespace {

// The bytes of the certificate; empty if there are none.
std::string Encoded(X509* certificate)
{
    unsigned char* bytes = nullptr;
    const int size = certificate == nullptr ? 0 : i2d_X509(certificate, &bytes);
    std::string encoded(reinterpret_cast<const char*>(bytes), size > 0 ? static_cast<std::size_t>(size) : 0);
    OPENSSL_free(bytes);
    return encoded;
}

// The ways to trust the server, of which one is enough.
std::vector<TrustOptions> OptionsOf(const TrustSettings& settings)
{
    std::vector<TrustOptions> all(settings.pins.empty() ? 1 : settings.pins.size());
    for (std::size_t i = 0; i < settings.pins.size(); ++i)
        all[i].pinnedKey = YString(std::string_view(settings.pins[i]));
    if (!settings.anchorFile.empty())
        all.front().anchorFiles.push_back(settings.anchorFile.c_str());
    return all;
}

// Raises unless the file has anchors. The host has no effect.
void RequireAnchors(const TrustSettings& settings)
{
    TrustOptions options;
    options.anchorFiles.push_back(settings.anchorFile.c_str());
    try {
        IsCertificateTrusted("", {}, "host", options);
    } catch (const Krt::Exception::YError& error) {
        KRT_RAISE(Krt::ErrorCode::InvalidArgument, YString(std::string_view(settings.anchorSource))
                                                       << ": " << ReasonOf(error));
    }
}

} // namespace

std::optional<std::string> DigitsOfPin(std::string_view pin)
{
    constexpr std::size_t Digits = 64;
    if (pin.starts_with(PinScheme))
        pin.remove_prefix(PinScheme.size());
    const bool isPin = pin.size() == Digits && pin.find_first_not_of(Krt::String::AnyHexDigits) == pin.npos;
    return isPin ? std::optional<std::string>(pin) : std::nullopt;
}

ServerTrust::ServerTrust(std::string host, TrustSettings settings)
    : m_host(std::move(host)), m_settings(std::move(settings))
{
    if (!m_settings.anchorFile.empty())
        RequireAnchors(m_settings);
    for (const TrustOptions& options : OptionsOf(m_settings))
        IsCertificateTrusted("", {}, YString(std::string_view(m_host)), options);
}

void ServerTrust::Install(ssl_ctx_st* context, Verification& verification)
{
    SSL_CTX_set_cert_verify_callback(context, &ServerTrust::Verify, &verification);
}

int ServerTrust::Verify(x509_store_ctx_st* presented, void* verification)
{
    auto& [trust, reason] = *static_cast<Verification*>(verification);
    try {
        reason = trust.Judge(presented);
    } catch (const std::exception& error) {
        reason = error.what();
    }
    X509_STORE_CTX_set_error(presented, reason.empty() ? X509_V_OK : X509_V_ERR_APPLICATION_VERIFICATION);
    return reason.empty() ? 1 : 0;
}

std::string ServerTrust::Judge(x509_store_ctx_st* presented) const
{
    X509* const server = X509_STORE_CTX_get0_cert(presented);
    const STACK_OF(X509)* const others = X509_STORE_CTX_get0_untrusted(presented);
    std::vector<std::string> chain;
    for (int i = 0; i < sk_X509_num(others); ++i) {
        if (X509* const each = sk_X509_value(others, i); each != server)
            chain.push_back(Encoded(each));
    }
    Backup::OpenSSL::TrustReport report;
    for (const TrustOptions& options : OptionsOf(m_settings)) {
        if (IsCertificateTrusted(Encoded(server), chain, YString(std::string_view(m_host)), options, &report))
            return "";
    }
    std::string reason = report.reason.Bytes();
    if (reason.empty())
        reason = "no reason is known";
    if (!report.server.keyHash.IsEmpty())
        reason += "; the SHA-256 of its key is " + report.server.keyHash.Bytes();
    return reason;
}

} // namespace Agent::Http
