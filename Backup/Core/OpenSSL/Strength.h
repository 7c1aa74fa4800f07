// The keys and signature algorithms that are accepted where OpenSSL's security level accepts weaker ones.
#pragma once

#include "Backup/Core/OpenSSL/Handles.h"

namespace Backup::OpenSSL {

/// Returns true for RSA keys from 2048 bits and keys on curves. OpenSSL's level judges the size of a curve.
bool HasAllowedKey(const X509& certificate);

} // namespace Backup::OpenSSL
