#pragma once

/// @file
/// OpenSSL: random bytes and the verification of server certificates. Any thread may call any function. No
/// function leaves errors in the thread's OpenSSL queue.

#include "Backup/Export.h"
#include "Krt/File/YPath.h"
#include "Krt/Memory/YHeap.h"

#include <optional>
#include <string>
#include <vector>

struct ssl_st; // OpenSSL's SSL

namespace Backup::OpenSSL {

/// Returns `count` random bytes that are fit for secrets. Raises CryptoFailure with OpenSSL's text, and
/// InvalidArgument for a negative count.
BACKUP_API Krt::Memory::YHeap<unsigned char> RandomBytes(int count);

/// Options of a verification. Certificates and revocation lists (CRLs) are the bytes of a file: DER for a
/// single one, or PEM for any number among other text.
struct TrustOptions
{
    /// Files of trust anchors. Any anchor, from a file or not, replaces the system's store.
    std::vector<Krt::File::YPath> anchorFiles;
    /// Trust anchors, which need not be self-signed.
    std::vector<std::string> anchors;
    /// SHA-256 of the server's public key (of its SubjectPublicKeyInfo in DER), as 64 hexadecimal digits. It
    /// replaces the trust anchor and no other check. It cannot be combined with anchors.
    Krt::YString pinnedKey;
    /// The time of verification, in seconds since 1970, in a year from 0 to 9999; now if not set.
    std::optional<long long> time;
    /// If any list is given, a valid one of the issuer of the server's certificate is required. A certificate
    /// above it needs one if there is a list under its issuer's name. Only complete lists are accepted,
    /// not deltas, indirect lists and lists for only some reasons. They are signed with SHA-2 or SHA-3.
    std::vector<std::string> revocationLists;
};

/// A summary of a certificate. Names have the form of RFC 2253, in printable ASCII with escapes. Times are
/// seconds since 1970, not set if they cannot be read.
struct CertificateSummary
{
    Krt::YString subject;               ///< the name whose key it certifies
    Krt::YString issuer;                ///< the name of the CA that signed it
    std::optional<long long> notBefore; ///< the first second in which it is valid
    std::optional<long long> notAfter; ///< the end of its validity; OpenSSL treats it as expired from then on
    Krt::YString keyHash;              ///< the value that pins its key: see TrustOptions::pinnedKey
};

/// The result of a verification.
struct TrustReport
{
    Krt::YString reason;       ///< why the server is not trusted, in printable ASCII; empty if it is
    Krt::YString subject;      ///< subject of the certificate at fault; empty without one
    int depth = -1;            ///< depth of that certificate: 0 the server's, 1 its issuer's; or -1
    CertificateSummary server; ///< the server's certificate; empty if it cannot be read
};

/// Returns true if the certificate is valid for the TLS server `host` and is trusted by an anchor or a pin.
/// Fills `*report` unless it is nullptr. `chain` contains the certificates that the server sent with its
/// own, in any order; certificates after the first one of `certificate` are added to it. If the order sent
/// does not lead to a trusted path, other orders are tried within a bound: at most 64 paths of 10 issuers
/// each. `host` is the name or IP address by which the server was reached, in ASCII, with international
/// names as A-labels. The brackets and zone of an IPv6 address and the trailing dot of a name are ignored.
/// Never raises for what the server sent. Raises InvalidArgument for an unusable host, pin, anchor, list or
/// time, the errors of ReadCertificateFile, and CryptoFailure if OpenSSL fails.
BACKUP_API bool IsCertificateTrusted(const std::string& certificate, const std::vector<std::string>& chain,
                                     const Krt::YString& host, const TrustOptions& options = {},
                                     TrustReport* report = nullptr);

/// Verifies the certificate of the server at the other end of `connection`, which the caller keeps. See the
/// overload above for the rules. Raises InvalidArgument if `connection` is nullptr or its handshake is not
/// finished.
BACKUP_API bool IsCertificateTrusted(ssl_st* connection, const Krt::YString& host,
                                     const TrustOptions& options = {}, TrustReport* report = nullptr);

/// Returns the bytes of a file of certificates or revocation lists. Symlinks are followed. Raises the
/// operating system's error, and InvalidArgument for a file that is not regular or exceeds 16 MiB.
BACKUP_API std::string ReadCertificateFile(const Krt::File::YPath& path);

} // namespace Backup::OpenSSL
