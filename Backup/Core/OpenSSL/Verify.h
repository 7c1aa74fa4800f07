#pragma once

/// @file
/// The verification of a server's certificate. OpenSSL verifies the chain and the name. Further checks
/// cover what OpenSSL leaves to its callers or skips for a certificate that is itself the trust anchor.

#include "Backup/Core/OpenSSL/Inputs.h"

namespace Backup::OpenSSL {

/// The result of a verification.
struct VerifyResult
{
    Krt::YString reason;  ///< empty if the certificate is trusted
    int depth = -1;       ///< depth of the certificate at fault: 0 is the server's; -1 without one
    Krt::YString subject; ///< subject of that certificate, or empty

    /// Returns true if the certificate is trusted.
    bool IsOk() const { return reason.IsEmpty(); }

    /// The result for a trusted certificate.
    static VerifyResult Ok() { return {}; }
    /// A refusal with OpenSSL's text for `code`. `certificate` may be nullptr.
    static VerifyResult OpenSslError(int code, int depth, const X509* certificate);
    /// A refusal because of the server's certificate, or of no certificate if `server` is nullptr.
    static VerifyResult Fault(const char* reason, const X509* server);
};

/// Verifies the server's certificate with those that were presented with it, in any order. `presented` may
/// be nullptr. If the order given is refused, other paths through `presented` are tried. This search uses
/// the first 100 certificates, follows 10 issuers and ends after 64 paths. A refusal has the reason for the
/// order given.
VerifyResult VerifyServer(X509& server, STACK_OF(X509) * presented, const VerifyParameters& parameters);

/// Returns a stack of the certificates, which it does not own.
StackPtr MakeStack(const std::vector<X509*>& certificates);

} // namespace Backup::OpenSSL
