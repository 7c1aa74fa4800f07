#include "Krt/String/Encoding.h"

#include "Krt/Exception/Raise.h"

#include <utf8.h>

#include <cstring>
#include <cwchar>

namespace Krt::String {

namespace {

// To be called while the conversion's exception is being handled.
[[noreturn]] void RaiseConversionFailure()
{
    try {
        throw;
    } catch (const utf8::invalid_utf16& failure) {
        KRT_RAISE_AS("Convert", MessageType::General, ErrorCode::InvalidUtf16,
                     "Invalid UTF-16 Sequence " << static_cast<unsigned int>(failure.utf16_word()));
    } catch (const utf8::invalid_utf8& failure) {
        KRT_RAISE_AS("Convert", MessageType::General, ErrorCode::InvalidUtf8,
                     "Invalid UTF-8 Sequence " << static_cast<unsigned char>(failure.utf8_octet()));
    } catch (const std::exception& failure) {
        throw Exception::TranslateYError(failure, MessageType::General, __LINE__, KRT_SOURCE_FILE, "Convert",
                                         YString());
    }
}

} // namespace

template <>
Memory::YHeap<char> Convert<wchar_t, char>(const wchar_t* text)
{
    const std::size_t length = std::wcslen(text);
    Memory::YHeap<char> result;
    result.Resize((length + 1) * 16);
    try {
        utf8::utf16to8(text, text + length, result.Cast<char>());
    } catch (const std::exception&) {
        RaiseConversionFailure();
    }
    return result;
}

template <>
Memory::YHeap<wchar_t> Convert<char, wchar_t>(const char* text)
{
    const std::size_t length = std::strlen(text);
    Memory::YHeap<wchar_t> result;
    result.Resize((length + 1) * sizeof(wchar_t));
    wchar_t* const begin = result;
    const wchar_t* const end = [&] {
        try {
            return utf8::utf8to16(text, text + length, begin);
        } catch (const std::exception&) {
            RaiseConversionFailure();
        }
    }();
    result.Resize(static_cast<std::size_t>(end + 1 - begin) * sizeof(wchar_t));
    return result;
}

} // namespace Krt::String
