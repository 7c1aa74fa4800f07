// What the library takes from OpenSSL: random bytes, and the judgement whether a server is to be trusted. Any
// thread may call any of it; no error of its own stays behind in the thread's OpenSSL queue.
#pragma once

#include "Backup/Export.h"
#include "Krt/File/YPath.h"
#include "Krt/Memory/YHeap.h"

#include <optional>
#include <string>
#include <vector>

struct ssl_st; // OpenSSL's SSL

namespace Backup::OpenSSL {

/// `count` random bytes fit for secrets. Any thread. Raises CryptoFailure with OpenSSL's own text, and
/// InvalidArgument for a negative count.
BACKUP_API Krt::Memory::YHeap<unsigned char> RandomBytes(int count);

/// What a certificate is judged by. Certificates and revocation lists are bytes as they lie in a file: DER,
/// which holds one, or PEM, which holds any number among other text.
struct TrustOptions
{
    /// Trust anchors, which take the place of the system's store. An anchor need not be self-signed.
    std::vector<Krt::File::YPath> anchorFiles;
    std::vector<std::string> anchors;
    /// SHA-256 of the server's public key (of its SubjectPublicKeyInfo in DER), as 64 hexadecimal digits. It
    /// stands for an anchor and for nothing else; anchors beside it are refused.
    Krt::YString pinnedKey;
    /// The time of judgement, in seconds since 1970, of a year from 0 to 9999; now if there is none.
    std::optional<long long> time;
    /// If any list is given, a valid one of the issuer of the server's certificate is required. A certificate
    /// above it needs one if there is a list under its issuer's name. Only complete lists are accepted: no
    /// deltas, no indirect lists and no lists for some reasons alone. They are signed with SHA-2 or SHA-3.
    std::vector<std::string> revocationLists;
};

/// A certificate in short. Names are as RFC 2253 writes them, in printable ASCII: all else is escaped. Times
/// are seconds since 1970, missing where the certificate's can't be read.
struct CertificateSummary
{
    Krt::YString subject;               ///< whose key it certifies
    Krt::YString issuer;                ///< who says so
    std::optional<long long> notBefore; ///< the first second of its life
    std::optional<long long> notAfter;  ///< the last one, in which OpenSSL takes it for expired already
    Krt::YString keyHash;               ///< what pins its key: see TrustOptions::pinnedKey
};

/// What came of a judgement.
struct TrustReport
{
    Krt::YString reason;       ///< why it isn't trusted, in printable ASCII; empty if it is
    Krt::YString subject;      ///< of the certificate that is the reason; empty if none is
    int depth = -1;            ///< of that certificate: 0 the server's, 1 its issuer's; -1 if none is
    CertificateSummary server; ///< the server's certificate; empty if it can't be read
};

/// Returns true if the holder of the certificate's key is the server to be reached, for TLS. `chain` contains
/// the certificates that the server sent with its own, in any order; certificates after the first one of
/// `certificate` are added to it. If the order sent does not lead to a trusted path, other orders are tried
/// within a bound: at most 64 paths of 10 issuers each. `host` is the name or IP address by which the server
/// was reached, in ASCII, with international names as A-labels. The brackets and zone of an IPv6 address and
/// the trailing dot of a name are ignored. Never raises for what the server sent. Raises InvalidArgument for
/// an unusable host, pin, anchor, list or time, the errors of ReadCertificateFile, and CryptoFailure if
/// OpenSSL fails.
BACKUP_API bool IsCertificateTrusted(const std::string& certificate, const std::vector<std::string>& chain,
                                     const Krt::YString& host, const TrustOptions& options = {},
                                     TrustReport* report = nullptr);

/// The same for the server at the other end of a connection, which stays the caller's. Raises InvalidArgument
/// before the handshake is done.
BACKUP_API bool IsCertificateTrusted(ssl_st* connection, const Krt::YString& host,
                                     const TrustOptions& options = {}, TrustReport* report = nullptr);

/// The bytes of a file of certificates or lists; links are followed. Raises the operating system's error, and
/// InvalidArgument for what isn't a regular file and above 16 MiB.
BACKUP_API std::string ReadCertificateFile(const Krt::File::YPath& path);

} // namespace Backup::OpenSSL
