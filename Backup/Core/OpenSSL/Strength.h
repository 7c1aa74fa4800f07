// The keys and signature algorithms that are accepted where OpenSSL's security level accepts weaker ones.
#pragma once

#include "Backup/Core/OpenSSL/Handles.h"

namespace Backup::OpenSSL {

/// Returns true for RSA keys from 2048 bits and keys on curves. OpenSSL's level judges the size of a curve.
bool HasAllowedKey(const X509& certificate);

/// Returns true for RSA, ECDSA and EdDSA signatures over SHA-2 or SHA-3.
bool IsAllowedSignature(const X509_ALGOR& algorithm);

} // namespace Backup::OpenSSL
