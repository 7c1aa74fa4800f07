// Certificates and revocation lists out of PEM or DER bytes.
#pragma once

#include "Backup/Core/OpenSSL/Handles.h"

#include <string_view>
#include <vector>

namespace Backup::OpenSSL {

constexpr std::size_t MaxEncodedSize = 16u << 20;

/// All objects in the bytes; none at all if one of them can't be read whole. Other blocks of a PEM text are
/// passed over.
std::vector<CertificatePtr> ReadCertificates(std::string_view bytes);
std::vector<RevocationListPtr> ReadRevocationLists(std::string_view bytes);

} // namespace Backup::OpenSSL
