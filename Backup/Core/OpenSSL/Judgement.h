// The judgement of a server's certificate. OpenSSL verifies the path, with the name among it; what it leaves
// to its callers, or skips for a certificate that is itself the anchor, is judged beside it.
#pragma once

#include "Backup/Core/OpenSSL/CertificateText.h"
#include "Backup/Core/OpenSSL/ServerName.h"

namespace Backup::OpenSSL {

/// TrustOptions and the host, read and found usable.
struct Terms
{
    ServerName name;
    std::vector<CertificatePtr> anchors; ///< none: the system's store
    std::optional<KeyHash> pin;
    std::optional<long long> time;
    std::vector<RevocationListPtr> lists;
};

/// `chain` may be null. Fills the report.
bool Judge(X509& server, STACK_OF(X509) * chain, const Terms& terms, TrustReport& report);

} // namespace Backup::OpenSSL
