// What OpenSSL leaves to its callers in the use of revocation lists.
#pragma once

#include "Backup/Core/OpenSSL/Handles.h"

#include <ctime>
#include <vector>

namespace Backup::OpenSSL {

/// Whether OpenSSL goes by the list. It passes over others without a word, whatever they revoke: deltas,
/// lists for other issuers or for some reasons alone, lists with critical extensions that it doesn't know.
bool IsUsable(X509_CRL& list);

/// Returns true if the list's signature algorithm is strong enough, which OpenSSL does not check.
bool HasAllowedSignature(const X509_CRL& list);

/// OpenSSL's code for what the lists say of a certificate whose issuer is not at hand: they count as they
/// were supplied, since nothing is there to check their signatures by. X509_V_OK takes a list of all
/// certificates of the issuer that is valid at that time.
int FindInLists(X509& certificate, const std::vector<RevocationListPtr>& lists, std::time_t now);

} // namespace Backup::OpenSSL
