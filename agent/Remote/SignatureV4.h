// Signature Version 4 of Amazon Web Services, by which a client of S3 proves that it has a secret key. Any
// thread may call any function.
#pragma once

#include "agent/Http/Message.h"
#include "agent/Repository/Id.h"
#include "agent/Repository/Secret.h"

#include <ctime>
#include <string>
#include <utility>
#include <vector>

namespace Agent::Remote {

/// Who signs.
struct S3Credentials
{
    std::string accessKey;
    Repo::Secret secretKey;
    Repo::Secret sessionToken; ///< empty unless the keys are temporary
};

/// What is signed.
struct UnsignedRequest
{
    Http::Method method = Http::Method::Get;
    std::string path;                                       ///< percent-encoded
    std::vector<std::pair<std::string, std::string>> query; ///< names and values, not encoded
    std::string host;                                       ///< the value of the header Host
    std::vector<Http::Header> headers; ///< further ones that are signed; names in lower case
    Repo::Id contentHash;              ///< SHA-256 of the body
};

/// The query of a request: encoded and in the order in which it is signed.
std::string CanonicalQuery(const std::vector<std::pair<std::string, std::string>>& query);

/// The headers that the request needs except Host: its own, Authorization, x-amz-date, x-amz-content-sha256
/// and, with temporary keys, x-amz-security-token. `time` is that of sending, which a server compares with
/// its clock.
std::vector<Http::Header> SignedHeaders(const UnsignedRequest& request, const S3Credentials& credentials,
                                        const std::string& region, std::time_t time);

} // namespace Agent::Remote
