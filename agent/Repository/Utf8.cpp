#include "agent/Repository/Utf8.h"

namespace Agent::Repo {

namespace {

constexpr bool IsScalar(char32_t code)
{
    return code < 0xD800 || (code > 0xDFFF && code <= 0x10FFFF);
}

} // namespace

Utf8Character DecodeUtf8(std::string_view text)
{
    const auto byte = [text](std::size_t i) {
        return static_cast<unsigned char>(text[i]);
    };
    if (byte(0) < 0x80)
        return {byte(0), 1};
    const std::size_t size = byte(0) < 0xC2   ? 0
                             : byte(0) < 0xE0 ? 2
                             : byte(0) < 0xF0 ? 3
                             : byte(0) < 0xF5 ? 4
                                              : 0;
    if (size == 0 || text.size() < size)
        return {};
    char32_t code = byte(0) & (0x7Fu >> size);
    for (std::size_t i = 1; i < size; ++i) {
        if ((byte(i) & 0xC0) != 0x80)
            return {};
        code = code << 6 | (byte(i) & 0x3Fu);
    }
    constexpr char32_t Smallest[] = {0, 0, 0x80, 0x800, 0x10000};
    if (code < Smallest[size] || !IsScalar(code))
        return {};
    return {code, size};
}

void AppendUtf8(char32_t code, std::string& out)
{
    if (!IsScalar(code))
        code = 0xFFFD;
    const auto append = [&out](char32_t byte) {
        out += static_cast<char>(byte);
    };
    const auto appendTail = [&](int shift) {
        append(0x80 | ((code >> shift) & 0x3F));
    };
    if (code < 0x80) {
        append(code);
    } else if (code < 0x800) {
        append(0xC0 | code >> 6);
        appendTail(0);
    } else if (code < 0x10000) {
        append(0xE0 | code >> 12);
        appendTail(6);
        appendTail(0);
    } else {
        append(0xF0 | code >> 18);
        appendTail(12);
        appendTail(6);
        appendTail(0);
    }
}

bool IsUtf8(std::string_view text)
{
    while (!text.empty()) {
        const Utf8Character character = DecodeUtf8(text);
        if (character.size == 0)
            return false;
        text.remove_prefix(character.size);
    }
    return true;
}

} // namespace Agent::Repo
