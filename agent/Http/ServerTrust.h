// ServerTrust: decides whether a server is trusted, by the certificate that it presents in a TLS handshake.
// Any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

struct ssl_ctx_st;
struct x509_store_ctx_st;

namespace Agent::Http {

/// What the text of a pin begins with, before its digits.
constexpr std::string_view PinScheme = "sha256:";

/// Returns the 64 hexadecimal digits of a pin, with or without PinScheme before them; nothing for other text.
std::optional<std::string> DigitsOfPin(std::string_view pin);

struct TrustSettings
{
    std::string anchorFile;           ///< CAs that replace the system's; empty if not given
    std::vector<std::string> pins;    ///< SHA-256 of the server's public key, one of which replaces the CAs
    std::string anchorSource = "CAs"; ///< what names the anchor file, for messages
};

class ServerTrust
{
public:
    /// A verification of one connection, which outlives it.
    struct Verification
    {
        const ServerTrust& trust;
        std::string reason; ///< why the server is not trusted, in printable ASCII; empty if it is
    };

    /// Raises what Backup::OpenSSL::IsCertificateTrusted raises for a host and pins that can't be used, and
    /// InvalidArgument, with the source of the file and the reason, for an anchor file that can't be used.
    ServerTrust(std::string host, TrustSettings settings);

    /// Replaces the verification that the context of OpenSSL has.
    static void Install(ssl_ctx_st* context, Verification& verification);

private:
    std::string Judge(x509_store_ctx_st* presented) const;
    static int Verify(x509_store_ctx_st* presented, void* verification);

    std::string m_host;
    TrustSettings m_settings;
};

} // namespace Agent::Http
