#include "Backup/Core/OpenSSL/IssuerPaths.h"

#include <algorithm>

namespace Backup::OpenSSL {

namespace {

constexpr std::size_t MaxPresented = 100;
constexpr std::size_t MaxIssuers = 10;
constexpr std::size_t MaxPaths = 64;

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

void ExtendPath(X509& last, const std::vector<X509*>& issuers, IssuerPath& path,
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
        ExtendPath(*issuer, issuers, path, paths);
        path.pop_back();
    }
    if (!isExtended && paths.size() < MaxPaths)
        paths.push_back(path);
}

} // namespace

std::vector<IssuerPath> FindIssuerPaths(X509& server, const STACK_OF(X509) * presented)
{
    IssuerPath path;
    std::vector<IssuerPath> paths;
    ExtendPath(server, DistinctIssuers(server, presented), path, paths);
    return paths;
}

StackPtr MakeStack(const IssuerPath& path)
{
    StackPtr stack(sk_X509_new_null());
    RequireDone(stack != nullptr);
    for (X509* const certificate : path)
        RequireDone(sk_X509_push(stack.get(), certificate) > 0);
    return stack;
}

} // namespace Backup::OpenSSL
