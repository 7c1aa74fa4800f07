#include "Backup/Core/OpenSSL/RevocationLists.h"

#include "Backup/Core/OpenSSL/Strength.h"

namespace Backup::OpenSSL {

namespace {

using ScopePtr = std::unique_ptr<ISSUING_DIST_POINT, Freer<&ISSUING_DIST_POINT_free>>;

bool HasExtension(const X509_CRL& list, int kind)
{
    return X509_CRL_get_ext_by_NID(&list, kind, -1) >= 0;
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
    if (!HasExtension(list, NID_issuing_distribution_point))
        return true;
    const ScopePtr scope(static_cast<ISSUING_DIST_POINT*>(
        X509_CRL_get_ext_d2i(&list, NID_issuing_distribution_point, nullptr, nullptr)));
    return scope != nullptr && scope->indirectCRL <= 0 && scope->onlysomereasons == nullptr &&
           (scope->onlyuser <= 0 || scope->onlyCA <= 0);
}

int JudgeTimes(const X509_CRL& list, std::time_t now)
{
    const ASN1_TIME* const end = X509_CRL_get0_nextUpdate(&list);
    if (X509_cmp_time(X509_CRL_get0_lastUpdate(&list), &now) >= 0)
        return X509_V_ERR_CRL_NOT_YET_VALID;
    return end != nullptr && X509_cmp_time(end, &now) <= 0 ? X509_V_ERR_CRL_HAS_EXPIRED : X509_V_OK;
}

} // namespace

bool IsUsable(X509_CRL& list)
{
    return !HasExtension(list, NID_delta_crl) && !HasUnknownCriticalExtension(list) && HasUsableScope(list);
}

bool HasAllowedSignature(const X509_CRL& list)
{
    const X509_ALGOR* algorithm = nullptr;
    X509_CRL_get0_signature(&list, nullptr, &algorithm);
    return IsAllowedSignature(*algorithm);
}

int FindInLists(X509& certificate, const std::vector<RevocationListPtr>& lists, std::time_t now)
{
    int best = X509_V_ERR_UNABLE_TO_GET_CRL;
    for (const RevocationListPtr& list : lists) {
        if (X509_NAME_cmp(X509_CRL_get_issuer(list.get()), X509_get_issuer_name(&certificate)) != 0)
            continue;
        X509_REVOKED* entry = nullptr;
        if (X509_CRL_get0_by_cert(list.get(), &entry, &certificate) == 1)
            return X509_V_ERR_CERT_REVOKED;
        if (best != X509_V_OK && !HasExtension(*list, NID_issuing_distribution_point))
            best = JudgeTimes(*list, now);
    }
    return best;
}

} // namespace Backup::OpenSSL
