// The paths that lead up from a server's certificate through the certificates that were presented with it.
#pragma once

#include "Backup/Core/OpenSSL/Handles.h"

#include <vector>

namespace Backup::OpenSSL {

/// The issuer of the server's certificate first, then each next issuer. The certificates are borrowed.
using IssuerPath = std::vector<X509*>;

/// Returns every path by names and key identifiers, in the order of `presented`, each as long as it gets. The
/// search is bounded: it uses the first 100 certificates, follows 10 issuers, and ends after 64 paths.
/// Signatures are not checked. `presented` may be null.
std::vector<IssuerPath> FindIssuerPaths(X509& server, const STACK_OF(X509) * presented);

/// Returns a stack of the path's certificates, which it does not own.
StackPtr MakeStack(const IssuerPath& path);

} // namespace Backup::OpenSSL
