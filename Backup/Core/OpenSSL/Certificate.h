#pragma once

/// @file
/// Properties of a single certificate or revocation list (CRL), without its issuers.

#include "Backup/Core/OpenSSL.h"
#include "Backup/Core/OpenSSL/Handles.h"

#include <array>

namespace Backup::OpenSSL {

/// The SHA-256 of a public key.
using KeyHash = std::array<unsigned char, 32>;

/// Returns the SHA-256 of the certificate's SubjectPublicKeyInfo in DER.
KeyHash HashKey(const X509& certificate);

/// Returns the subject in the form of RFC 2253, in printable ASCII.
Krt::YString SubjectText(const X509& certificate);

/// Returns the summary of a certificate.
CertificateSummary Summarize(const X509& certificate);

/// Returns true if the certificate claims to be a CA, even if its key usage does not let it sign.
bool IsAuthority(X509& certificate);

/// Returns true if no name contains a NUL byte and the alternative names can be read.
bool HasReadableNames(const X509& certificate);

/// Returns true for RSA keys from 2048 bits and for keys on curves. OpenSSL's security level, which also
/// accepts slightly smaller RSA keys and DSA, checks the size of the curve.
bool HasAllowedKey(const X509& certificate);

/// Returns true for an RSA, ECDSA or EdDSA signature with SHA-2 or SHA-3.
bool HasAllowedSignature(const X509& certificate);

/// Returns true for an RSA, ECDSA or EdDSA signature with SHA-2 or SHA-3, which OpenSSL does not check.
bool HasAllowedSignature(const X509_CRL& list);

/// Returns true if OpenSSL uses the list. It ignores deltas, indirect lists, lists for some reasons only, and
/// lists with critical extensions that it does not know.
bool IsComplete(X509_CRL& list);

/// Returns true if the list covers only a part of the issuer's certificates.
bool IsPartial(const X509_CRL& list);

} // namespace Backup::OpenSSL
