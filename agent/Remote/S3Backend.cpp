#include "agent/Remote/S3Backend.h"

#include "agent/Remote/Answer.h"
#include "agent/Remote/XmlText.h"
#include "agent/Repository/Failure.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <unordered_set>
#include <utility>
#include <vector>

namespace Agent::Remote {

using Http::Method;
using Http::Response;
using Krt::YString;
using Repo::Bytes;
using Repo::ByteView;
using Repo::Failure;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;

namespace {

constexpr std::string_view AmazonDomains[] = {".amazonaws.com", ".amazonaws.com.cn"};
constexpr const char* DefaultRegion = "us-east-1";
constexpr std::uint64_t PageLimit = 16 << 20; // bytes; a page has at most 1000 objects
constexpr unsigned int MostPages = 1 << 16;
constexpr int BadRequest = 400;
constexpr int Conflict = 409;
constexpr int PreconditionFailed = 412;
constexpr int NotImplemented = 501;

// The content of the body of a failure.
struct S3Error
{
    std::string code;
    std::string message;
    std::string region;
};

S3Error ParseError(ByteView body)
{
    S3Error error;
    try {
        ReadXml(Repo::AsText(body),
                [&error](std::string_view parent, std::string_view name, std::string_view text) {
                    if (parent != "Error")
                        return;
                    if (name == "Code")
                        error.code = text;
                    else if (name == "Message")
                        error.message = text;
                    else if (name == "Region")
                        error.region = text;
                });
    } catch (const Repo::RepositoryError&) {
        // A proxy may have sent it.
    }
    return error;
}

std::uint64_t RequireNumber(std::string_view text)
{
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    REPOSITORY_RAISE_UNLESS(error == std::errc() && stop == end && !text.empty(), Failure::Backend,
                            "the server sent a list with a wrong number");
    return number;
}

bool IsTemporary(int status, std::string_view body)
{
    if (status != BadRequest && status != Conflict)
        return false;
    const std::string code = ParseError(Repo::AsBytes(body)).code;
    return code == "RequestTimeout" || code == "OperationAborted" || code == "ConditionalRequestConflict";
}

// Returns true if the server may lack If-None-Match for PUT.
bool IsConditionRefused(const Response& response, ByteView body)
{
    const std::string code = response.status == BadRequest ? ParseError(body).code : "";
    return response.status == NotImplemented || code == "NotImplemented" || code == "InvalidArgument";
}

// What a host of Amazon has before its domain; nothing for another host.
std::optional<std::string_view> ServiceOf(std::string_view host)
{
    for (const std::string_view domain : AmazonDomains) {
        if (host.ends_with(domain))
            return host.substr(0, host.size() - domain.size());
    }
    return std::nullopt;
}

bool IsBucketInHost(const S3Location& location)
{
    if (location.lookup != BucketLookup::Auto)
        return location.lookup == BucketLookup::Dns;
    // A certificate for *.s3.amazonaws.com is not one for a name with a further dot.
    return ServiceOf(location.server.host) && location.bucket.find('.') == std::string::npos;
}

Http::Address ServerOf(const S3Location& location)
{
    Http::Address server;
    server.isSecure = location.server.isSecure;
    server.host = (IsBucketInHost(location) ? location.bucket + "." : "") + location.server.host;
    server.port = location.server.port;
    return server;
}

} // namespace

std::string RegionOfHost(std::string_view host)
{
    std::string_view region = ServiceOf(host).value_or("");
    const auto drop = [&region](std::string_view prefix) {
        const bool isThere = region.starts_with(prefix);
        region.remove_prefix(isThere ? prefix.size() : 0);
        return isThere;
    };
    const bool isKnown = drop("s3.dualstack.") || drop("s3.") || drop("s3-");
    // The names s3-external-1 and s3-accelerate have no region.
    return isKnown && std::count(region.begin(), region.end(), '-') >= 2 && region.find('.') == region.npos
               ? std::string(region)
               : DefaultRegion;
}

struct S3Backend::Page
{
    std::vector<std::pair<Id, std::uint64_t>> files;
    bool isTruncated = false;
    std::string nextToken;
};

S3Backend::S3Backend(S3Location location, S3Credentials credentials, Http::ClientSettings settings,
                     std::function<std::time_t()> clock)
    : m_location(std::move(location)), m_credentials(std::move(credentials)),
      m_region(m_location.region.empty() ? RegionOfHost(m_location.server.host) : m_location.region),
      m_isBucketInHost(IsBucketInHost(m_location)), m_server(ServerOf(m_location)), m_clock(std::move(clock)),
      m_client(m_server, std::move(settings))
{}

YString S3Backend::Describe() const
{
    std::string text = "s3:" + m_location.server.Origin() + "/" + m_location.bucket;
    if (!m_location.prefix.empty())
        text += "/" + m_location.prefix;
    return YString(std::string_view(text));
}

// The key of the object.
std::string S3Backend::PathOf(const FileName& file) const
{
    return (m_location.prefix.empty() ? "" : m_location.prefix + "/") + file.Path();
}

Response S3Backend::Send(const Call& call, Bytes& body)
{
    UnsignedRequest unsignedRequest;
    unsignedRequest.method = call.method;
    unsignedRequest.path = "/" + Http::PercentEncode(call.path, "/");
    if (!m_isBucketInHost)
        unsignedRequest.path =
            "/" + Http::PercentEncode(m_location.bucket) + (call.path.empty() ? "" : unsignedRequest.path);
    unsignedRequest.query = call.query;
    unsignedRequest.host = m_server.HostAndPort();
    unsignedRequest.headers = call.headers;
    unsignedRequest.contentHash = Id::Of(call.content);

    Http::Request request = RequestOf(call, unsignedRequest.path);
    request.isTemporary = IsTemporary;
    request.makeHeaders = [&] {
        return SignedHeaders(unsignedRequest, m_credentials, m_region, m_clock());
    };
    return m_client.Send(request, body);
}

bool S3Backend::IsMissing(const Response& response, ByteView body) const
{
    return ServerBackend::IsMissing(response, body) && ParseError(body).code != "NoSuchBucket";
}

void S3Backend::RaiseRefused(const Response& response, ByteView body, const Call& call)
{
    if (call.method == Method::Head) { // its response has no body, which would name the reason
        const Call get{.path = call.path, .headers = {{"range", "bytes=0-0"}}, .limit = 1};
        Bytes explanation;
        const Response explained = Send(get, explanation);
        RaiseRefused(explained.IsSuccess() ? response : explained, explanation, get);
    }
    const S3Error error = ParseError(body);
    const YString host(std::string_view(m_server.HostAndPort()));
    const YString bucket(std::string_view(m_location.bucket));
    REPOSITORY_RAISE_UNLESS(error.code != "NoSuchBucket", Failure::NoRepository,
                            host << ": the bucket " << bucket << " does not exist");
    std::string text;
    const std::string_view bucketRegion = response.Find("x-amz-bucket-region");
    const std::string region = Quoted(error.region.empty() ? bucketRegion : std::string_view(error.region));
    if (error.code == "AccessDenied") {
        text = std::string("the user of the access key may not ") + Http::NameOf(call.method) +
               (call.path.empty() ? " the bucket" : " this object") +
               "; the policies of the user and of the bucket decide that";
    } else if (error.code == "InvalidAccessKeyId") {
        text = "the server does not know the access key";
    } else if (error.code == "SignatureDoesNotMatch") {
        text = "the secret key is not that of the access key";
    } else if (error.code == "ExpiredToken" || error.code == "InvalidToken") {
        text = "the session token is not valid, or has expired";
    } else if (error.code == "RequestTimeTooSkewed") {
        text =
            "the clocks of this machine and of the server differ by more than the server accepts; its time "
            "is " +
            Quoted(response.Find("date"));
    } else if (!region.empty() && region != m_region) {
        text = "the bucket is in the region " + region + ", not in " + m_region +
               "; set AWS_REGION or -o s3.region=" + region;
    } else if (error.code == "AuthorizationHeaderMalformed") {
        text = "the region " + m_region +
               " is wrong; set AWS_REGION or -o s3.region. The server answered: " + Quoted(error.message);
    } else {
        text = "the server answered " + StatusText(response.status);
        if (!error.code.empty())
            text +=
                " (" + Quoted(error.code) + (error.message.empty() ? "" : ": " + Quoted(error.message)) + ")";
    }
    if (error.code == "AccessDenied") // a repository that can't be written may be read
        KRT_RAISE_OS(EACCES, host << ": " << YString(std::string_view(text)));
    REPOSITORY_RAISE(Failure::Backend, host << ": " << YString(std::string_view(text)));
}

void S3Backend::Prepare()
{
    const auto where = [this] {
        return Describe() + ": ";
    };
    Repo::Named(where, [this] {
        const Call call{.query = {{"list-type", "2"}, {"max-keys", "1"}}, .limit = PageLimit};
        Bytes body;
        const Response response = Send(call, body);
        const std::string code = response.IsSuccess() ? "" : ParseError(body).code;
        if (code == "NoSuchBucket")
            CreateBucket();
        else if (code != "AccessDenied")
            RequireSuccess(response, body, call);
    });
}

void S3Backend::CreateBucket()
{
    std::string configuration;
    if (m_region != DefaultRegion)
        configuration = "<CreateBucketConfiguration "
                        "xmlns=\"http://s3.amazonaws.com/doc/2006-03-01/\"><LocationConstraint>" +
                        m_region + "</LocationConstraint></CreateBucketConfiguration>";
    const Call call{.method = Method::Put, .content = Repo::AsBytes(configuration)};
    Bytes body;
    const Response response = Send(call, body);
    if (response.status != Conflict || ParseError(body).code != "BucketAlreadyOwnedByYou")
        RequireSuccess(response, body, call);
}

// Returns false if there are no more pages.
bool S3Backend::LoadPage(FileKind kind, const std::string& token, Page& page)
{
    const std::string folder = PathOf({kind, {}});
    const std::size_t idDigits = Id::Digits;
    // Packs are one level deeper than other files.
    const std::size_t folderSize = folder.size() - idDigits - (kind == FileKind::Pack ? 3 : 0);
    Call call{.query = {{"list-type", "2"}, {"prefix", folder.substr(0, folderSize)}}, .limit = PageLimit};
    if (kind != FileKind::Pack)
        call.query.emplace_back("delimiter", "/");
    if (!token.empty())
        call.query.emplace_back("continuation-token", token);
    Bytes body;
    const Response response = Send(call, body);
    RequireSuccess(response, body, call);
    REPOSITORY_RAISE_UNLESS(!response.isTooLong, Failure::Backend,
                            "the server sent more than " << PageLimit << " bytes of a list");
    std::string key, size;
    std::string isTruncated; // "true" or "false"
    std::uint64_t entries = 0;
    std::optional<std::uint64_t> announced;
    ReadXml(Repo::AsText(body), [&](std::string_view parent, std::string_view name, std::string_view text) {
        const bool isOfList = parent == "ListBucketResult";
        REPOSITORY_RAISE_UNLESS(!parent.empty() || name == "ListBucketResult", Failure::Backend,
                                "the server sent another document than a list of objects");
        if (parent == "Contents" && name == "Key") {
            key = text;
        } else if (parent == "Contents" && name == "Size") {
            size = text;
        } else if (isOfList && name == "Contents") {
            const std::optional<Id> id =
                key.size() < idDigits ? std::nullopt : Id::FromHex(key.substr(key.size() - idDigits));
            if (id && PathOf({kind, *id}) == key)
                page.files.emplace_back(*id, RequireNumber(size));
            ++entries;
            key.clear();
            size.clear();
        } else if (isOfList && name == "CommonPrefixes") {
            ++entries;
        } else if (isOfList && name == "KeyCount") {
            announced = RequireNumber(text);
        } else if (isOfList && name == "IsTruncated") {
            isTruncated = text;
        } else if (isOfList && name == "NextContinuationToken") {
            page.nextToken = text;
        }
    });
    // An object that is missing in a list counts as removed.
    REPOSITORY_RAISE_UNLESS((isTruncated == "true" || isTruncated == "false") &&
                                announced.value_or(entries) == entries,
                            Failure::Backend, "the server sent a list that is not complete");
    page.isTruncated = isTruncated == "true";
    REPOSITORY_RAISE_UNLESS(!page.isTruncated || !page.nextToken.empty(), Failure::Backend,
                            "the server sent a list that does not go on");
    return page.isTruncated;
}

void S3Backend::List(FileKind kind, const std::function<void(const Id& id, std::uint64_t size)>& visit)
{
    std::string token;
    std::unordered_set<Id, Repo::IdHash> tokens; // their SHA-256, since a server may send long ones
    std::size_t files = 0;
    const auto where = [this] {
        return Describe() + ": ";
    };
    for (unsigned int number = 0;; ++number) {
        Page page;
        const bool goesOn = Repo::Named(where, [&] {
            const bool isMore = LoadPage(kind, token, page);
            files += page.files.size();
            const bool isNew = !isMore || tokens.insert(Id::Of(Repo::AsBytes(page.nextToken))).second;
            REPOSITORY_RAISE_UNLESS(isNew && number < MostPages && files <= MostFiles(kind), Failure::Backend,
                                    "the server's list has no end");
            return isMore;
        });
        for (const auto& [id, size] : page.files)
            visit(id, size);
        if (!goesOn)
            return;
        token = std::move(page.nextToken);
    }
}

void S3Backend::Save(const FileName& file, ByteView content)
{
    NamedFor(file, [&] {
        Call call{.method = Method::Put, .content = content};
        Bytes body;
        const Response response = SendFor(file, call, body);
        RequireSuccess(response, body, call);
    });
}

// Returns true if the file has exactly this content.
bool S3Backend::Has(const FileName& file, ByteView content)
{
    Call call{.limit = content.size()};
    Bytes stored;
    const Response response = SendFor(file, call, stored);
    RequireSuccess(response, stored, call);
    return !response.isTooLong && std::equal(stored.begin(), stored.end(), content.begin(), content.end());
}

bool S3Backend::SaveNew(const FileName& file, ByteView content)
{
    if (!SeemsMissing(file))
        return false;
    return NamedFor(file, [&] {
        Call call{.method = Method::Put, .headers = {{"if-none-match", "*"}}, .content = content};
        Bytes body;
        Response response = SendFor(file, call, body);
        if (response.status == PreconditionFailed) // an attempt whose response was lost may have stored it
            return Has(file, content);
        if (IsConditionRefused(response, body)) {
            call.headers.clear();
            response = SendFor(file, call, body);
        }
        RequireSuccess(response, body, call);
        return true;
    });
}

} // namespace Agent::Remote
