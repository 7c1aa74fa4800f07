#include "Backup/Core/OpenSSL/Judgement.h"

#include "Backup/Core/OpenSSL/IssuerPaths.h"
#include "Backup/Core/OpenSSL/RevocationLists.h"
#include "Backup/Core/OpenSSL/Strength.h"

#include <algorithm>
#include <cstring>
#include <ctime>

namespace Backup::OpenSSL {

namespace {

constexpr int SecurityLevel = 2; // of OpenSSL: 112 bits

bool Refuse(TrustReport& report, const char* reason, int depth, const X509* offender)
{
    report.reason = reason;
    report.depth = offender == nullptr ? -1 : depth;
    report.subject = offender == nullptr ? Krt::YString() : SubjectText(*offender);
    return false;
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
        // Wide characters have bytes of 0 in them.
        const int size = ASN1_STRING_to_UTF8(&text, X509_NAME_ENTRY_get_data(X509_NAME_get_entry(name, i)));
        const bool found = HasNul(text, size);
        OPENSSL_free(text);
        if (found)
            return true;
    }
    return false;
}

bool HasBadAlternativeName(const X509& certificate)
{
    int isCritical = 0;
    const NamesPtr names(static_cast<GENERAL_NAMES*>(
        X509_get_ext_d2i(&certificate, NID_subject_alt_name, &isCritical, nullptr)));
    if (names == nullptr)
        return isCritical != -1; // what stands there can't be read
    for (int i = 0; i < sk_GENERAL_NAME_num(names.get()); ++i) {
        const GENERAL_NAME* const name = sk_GENERAL_NAME_value(names.get(), i);
        const bool isText = name->type == GEN_DNS || name->type == GEN_EMAIL || name->type == GEN_URI;
        if (isText && HasNul(name->d.ia5->data, name->d.ia5->length))
            return true;
    }
    return false;
}

// Why the server's certificate isn't to be trusted whoever issued it, or null.
const char* FindFault(X509& server, const Terms& terms)
{
    // X509_check_ca takes one whose key usage doesn't let it sign for none.
    if (X509_check_ca(&server) != 0 || (X509_get_extension_flags(&server) & EXFLAG_CA) != 0)
        return "the certificate is an authority's, not a server's";
    if (HasNulInSubject(server) || HasBadAlternativeName(server))
        return "a name in the certificate holds a NUL byte or can't be read";
    if (terms.pin && HashKey(server) != *terms.pin)
        return "the public key is not the pinned one";
    // OpenSSL takes an anchor's signature for granted, also if the anchor is the server's own certificate.
    if (!IsAllowedSignature(*X509_get0_tbs_sigalg(&server)))
        return "the certificate's signature algorithm is too weak or unknown";
    return nullptr;
}

int JudgePinnedByLists(X509& server, const Terms& terms)
{
    if (terms.lists.empty())
        return X509_V_OK;
    const std::time_t now = terms.time ? static_cast<std::time_t>(*terms.time) : std::time(nullptr);
    return FindInLists(server, terms.lists, now);
}

// OpenSSL holds the certificate's names against the constraints: "*.example" passes where "a.example" is
// excluded. So the name that the server was reached by is held against them, too.
int JudgeConstraints(STACK_OF(X509) * path, const std::string& host)
{
    if (host.empty())
        return X509_V_OK;
    const CertificatePtr bearer(X509_new());
    const ExtensionPtr name(
        X509V3_EXT_nconf_nid(nullptr, nullptr, NID_subject_alt_name, ("DNS:" + host).c_str()));
    RequireDone(bearer != nullptr && name != nullptr && X509_add_ext(bearer.get(), name.get(), -1) == 1);
    // Asking for the flags puts the name where the constraints are applied to it.
    RequireDone((X509_get_extension_flags(bearer.get()) & EXFLAG_INVALID) == 0);
    for (int i = 1; i < sk_X509_num(path); ++i) {
        int isCritical = 0;
        const ConstraintsPtr constraints(static_cast<NAME_CONSTRAINTS*>(
            X509_get_ext_d2i(sk_X509_value(path, i), NID_name_constraints, &isCritical, nullptr)));
        RequireDone(constraints != nullptr || isCritical == -1);
        const int found =
            constraints == nullptr ? X509_V_OK : NAME_CONSTRAINTS_check(bearer.get(), constraints.get());
        if (found != X509_V_OK)
            return found;
    }
    return X509_V_OK;
}

StorePtr MakeStore(X509& server, const Terms& terms)
{
    StorePtr store(X509_STORE_new());
    RequireDone(store != nullptr);
    if (terms.pin)
        RequireDone(X509_STORE_add_cert(store.get(), &server) == 1);
    else if (terms.anchors.empty())
        RequireDone(X509_STORE_set_default_paths(store.get()) == 1);
    for (const CertificatePtr& anchor : terms.anchors)
        RequireDone(X509_STORE_add_cert(store.get(), anchor.get()) == 1);
    for (const RevocationListPtr& list : terms.lists)
        RequireDone(X509_STORE_add_crl(store.get(), list.get()) == 1);
    return store;
}

// Above the server's certificate no list is needed of an issuer of whom none was supplied, nor for the
// anchor.
bool NeedsList(X509_STORE_CTX* context)
{
    const int depth = X509_STORE_CTX_get_error_depth(context);
    if (depth == 0 || depth == sk_X509_num(X509_STORE_CTX_get0_chain(context)) - 1)
        return depth == 0;
    const auto& terms = *static_cast<const Terms*>(X509_STORE_CTX_get_app_data(context));
    const X509_NAME* const issuer = X509_get_issuer_name(X509_STORE_CTX_get_current_cert(context));
    return std::any_of(terms.lists.begin(), terms.lists.end(), [issuer](const RevocationListPtr& list) {
        return X509_NAME_cmp(X509_CRL_get_issuer(list.get()), issuer) == 0;
    });
}

int OnFinding(int isFine, X509_STORE_CTX* context)
{
    if (isFine != 0 || X509_STORE_CTX_get_error(context) != X509_V_ERR_UNABLE_TO_GET_CRL ||
        NeedsList(context))
        return isFine;
    X509_STORE_CTX_set_error(context, X509_V_OK);
    return 1;
}

void SetTerms(X509_STORE_CTX* context, const Terms& terms)
{
    unsigned long flags = X509_V_FLAG_X509_STRICT;
    if (terms.pin || !terms.anchors.empty())
        flags |= X509_V_FLAG_PARTIAL_CHAIN;
    if (!terms.pin && !terms.lists.empty())
        flags |= X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;
    X509_VERIFY_PARAM* const parameters = X509_STORE_CTX_get0_param(context);
    X509_VERIFY_PARAM_set_auth_level(parameters, SecurityLevel);
    X509_VERIFY_PARAM_set_hostflags(parameters, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT |
                                                    X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (terms.time)
        X509_VERIFY_PARAM_set_time(parameters, static_cast<std::time_t>(*terms.time));
    const ServerName& name = terms.name;
    const bool isNameSet =
        name.address.empty()
            ? X509_VERIFY_PARAM_set1_host(parameters, name.host.data(), name.host.size()) == 1
            : X509_VERIFY_PARAM_set1_ip(parameters,
                                        reinterpret_cast<const unsigned char*>(name.address.data()),
                                        name.address.size()) == 1;
    RequireDone(isNameSet && X509_VERIFY_PARAM_set_flags(parameters, flags) == 1 &&
                X509_STORE_CTX_set_purpose(context, X509_PURPOSE_SSL_SERVER) == 1 &&
                X509_STORE_CTX_set_app_data(context, const_cast<Terms*>(&terms)) == 1);
    X509_STORE_CTX_set_verify_cb(context, &OnFinding);
}

bool VerifyPath(X509_STORE* store, X509& server, STACK_OF(X509) * presented, const Terms& terms,
                TrustReport& report)
{
    const ContextPtr context(X509_STORE_CTX_new());
    RequireDone(context != nullptr &&
                X509_STORE_CTX_init(context.get(), store, &server, terms.pin ? nullptr : presented) == 1);
    SetTerms(context.get(), terms);
    if (X509_verify_cert(context.get()) == 1) {
        const STACK_OF(X509)* const path = X509_STORE_CTX_get0_chain(context.get());
        for (int i = 0; i < sk_X509_num(path); ++i) {
            if (!HasAllowedKey(*sk_X509_value(path, i)))
                return Refuse(report,
                              X509_verify_cert_error_string(i == 0 ? X509_V_ERR_EE_KEY_TOO_SMALL
                                                                   : X509_V_ERR_CA_KEY_TOO_SMALL),
                              i, sk_X509_value(path, i));
        }
        const int found = terms.pin
                              ? JudgePinnedByLists(server, terms)
                              : JudgeConstraints(X509_STORE_CTX_get0_chain(context.get()), terms.name.host);
        return found == X509_V_OK || Refuse(report, X509_verify_cert_error_string(found), 0, &server);
    }
    const int error = X509_STORE_CTX_get_error(context.get());
    RequireDone(error != X509_V_ERR_OUT_OF_MEM && error != X509_V_ERR_STORE_LOOKUP);
    return Refuse(report, X509_verify_cert_error_string(error),
                  std::max(X509_STORE_CTX_get_error_depth(context.get()), 0),
                  X509_STORE_CTX_get_current_cert(context.get()));
}

// Tries the presented certificates as they were sent. OpenSSL follows the first issuer that fits and does not
// go back if its path fails, so other paths through them are tried next. A refusal keeps the first reason.
bool Verify(X509& server, STACK_OF(X509) * presented, const Terms& terms, TrustReport& report)
{
    const StorePtr store = MakeStore(server, terms);
    if (VerifyPath(store.get(), server, presented, terms, report))
        return true;
    if (terms.pin)
        return false;
    const std::vector<IssuerPath> paths = FindIssuerPaths(server, presented);
    const bool isTrusted =
        paths.size() > 1 && std::any_of(paths.begin(), paths.end(), [&](const IssuerPath& path) {
            TrustReport ignored;
            return VerifyPath(store.get(), server, MakeStack(path).get(), terms, ignored);
        });
    if (isTrusted)
        report = TrustReport{{}, {}, -1, report.server};
    return isTrusted;
}

} // namespace

bool Judge(X509& server, STACK_OF(X509) * chain, const Terms& terms, TrustReport& report)
{
    report.server = Summarize(server);
    if (const char* const fault = FindFault(server, terms))
        return Refuse(report, fault, 0, &server);
    return Verify(server, chain, terms, report);
}

} // namespace Backup::OpenSSL
