#pragma once

/// @file
/// The arguments of a verification, parsed and checked.

#include "Backup/Core/OpenSSL/Certificate.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Backup::OpenSSL {

constexpr std::size_t MaxEncodedSize = 16u << 20; ///< of a file or text, in bytes

/// The name by which the server was reached: exactly one member is not empty.
struct ServerName
{
    std::string host;    ///< without a trailing dot
    std::string address; ///< the 4 or 16 bytes of an IP address
};

/// The parsed parameters of a verification.
struct VerifyParameters
{
    ServerName name;
    std::vector<CertificatePtr> anchors; ///< the system's store if empty
    std::optional<KeyHash> pin;          ///< the only anchor if set
    std::optional<long long> time;       ///< seconds since 1970; now if not set
    std::vector<RevocationListPtr> lists;
};

/// Parses the host and the options. Raises InvalidArgument for an unusable one, and the errors of
/// ReadCertificateFile.
VerifyParameters ReadParameters(const Krt::YString& host, const TrustOptions& options);

/// Returns all certificates in PEM text or the one in DER bytes. Returns an empty list if any of them cannot
/// be read completely. Other blocks of a PEM text are ignored.
std::vector<CertificatePtr> ReadCertificates(std::string_view bytes);

} // namespace Backup::OpenSSL
