// What people and pins are told of a certificate.
#pragma once

#include "Backup/Core/OpenSSL.h"
#include "Backup/Core/OpenSSL/Handles.h"

#include <array>

namespace Backup::OpenSSL {

using KeyHash = std::array<unsigned char, 32>;

/// SHA-256 of the public key with its algorithm, as the certificate holds it.
KeyHash HashKey(const X509& certificate);
/// As RFC 2253 writes it, in printable ASCII.
Krt::YString SubjectText(const X509& certificate);
CertificateSummary Summarize(const X509& certificate);

} // namespace Backup::OpenSSL
