#include "Krt/Util/Quotify.h"

namespace Krt::Util {

namespace {

std::string_view EscapedInside(char quote)
{
    return quote == '"' ? "\\\"$`" : "\\";
}

} // namespace

YString QuotifyEx(const YString& text, char quote)
{
    std::string quoted(1, quote);
    for (const char byte : text.Bytes()) {
        if (quote == '\'') {
            // Nothing can be escaped between single quotes: the quotation ends before the mark and begins
            // again after it.
            quoted += byte == quote ? std::string_view("'\\''") : std::string_view(&byte, 1);
            continue;
        }
        if (byte == quote || EscapedInside(quote).find(byte) != std::string_view::npos)
            quoted += '\\';
        quoted += byte;
    }
    return YString(std::move(quoted += quote));
}

} // namespace Krt::Util
