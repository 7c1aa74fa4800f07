#include "Krt/Util/Numbers.h"

#include "Krt/Exception/Raise.h"
#include "Krt/String/Ascii.h"

#include <iomanip>
#include <locale>
#include <sstream>

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
    std::ostringstream stream;
    // The process may have a locale that groups digits.
    stream.imbue(std::locale::classic());
    if (hex)
        stream << "0x" << std::hex << std::setfill('0') << std::setw(8);
    stream << value;
    if (stream.fail())
        KRT_RAISE_AS("NumberToString", MessageType::Runtime, ErrorCode::NumberConversion);
    return YString(std::move(stream).str());
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
