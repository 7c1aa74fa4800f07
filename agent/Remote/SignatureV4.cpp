#include "agent/Remote/SignatureV4.h"

#include "agent/Http/Address.h"

#include "Krt/Exception/Raise.h"

#include <openssl/evp.h>
#include <openssl/hmac.h>

#include <algorithm>
#include <array>

namespace Agent::Remote {

using Repo::AsBytes;
using Repo::ByteView;
using Repo::Id;
using Repo::Secret;

namespace {

constexpr std::string_view Algorithm = "AWS4-HMAC-SHA256";
constexpr std::string_view Prefix = "AWS4";
constexpr std::size_t SizeOfHeaders = 1024; // of those that are signed, at most, without the session token

// An HMAC with SHA-256 may be a key of the next one.
using Digest = std::array<unsigned char, Id::Size>;

Digest Mac(ByteView key, std::string_view text)
{
    Digest digest;
    unsigned int size = 0;
    const ByteView bytes = AsBytes(text);
    KRT_RAISE_UNLESS(HMAC(EVP_sha256(), key.data(), static_cast<int>(key.size()), bytes.data(), bytes.size(),
                          digest.data(), &size) != nullptr &&
                         size == digest.size(),
                     Krt::ErrorCode::CryptoFailure, "Failed to sign a request");
    return digest;
}

// The key for requests of one day, region and service.
Digest SigningKey(const Secret& secretKey, std::string_view date, std::string_view region)
{
    Secret first(Prefix.size() + secretKey.Size());
    std::copy(Prefix.begin(), Prefix.end(), first.Data().begin());
    std::copy(secretKey.View().begin(), secretKey.View().end(),
              first.Data().begin() + static_cast<std::ptrdiff_t>(Prefix.size()));
    Digest key = Mac(first.View(), date);
    for (const std::string_view part : {region, std::string_view("s3"), std::string_view("aws4_request")})
        key = Mac(key, part);
    return key;
}

// As in "20130524T000000Z".
std::string TimeOfSigning(std::time_t time)
{
    std::tm parts = {};
    gmtime_r(&time, &parts);
    char text[32];
    return std::string(text, std::strftime(text, sizeof(text), "%Y%m%dT%H%M%SZ", &parts));
}

std::string HexOf(const Digest& digest)
{
    Id id;
    id.bytes = digest;
    return id.ToHex();
}

} // namespace

std::string CanonicalQuery(const std::vector<std::pair<std::string, std::string>>& query)
{
    std::vector<std::pair<std::string, std::string>> encoded;
    encoded.reserve(query.size());
    for (const auto& [name, value] : query)
        encoded.emplace_back(Http::PercentEncode(name), Http::PercentEncode(value));
    std::sort(encoded.begin(), encoded.end());
    std::string text;
    for (const auto& [name, value] : encoded)
        text.append(text.empty() ? "" : "&").append(name).append("=").append(value);
    return text;
}

std::vector<Http::Header> SignedHeaders(const UnsignedRequest& request, const S3Credentials& credentials,
                                        const std::string& region, std::time_t time)
{
    const std::string stamp = TimeOfSigning(time);
    const std::string date = stamp.substr(0, 8);
    const std::string scope = date + "/" + region + "/s3/aws4_request";
    std::vector<Http::Header> headers = request.headers;
    headers.push_back({"x-amz-content-sha256", request.contentHash.ToHex()});
    headers.push_back({"x-amz-date", stamp});
    if (credentials.sessionToken.Size() != 0)
        headers.push_back(
            {"x-amz-security-token", std::string(Repo::AsText(credentials.sessionToken.View()))});

    const Http::Header host{"host", request.host};
    std::vector<const Http::Header*> all{&host};
    for (const Http::Header& header : headers)
        all.push_back(&header);
    std::sort(all.begin(), all.end(),
              [](const Http::Header* a, const Http::Header* b) { return a->name < b->name; });
    std::string canonical = std::string(Http::NameOf(request.method)) + "\n" + request.path + "\n" +
                            CanonicalQuery(request.query) + "\n";
    canonical.reserve(canonical.size() + SizeOfHeaders + credentials.sessionToken.Size()); // one copy
    std::string names;
    for (const Http::Header* const header : all) {
        canonical.append(header->name).append(":").append(header->value).append("\n");
        names.append(names.empty() ? "" : ";").append(header->name);
    }
    canonical.append("\n").append(names).append("\n").append(request.contentHash.ToHex());

    const std::string text =
        std::string(Algorithm) + "\n" + stamp + "\n" + scope + "\n" + Id::Of(AsBytes(canonical)).ToHex();
    Repo::Wipe({reinterpret_cast<unsigned char*>(canonical.data()), canonical.size()});
    Digest key = SigningKey(credentials.secretKey, date, region);
    const Digest signature = Mac(key, text);
    Repo::Wipe(key);
    headers.push_back({"Authorization", std::string(Algorithm) + " Credential=" + credentials.accessKey +
                                            "/" + scope + ",SignedHeaders=" + names +
                                            ",Signature=" + HexOf(signature)});
    return headers;
}

} // namespace Agent::Remote
