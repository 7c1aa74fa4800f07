#include "Backup/Core/OpenSSL/Verify.h"

#include <algorithm>
#include <ctime>

namespace Backup::OpenSSL {

namespace {

constexpr int SecurityLevel = 2; // of OpenSSL: 112 bits
constexpr std::size_t MaxPresented = 100;
constexpr std::size_t MaxIssuers = 10;
constexpr std::size_t MaxPaths = 64;

using IssuerPath = std::vector<X509*>; // the issuer of the server's certificate first; borrowed

// Copies would multiply the paths.
std::vector<X509*> DistinctIssuers(X509& server, const STACK_OF(X509) * presented)
{
    std::vector<X509*> issuers = {&server};
    for (int i = 0; i < sk_X509_num(presented) && issuers.size() <= MaxPresented; ++i) {
        X509* const next = sk_X509_value(presented, i);
        const auto isCopy = [next](X509* known) {
            return X509_cmp(known, next) == 0;
        };
        if (std::none_of(issuers.begin(), issuers.end(), isCopy))
            issuers.push_back(next);
    }
    issuers.erase(issuers.begin());
    return issuers;
}

// Appends all paths that continue `path`, whose last certificate is `last`, each as long as possible.
void AppendPaths(X509& last, const std::vector<X509*>& issuers, IssuerPath& path,
                 std::vector<IssuerPath>& paths)
{
    bool isExtended = false;
    for (X509* const issuer : issuers) {
        if (path.size() == MaxIssuers || paths.size() == MaxPaths)
            break;
        if (std::find(path.begin(), path.end(), issuer) != path.end() ||
            X509_check_issued(issuer, &last) != X509_V_OK)
            continue;
        isExtended = true;
        path.push_back(issuer);
        AppendPaths(*issuer, issuers, path, paths);
        path.pop_back();
    }
    if (!isExtended && paths.size() < MaxPaths)
        paths.push_back(path);
}

// Returns the paths by names, key identifiers and the key usage of issuers; signatures are not checked. A
// single path is not superfluous: OpenSSL ignores the key usage while it chooses an issuer.
std::vector<IssuerPath> FindPaths(X509& server, const STACK_OF(X509) * presented)
{
    IssuerPath path;
    std::vector<IssuerPath> paths;
    AppendPaths(server, DistinctIssuers(server, presented), path, paths);
    return paths;
}

StorePtr MakeStore(X509& server, const VerifyParameters& parameters)
{
    StorePtr store(X509_STORE_new());
    RequireDone(store != nullptr);
    if (parameters.pin)
        RequireDone(X509_STORE_add_cert(store.get(), &server) == 1);
    else if (parameters.anchors.empty())
        RequireDone(X509_STORE_set_default_paths(store.get()) == 1);
    for (const CertificatePtr& anchor : parameters.anchors)
        RequireDone(X509_STORE_add_cert(store.get(), anchor.get()) == 1);
    for (const RevocationListPtr& list : parameters.lists)
        RequireDone(X509_STORE_add_crl(store.get(), list.get()) == 1);
    return store;
}

// A list is required of the server's issuer, never for the anchor, and otherwise of issuers with any list.
bool RequiresList(X509_STORE_CTX* context)
{
    const int depth = X509_STORE_CTX_get_error_depth(context);
    if (depth == 0 || depth == sk_X509_num(X509_STORE_CTX_get0_chain(context)) - 1)
        return depth == 0;
    const auto& parameters = *static_cast<const VerifyParameters*>(X509_STORE_CTX_get_app_data(context));
    const X509_NAME* const issuer = X509_get_issuer_name(X509_STORE_CTX_get_current_cert(context));
    return std::any_of(parameters.lists.begin(), parameters.lists.end(),
                       [issuer](const RevocationListPtr& list) {
                           return X509_NAME_cmp(X509_CRL_get_issuer(list.get()), issuer) == 0;
                       });
}

int AllowMissingLists(int isOk, X509_STORE_CTX* context)
{
    if (isOk != 0 || X509_STORE_CTX_get_error(context) != X509_V_ERR_UNABLE_TO_GET_CRL ||
        RequiresList(context))
        return isOk;
    X509_STORE_CTX_set_error(context, X509_V_OK);
    return 1;
}

void SetParameters(X509_STORE_CTX* context, const VerifyParameters& parameters)
{
    unsigned long flags = X509_V_FLAG_X509_STRICT;
    if (parameters.pin || !parameters.anchors.empty())
        flags |= X509_V_FLAG_PARTIAL_CHAIN;
    if (!parameters.pin && !parameters.lists.empty())
        flags |= X509_V_FLAG_CRL_CHECK | X509_V_FLAG_CRL_CHECK_ALL;
    X509_VERIFY_PARAM* const target = X509_STORE_CTX_get0_param(context);
    X509_VERIFY_PARAM_set_auth_level(target, SecurityLevel);
    X509_VERIFY_PARAM_set_hostflags(target, X509_CHECK_FLAG_NEVER_CHECK_SUBJECT |
                                                X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    if (parameters.time)
        X509_VERIFY_PARAM_set_time(target, static_cast<std::time_t>(*parameters.time));
    const ServerName& name = parameters.name;
    const auto* const address = reinterpret_cast<const unsigned char*>(name.address.data());
    const bool isNameSet = name.address.empty()
                               ? X509_VERIFY_PARAM_set1_host(target, name.host.data(), name.host.size()) == 1
                               : X509_VERIFY_PARAM_set1_ip(target, address, name.address.size()) == 1;
    RequireDone(isNameSet && X509_VERIFY_PARAM_set_flags(target, flags) == 1 &&
                X509_STORE_CTX_set_purpose(context, X509_PURPOSE_SSL_SERVER) == 1 &&
                X509_STORE_CTX_set_app_data(context, const_cast<VerifyParameters*>(&parameters)) == 1);
    X509_STORE_CTX_set_verify_cb(context, &AllowMissingLists);
}

VerifyResult CheckServerCertificate(X509& server, const VerifyParameters& parameters)
{
    if (IsAuthority(server))
        return VerifyResult::Fault("the certificate is an authority's, not a server's", &server);
    if (!HasReadableNames(server))
        return VerifyResult::Fault("a name in the certificate contains a NUL byte or can't be read", &server);
    if (parameters.pin && HashKey(server) != *parameters.pin)
        return VerifyResult::Fault("the public key is not the pinned one", &server);
    // OpenSSL does not check the signature of an anchor, even if it is the server's own certificate.
    if (!HasAllowedSignature(server))
        return VerifyResult::Fault("the certificate's signature algorithm is too weak or unknown", &server);
    return VerifyResult::Ok();
}

VerifyResult BuildAndVerifyChain(X509_STORE_CTX* context)
{
    if (X509_verify_cert(context) == 1)
        return VerifyResult::Ok();
    const int error = X509_STORE_CTX_get_error(context);
    RequireDone(error != X509_V_ERR_OUT_OF_MEM && error != X509_V_ERR_STORE_LOOKUP);
    return VerifyResult::OpenSslError(error, std::max(X509_STORE_CTX_get_error_depth(context), 0),
                                      X509_STORE_CTX_get_current_cert(context));
}

VerifyResult CheckKeys(const STACK_OF(X509) * chain)
{
    for (int i = 0; i < sk_X509_num(chain); ++i) {
        const X509* const certificate = sk_X509_value(chain, i);
        if (!HasAllowedKey(*certificate))
            return VerifyResult::OpenSslError(
                i == 0 ? X509_V_ERR_EE_KEY_TOO_SMALL : X509_V_ERR_CA_KEY_TOO_SMALL, i, certificate);
    }
    return VerifyResult::Ok();
}

int CheckListTimes(const X509_CRL& list, std::time_t now)
{
    const ASN1_TIME* const end = X509_CRL_get0_nextUpdate(&list);
    if (X509_cmp_time(X509_CRL_get0_lastUpdate(&list), &now) >= 0)
        return X509_V_ERR_CRL_NOT_YET_VALID;
    return end != nullptr && X509_cmp_time(end, &now) <= 0 ? X509_V_ERR_CRL_HAS_EXPIRED : X509_V_OK;
}

// The issuer of a pinned certificate is not known, so the signatures of its lists cannot be checked.
VerifyResult CheckRevocationOfPinned(X509& server, const VerifyParameters& parameters)
{
    const std::time_t now = parameters.time ? static_cast<std::time_t>(*parameters.time) : std::time(nullptr);
    int best = parameters.lists.empty() ? X509_V_OK : X509_V_ERR_UNABLE_TO_GET_CRL;
    for (const RevocationListPtr& list : parameters.lists) {
        if (X509_NAME_cmp(X509_CRL_get_issuer(list.get()), X509_get_issuer_name(&server)) != 0)
            continue;
        X509_REVOKED* entry = nullptr;
        if (X509_CRL_get0_by_cert(list.get(), &entry, &server) == 1)
            return VerifyResult::OpenSslError(X509_V_ERR_CERT_REVOKED, 0, &server);
        if (best != X509_V_OK && !IsPartial(*list))
            best = CheckListTimes(*list, now);
    }
    return best == X509_V_OK ? VerifyResult::Ok() : VerifyResult::OpenSslError(best, 0, &server);
}

// OpenSSL applies the constraints to the names of the certificate: "*.example" passes although "a.example" is
// excluded. They are therefore applied to the name by which the server was reached, too.
VerifyResult CheckNameConstraints(const STACK_OF(X509) * chain, const std::string& host)
{
    if (host.empty())
        return VerifyResult::Ok();
    const CertificatePtr bearer(X509_new());
    const ExtensionPtr name(
        X509V3_EXT_nconf_nid(nullptr, nullptr, NID_subject_alt_name, ("DNS:" + host).c_str()));
    RequireDone(bearer != nullptr && name != nullptr && X509_add_ext(bearer.get(), name.get(), -1) == 1);
    // Querying the flags makes OpenSSL cache the name, which NAME_CONSTRAINTS_check reads.
    RequireDone((X509_get_extension_flags(bearer.get()) & EXFLAG_INVALID) == 0);
    for (int i = 1; i < sk_X509_num(chain); ++i) {
        int isCritical = 0;
        const ConstraintsPtr constraints(static_cast<NAME_CONSTRAINTS*>(
            X509_get_ext_d2i(sk_X509_value(chain, i), NID_name_constraints, &isCritical, nullptr)));
        RequireDone(constraints != nullptr || isCritical == -1);
        const int error =
            constraints == nullptr ? X509_V_OK : NAME_CONSTRAINTS_check(bearer.get(), constraints.get());
        if (error != X509_V_OK)
            return VerifyResult::OpenSslError(error, 0, sk_X509_value(chain, 0));
    }
    return VerifyResult::Ok();
}

} // namespace

VerifyResult VerifyResult::OpenSslError(int code, int depth, const X509* certificate)
{
    if (certificate == nullptr)
        return {X509_verify_cert_error_string(code), -1, {}};
    return {X509_verify_cert_error_string(code), depth, SubjectText(*certificate)};
}

VerifyResult VerifyResult::Fault(const char* reason, const X509* server)
{
    return server == nullptr ? VerifyResult{reason, -1, {}} : VerifyResult{reason, 0, SubjectText(*server)};
}

VerifyResult VerifyServer(X509& server, STACK_OF(X509) * presented, const VerifyParameters& parameters)
{
    if (VerifyResult result = CheckServerCertificate(server, parameters); !result.IsOk())
        return result;

    const StorePtr store = MakeStore(server, parameters);
    const auto verifyPath = [&](STACK_OF(X509) * issuers) {
        const ContextPtr context(X509_STORE_CTX_new());
        RequireDone(context != nullptr &&
                    X509_STORE_CTX_init(context.get(), store.get(), &server, issuers) == 1);
        SetParameters(context.get(), parameters);
        if (VerifyResult result = BuildAndVerifyChain(context.get()); !result.IsOk())
            return result;
        const STACK_OF(X509)* const chain = X509_STORE_CTX_get0_chain(context.get());
        if (VerifyResult result = CheckKeys(chain); !result.IsOk())
            return result;
        if (parameters.pin)
            return CheckRevocationOfPinned(server, parameters);
        return CheckNameConstraints(chain, parameters.name.host);
    };
    if (parameters.pin)
        return verifyPath(nullptr);
    VerifyResult result = verifyPath(presented);
    if (result.IsOk())
        return result;
    // OpenSSL follows the first issuer that matches and does not go back if that path fails.
    for (const IssuerPath& path : FindPaths(server, presented)) {
        if (verifyPath(MakeStack(path).get()).IsOk())
            return VerifyResult::Ok();
    }
    return result;
}

StackPtr MakeStack(const std::vector<X509*>& certificates)
{
    StackPtr stack(sk_X509_new_null());
    RequireDone(stack != nullptr);
    for (X509* const certificate : certificates)
        RequireDone(sk_X509_push(stack.get(), certificate) > 0);
    return stack;
}

} // namespace Backup::OpenSSL
