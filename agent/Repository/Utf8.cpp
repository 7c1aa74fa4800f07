#include "agent/Repository/Utf8.h"

namespace Agent::Repo {

void AppendUtf8(char32_t code, std::string& out)
{
    if (!Krt::String::IsScalarValue(code))
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
