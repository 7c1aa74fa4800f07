#include "agent/Remote/Answer.h"

#include "agent/Repository/Failure.h"
#include "agent/Run/Text.h"

#include <algorithm>
#include <charconv>
#include <optional>

namespace Agent::Remote {

using Repo::Failure;

namespace {

constexpr std::uint64_t LargestOffset = UINT64_C(1) << 62; // servers compute with signed numbers
constexpr std::size_t QuotedLimit = 200;
constexpr int PartialContent = 206;
constexpr int RangeNotSatisfiable = 416;

std::optional<std::uint64_t> ParseNumber(std::string_view text)
{
    std::uint64_t number = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, number);
    return !text.empty() && error == std::errc() && stop == end ? std::optional(number) : std::nullopt;
}

} // namespace

std::string RangeOf(std::uint64_t offset, std::uint64_t length)
{
    const std::uint64_t first = std::min(offset, LargestOffset);
    const std::uint64_t last = first + std::min(length, LargestOffset) - 1;
    return "bytes=" + std::to_string(first) + "-" + std::to_string(last);
}

void RequirePart(const Http::Response& response, Repo::ByteView body, std::uint64_t offset,
                 std::uint64_t length)
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

void RequireWhole(const Http::Response& response, std::uint64_t limit)
{
    REPOSITORY_RAISE_UNLESS(!response.isTooLong, Failure::Damaged,
                            "damaged: the file has more bytes than the limit of " << limit);
}

std::uint64_t SizeFrom(const Http::Response& response)
{
    const std::optional<std::uint64_t> size = ParseNumber(response.Find("content-length"));
    REPOSITORY_RAISE_UNLESS(size, Failure::Backend, "the server did not send the size of the file");
    return *size;
}

std::string Quoted(std::string_view text)
{
    std::string line(text.substr(0, QuotedLimit));
    std::replace_if(
        line.begin(), line.end(), [](char byte) { return byte == '\n' || byte == '\r' || byte == '\t'; },
        ' ');
    const std::size_t begin = std::min(line.find_first_not_of(' '), line.size());
    line = line.substr(begin, line.find_last_not_of(' ') + 1 - begin);
    return Printable(line) + (text.size() > QuotedLimit ? "..." : "");
}

std::string StatusText(int status)
{
    constexpr std::pair<int, const char*> Known[] = {
        {400, "Bad Request"},         {401, "Unauthorized"},
        {403, "Forbidden"},           {404, "Not Found"},
        {405, "Method Not Allowed"},  {409, "Conflict"},
        {412, "Precondition Failed"}, {413, "Content Too Large"},
        {429, "Too Many Requests"},   {500, "Internal Server Error"},
        {501, "Not Implemented"},     {502, "Bad Gateway"},
        {503, "Service Unavailable"}, {504, "Gateway Timeout"},
        {507, "Insufficient Storage"}};
    for (const auto& [number, text] : Known) {
        if (number == status)
            return std::to_string(status) + " " + text;
    }
    return std::to_string(status);
}

} // namespace Agent::Remote
