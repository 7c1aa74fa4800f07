#include "agent/Remote/Answer.h"

#include "agent/Run/Text.h"

#include <algorithm>
#include <utility>

namespace Agent::Remote {

std::string Quoted(std::string_view text)
{
    constexpr std::size_t QuotedLimit = 200;
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
