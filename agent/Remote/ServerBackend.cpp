#include "agent/Remote/ServerBackend.h"

#include "agent/Remote/SignatureV4.h"

#include <algorithm>
#include <charconv>

namespace Agent::Remote {

using Http::Method;
using Http::Response;
using Repo::Bytes;
using Repo::ByteView;
using Repo::Failure;
using Repo::FileKind;
using Repo::FileName;

namespace {

constexpr std::uint64_t LargestOffset = UINT64_C(1) << 62; // servers compute with signed numbers
constexpr int PartialContent = 206;
constexpr int NotFound = 404;
constexpr int RangeNotSatisfiable = 416;

// The value of the header Range. `length` is not 0.
std::string RangeOf(std::uint64_t offset, std::uint64_t length)
{
    const std::uint64_t first = std::min(offset, LargestOffset);
    const std::uint64_t last = first + std::min(length, LargestOffset) - 1;
    return "bytes=" + std::to_string(first) + "-" + std::to_string(last);
}

// Raises unless the body is exactly the part of the file that was asked for. The response has a status of
// success, or 416.
void RequirePart(const Response& response, ByteView body, std::uint64_t offset, std::uint64_t length)
{
    const auto requireEnough = [&](bool isEnough) {
        REPOSITORY_RAISE_UNLESS(isEnough, Failure::Damaged,
                                "damaged: the file ends before byte " << offset << " + " << length);
    };
    requireEnough(response.status != RangeNotSatisfiable);
    const bool isPart =
        response.status == PartialContent
            ? response.Find("content-range").starts_with("bytes " + std::to_string(offset) + "-")
            : offset == 0;
    REPOSITORY_RAISE_UNLESS(isPart && !response.isTooLong, Failure::Backend,
                            "the server sent another part of the file than was asked for");
    requireEnough(body.size() == length);
}

std::uint64_t SizeFrom(const Response& response)
{
    const std::string_view text = response.Find("content-length");
    const char* const end = text.data() + text.size();
    std::uint64_t size = 0;
    const auto [stop, error] = std::from_chars(text.data(), end, size);
    REPOSITORY_RAISE_UNLESS(!text.empty() && error == std::errc() && stop == end, Failure::Backend,
                            "the server did not send the size of the file");
    return size;
}

bool IsReading(Method method)
{
    return method == Method::Get || method == Method::Head;
}

} // namespace

void ServerBackend::Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Bytes& out)
{
    const std::uint64_t size = length == 0 ? Size(file) : 0;
    NamedFor(file, [&] {
        if (length == 0) {
            out.clear();
            REPOSITORY_RAISE_UNLESS(offset <= size, Failure::Damaged,
                                    "damaged: the file ends before byte " << offset);
            return;
        }
        Call call{.headers = {{"range", RangeOf(offset, length)}}, .limit = length};
        const Response response = SendFor(file, call, out);
        if (response.status != RangeNotSatisfiable)
            RequireSuccess(response, out, call);
        RequirePart(response, out, offset, length);
    });
}

void ServerBackend::LoadWhole(const FileName& file, std::uint64_t limit, Bytes& out)
{
    NamedFor(file, [&] {
        Call call{.limit = limit};
        const Response response = SendFor(file, call, out);
        RequireSuccess(response, out, call);
        REPOSITORY_RAISE_UNLESS(!response.isTooLong, Failure::Damaged,
                                "damaged: the file has more bytes than the limit of " << limit);
    });
}

std::uint64_t ServerBackend::Size(const FileName& file)
{
    return NamedFor(file, [&] {
        Call call{.method = Method::Head};
        Bytes body;
        const Response response = SendFor(file, call, body);
        RequireSuccess(response, body, call);
        return SizeFrom(response);
    });
}

void ServerBackend::Remove(const FileName& file)
{
    NamedFor(file, [&] {
        Call call{.method = Method::Delete};
        Bytes body;
        const Response response = SendFor(file, call, body);
        if (!IsMissing(response, body))
            RequireSuccess(response, body, call);
    });
}

bool ServerBackend::IsMissing(const Response& response, ByteView) const
{
    return response.status == NotFound;
}

std::size_t ServerBackend::MostFiles(FileKind kind)
{
    constexpr std::size_t MostOfProcessesAndUsers = 100'000;
    constexpr std::size_t Most = 1 << 24; // packs of 256 TiB
    return kind == FileKind::Lock || kind == FileKind::Key ? MostOfProcessesAndUsers : Most;
}

Http::Request ServerBackend::RequestOf(const Call& call, std::string target)
{
    Http::Request request;
    request.method = call.method;
    request.target = std::move(target);
    if (!call.query.empty())
        request.target += "?" + CanonicalQuery(call.query);
    request.content = call.content;
    request.limit = call.limit;
    request.grace = call.grace;
    return request;
}

// Repairs give up what is missing, and what was to be removed counts as removed. So one answer is not enough,
// since a proxy may have sent it.
Response ServerBackend::SendTwiceIfMissing(const Call& call, Bytes& body)
{
    Response response = Send(call, body);
    if ((IsReading(call.method) || call.method == Method::Delete) && IsMissing(response, body))
        response = Send(call, body);
    return response;
}

// The removal of a lock goes on after an interrupt, and for a while also its storing, so that it is known
// whether the lock has to be removed.
Response ServerBackend::SendFor(const FileName& file, Call& call, Bytes& body)
{
    call.path = PathOf(file);
    if (file.kind == FileKind::Lock && !IsReading(call.method))
        call.grace = call.method == Method::Delete ? Http::Grace::Whole : Http::Grace::Half;
    Response response = SendTwiceIfMissing(call, body);
    REPOSITORY_RAISE_UNLESS(!IsReading(call.method) || !IsMissing(response, body), Failure::Missing,
                            "the file does not exist");
    return response;
}

void ServerBackend::RequireSuccess(const Response& response, ByteView body, const Call& call)
{
    if (!response.IsSuccess())
        RaiseRefused(response, body, call);
}

std::optional<std::uint64_t> ServerBackend::SizeIfPresent(const FileName& file)
{
    try {
        return Size(file);
    } catch (const Repo::RepositoryError& error) {
        if (error.GetFailure() != Failure::Missing)
            throw;
        return std::nullopt;
    }
}

bool ServerBackend::SeemsMissing(const FileName& file)
{
    return NamedFor(file, [&] {
        const Call call{.method = Method::Head, .path = PathOf(file)};
        Bytes body;
        const Response response = Send(call, body);
        if (IsMissing(response, body))
            return true;
        RequireSuccess(response, body, call);
        return false;
    });
}

} // namespace Agent::Remote
