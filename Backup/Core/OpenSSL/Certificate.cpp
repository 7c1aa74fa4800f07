#include "Backup/Core/OpenSSL/Certificate.h"

#include "Krt/String/Ascii.h"

#include <openssl/evp.h>
#include <openssl/rsa.h>

#include <cstring>
#include <string_view>

namespace Backup::OpenSSL {

using Krt::YString;

namespace {

using PssParametersPtr = std::unique_ptr<RSA_PSS_PARAMS, Freer<&RSA_PSS_PARAMS_free>>;
using ScopePtr = std::unique_ptr<ISSUING_DIST_POINT, Freer<&ISSUING_DIST_POINT_free>>;

YString NameText(const X509_NAME* name)
{
    const BioPtr text(BIO_new(BIO_s_mem()));
    RequireDone(text != nullptr);
    if (X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_RFC2253) < 0)
        return "(a name that can't be read)";
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(text.get(), &bytes);
    return YString(std::string_view(bytes, static_cast<std::size_t>(size)));
}

std::optional<long long> Seconds(const ASN1_TIME* time)
{
    const TimePtr epoch(ASN1_TIME_set(nullptr, 0));
    RequireDone(epoch != nullptr);
    int days = 0;
    int seconds = 0;
    if (ASN1_TIME_diff(&days, &seconds, epoch.get(), time) != 1)
        return std::nullopt;
    return days * 86400LL + seconds;
}

YString HexText(const KeyHash& hash)
{
    std::string text;
    Krt::String::AppendHex(text, hash);
    return YString(std::move(text));
}

bool HasNul(const unsigned char* bytes, int size)
{
    return size > 0 && std::memchr(bytes, 0, static_cast<std::size_t>(size)) != nullptr;
}

bool HasNulInSubject(const X509& certificate)
{
    const X509_NAME* const name = X509_get_subject_name(&certificate);
    for (int i = 0; i < X509_NAME_entry_count(name); ++i) {
        unsigned char* text = nullptr;
        // As UTF-8, since wide characters contain bytes of 0.
        const int size = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, i)));
        const BytesPtr owner(text);
        if (HasNul(text, size))
            return true;
    }
    return false;
}

bool HasReadableAlternativeNames(const X509& certificate)
{
    int isCritical = 0;
    const NamesPtr names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(&certificate, NID_subject_alt_name, &isCritical, nullptr)));
    if (names == nullptr)
        return isCritical == -1; // the extension is missing
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), i);
        const bool isText = name->type == GEN_DNS || name->type == GEN_EMAIL || name->type == GEN_URI;
        if (isText && HasNul(name->d.ia5->data, name->d.ia5->length))
            return false;
    }
    return true;
}

int PssDigest(const X509_ALGOR& algorithm)
{
    const PssParametersPtr parameters(static_cast<RSA_PSS_PARAMS*>(
        ASN1_TYPE_unpack_sequence(ASN1_ITEM_rptr(RSA_PSS_PARAMS), algorithm.parameter)));
    // The default digest is SHA-1.
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

bool HasUnknownCriticalExtension(X509_CRL& list)
{
    for (int i = -1; (i = X509_CRL_get_ext_by_critical(&list, 1, i)) >= 0;) {
        const int kind = OBJ_obj2nid(X509_EXTENSION_get_object(X509_CRL_get_ext(&list, i)));
        if (kind != NID_issuing_distribution_point && kind != NID_authority_key_identifier)
            return true;
    }
    const STACK_OF(X509_REVOKED)* const entries = X509_CRL_get_REVOKED(&list);
    for (int i = 0; i < sk_X509_REVOKED_num(entries); ++i) {
        if (X509_REVOKED_get_ext_by_critical(sk_X509_REVOKED_value(entries, i), 1, -1) >= 0)
            return true;
    }
    return false;
}

bool HasUsableScope(const X509_CRL& list)
{
    if (!IsPartial(list))
        return true;
    const ScopePtr scope(static_cast<ISSUING_DIST_POINT*>(
        X509_CRL_get_ext_d2i(&list, NID_issuing_distribution_point, nullptr, nullptr)));
    return scope != nullptr && scope->indirectCRL <= 0 && scope->onlysomereasons == nullptr &&
           (scope->onlyuser <= 0 || scope->onlyCA <= 0);
}

} // namespace

KeyHash HashKey(const X509& certificate)
{
    unsigned char* key = nullptr;
    const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(&certificate), &key);
    const BytesPtr owner(key);
    RequireDone(size > 0);
    KeyHash hash;
    RequireDone(
        EVP_Digest(key, static_cast<std::size_t>(size), hash.data(), nullptr, EVP_sha256(), nullptr) == 1);
    return hash;
}

YString SubjectText(const X509& certificate)
{
    return NameText(X509_get_subject_name(&certificate));
}

CertificateSummary Summarize(const X509& certificate)
{
    return {SubjectText(certificate), NameText(X509_get_issuer_name(&certificate)),
            Seconds(X509_get0_notBefore(&certificate)), Seconds(X509_get0_notAfter(&certificate)),
            HexText(HashKey(certificate))};
}

bool IsAuthority(X509& certificate)
{
    // X509_check_ca ignores the CA flag if the key usage does not allow signing.
    return X509_check_ca(&certificate) != 0 || (X509_get_extension_flags(&certificate) & EXFLAG_CA) != 0;
}

bool HasReadableNames(const X509& certificate)
{
    return !HasNulInSubject(certificate) && HasReadableAlternativeNames(certificate);
}

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

bool HasAllowedSignature(const X509& certificate)
{
    return IsAllowedSignature(*X509_get0_tbs_sigalg(&certificate));
}

bool HasAllowedSignature(const X509_CRL& list)
{
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(&list, nullptr, &algorithm);
    return IsAllowedSignature(*algorithm);
}

bool IsComplete(X509_CRL& list)
{
    return X509_CRL_get_ext_by_NID(&list, NID_delta_crl, -1) < 0 && !HasUnknownCriticalExtension(list) &&
           HasUsableScope(list);
}

bool IsPartial(const X509_CRL& list)
{
    return X509_CRL_get_ext_by_NID(&list, NID_issuing_distribution_point, -1) >= 0;
}

} // namespace Backup::OpenSSL
