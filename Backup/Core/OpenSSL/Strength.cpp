#include "Backup/Core/OpenSSL/Strength.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>

namespace Backup::OpenSSL {

namespace {

using PssParametersPtr = std::unique_ptr<RSA_PSS_PARAMS, Freer<&RSA_PSS_PARAMS_free>>;

int PssDigest(const X509_ALGOR& algorithm)
{
    const PssParametersPtr parameters(static_cast<RSA_PSS_PARAMS*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(RSA_PSS_PARAMS), algorithm.parameter)));
    // Without a digest SHA-1 is meant.
    return parameters == nullptr || parameters->hashAlgorithm == nullptr
               ? NID_undef
               : OBJ_obj2nid(parameters->hashAlgorithm->algorithm);
}

bool IsAllowedDigest(int digest)
{
    switch (digest) {
    case NID_sha224:
    case NID_sha256:
    case NID_sha384:
    case NID_sha512:
    case NID_sha512_224:
    case NID_sha512_256:
    case NID_sha3_224:
    case NID_sha3_256:
    case NID_sha3_384:
    case NID_sha3_512:
        return true;
    default:
        return false;
    }
}

} // namespace

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

bool IsAllowedSignature(const X509_ALGOR& algorithm)
{
    int digest = NID_undef;
    int key = NID_undef;
    if (OBJ_find_sigid_algs(OBJ_obj2nid(algorithm.algorithm), &digest, &key) != 1)
        return false;
    switch (key) {
    case NID_rsaEncryption:
    case NID_X9_62_id_ecPublicKey:
        return IsAllowedDigest(digest);
    case NID_rsassaPss:
        return IsAllowedDigest(PssDigest(algorithm));
    case NID_ED25519:
    case NID_ED448:
        return true;
    default:
        return false;
    }
}

} // namespace Backup::OpenSSL
