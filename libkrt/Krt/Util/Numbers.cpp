#include "Krt/Util/Numbers.h"

#include "Krt/Exception/Raise.h"
#include "Krt/String/Ascii.h"

#include <algorithm>
#include <charconv>
#include <iterator>
#include <locale>
#include <sstream>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Krt::Util {

namespace {

YString Trimmed(YString text)
{
    text.TrimWhiteSpacesLeft();
    text.TrimWhiteSpacesRight();
    return text;
}

template <class T>
YString ToText(T value, bool hex)
{
    constexpr std::size_t HexDigits = 8; // at least
    char buffer[24];
    const auto digits = [&buffer](auto number, int base) {
        return std::string_view(buffer, std::to_chars(buffer, std::end(buffer), number, base).ptr);
    };
    if (!hex)
        return YString(digits(value, 10));
    // A negative number has the digits of its two's complement.
    const std::string_view text = digits(static_cast<std::make_unsigned_t<T>>(value), 16);
    std::string padded = "0x";
    padded.append(HexDigits - std::min(HexDigits, text.size()), '0').append(text);
    return YString(std::move(padded));
}

template <class T>
T ToNumber(const YString& text, bool hex, bool strict)
{
    YString digits = Trimmed(text);
    if (digits.Bytes().starts_with("0x") || digits.Bytes().starts_with("0X")) {
        digits.TrimLeft(2);
        hex = true;
    }
    std::istringstream stream(digits.Bytes());
    stream.imbue(std::locale::classic());
    T number = 0;
    stream >> (hex ? std::hex : std::dec) >> number;
    if (stream.fail())
        KRT_RAISE_AS("StringToNumber", MessageType::Runtime, ErrorCode::NumberConversion);
    if (strict && !stream.eof())
        KRT_RAISE_AS("StringToNumber", MessageType::Runtime, ErrorCode::NumberConversion);
    return number;
}

} // namespace

template <>
YString NumberToString<unsigned int>(unsigned int value, bool hex)
{
    return ToText(value, hex);
}

template <>
YString NumberToString<int>(int value, bool hex)
{
    return ToText(value, hex);
}

template <>
bool StringToNumber<bool>(const YString& text, bool, bool strict)
{
    constexpr std::string_view trueForms = "ty1";
    constexpr std::string_view falseForms = "fn0";
    const YString form = Trimmed(text);
    if (!form.IsEmpty() && (!strict || form.Bytes().size() == 1)) {
        const char first = String::ToLower(form.Bytes().front());
        if (trueForms.find(first) != std::string_view::npos)
            return true;
        if (falseForms.find(first) != std::string_view::npos)
            return false;
    }
    KRT_RAISE_AS("StringToNumber", MessageType::Runtime, ErrorCode::NumberConversion);
}

template <>
unsigned int StringToNumber<unsigned int>(const YString& text, bool hex, bool strict)
{
    return ToNumber<unsigned int>(text, hex, strict);
}

template <>
unsigned long long StringToNumber<unsigned long long>(const YString& text, bool hex, bool strict)
{
    return ToNumber<unsigned long long>(text, hex, strict);
}

} // namespace Krt::Util
