#include "Backup/Core/OpenSSL/Strength.h"

#include <openssl/evp.h>

namespace Backup::OpenSSL {

bool HasAllowedKey(const X509& certificate)
{
    const EVP_PKEY* const key = X509_get0_pubkey(&certificate);
    switch (key == nullptr ? EVP_PKEY_NONE : EVP_PKEY_get_base_id(key)) {
    case EVP_PKEY_RSA:
    case EVP_PKEY_RSA_PSS:
        return EVP_PKEY_get_bits(key) >= 2048;
    case EVP_PKEY_EC:
    case EVP_PKEY_ED25519:
    case EVP_PKEY_ED448:
        return true;
    default:
        return false;
    }
}

} // namespace Backup::OpenSSL
