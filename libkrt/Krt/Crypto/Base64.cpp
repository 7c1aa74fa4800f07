#include "Krt/Crypto/Base64.h"

#include "Krt/Exception/Raise.h"

#include <array>

namespace Krt::Crypto {

namespace {

constexpr std::string_view Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr unsigned char None = 0xFF;

constexpr std::array<unsigned char, 256> Values = [] {
    std::array<unsigned char, 256> values{};
    values.fill(None);
    for (unsigned char value = 0; value < Alphabet.size(); ++value)
        values[static_cast<unsigned char>(Alphabet[value])] = value;
    return values;
}();

// Decodes the groups of four digits at the beginning, up to the first group with any other character. Returns
// the number of characters in the decoded groups.
std::size_t DecodeGroups(std::string_view characters, unsigned char*& out)
{
    std::size_t at = 0;
    for (; characters.size() - at >= 4; at += 4) {
        unsigned int bits = 0;
        unsigned int seen = 0;
        for (std::size_t i = at; i < at + 4; ++i) {
            const unsigned char value = Values[static_cast<unsigned char>(characters[i])];
            seen |= value;
            bits = bits << 6 | value;
        }
        if (seen == None)
            break;
        *out++ = static_cast<unsigned char>(bits >> 16);
        *out++ = static_cast<unsigned char>(bits >> 8);
        *out++ = static_cast<unsigned char>(bits);
    }
    return at;
}

bool IsSpace(char byte)
{
    return byte == ' ' || byte == '\t' || byte == '\r' || byte == '\n';
}

} // namespace

YString Base64EncodeData(const Memory::YHeap<unsigned char>& data)
{
    std::string text;
    const std::size_t size = data.Size();
    if (size == 0)
        return YString();
    const auto* const bytes = data.Cast<unsigned char>();
    text.reserve((size + 2) / 3 * 4);
    for (std::size_t at = 0; at < size; at += 3) {
        const std::size_t left = size - at;
        const unsigned int group = static_cast<unsigned int>(bytes[at]) << 16 |
                                   (left > 1 ? static_cast<unsigned int>(bytes[at + 1]) << 8 : 0) |
                                   (left > 2 ? static_cast<unsigned int>(bytes[at + 2]) : 0);
        text += Alphabet[group >> 18];
        text += Alphabet[group >> 12 & 63];
        text += left > 1 ? Alphabet[group >> 6 & 63] : '=';
        text += left > 2 ? Alphabet[group & 63] : '=';
    }
    return YString(std::move(text));
}

Memory::YHeap<unsigned char> Base64DecodeData(const YString& text)
{
    const std::string& characters = text.Bytes();
    std::vector<unsigned char> bytes(characters.size() / 4 * 3 + 3);
    unsigned char* out = bytes.data();
    unsigned int bits = 0;
    unsigned int digits = 0;
    unsigned int padding = 0;
    for (std::size_t at = 0; at < characters.size(); ++at) {
        if (digits % 4 == 0 && padding == 0) {
            at += DecodeGroups(std::string_view(characters).substr(at), out);
            if (at == characters.size())
                break;
        }
        if (IsSpace(characters[at]))
            continue;
        const unsigned char value = Values[static_cast<unsigned char>(characters[at])];
        const bool pad = characters[at] == '=' && digits % 4 >= 2;
        KRT_RAISE_UNLESS(pad || (value != None && padding == 0), ErrorCode::InvalidArgument,
                         "Unexpected Base64 character at offset " << at);
        padding += pad ? 1 : 0;
        bits = bits << 6 | (pad ? 0U : value);
        if (++digits % 4 == 0) {
            // An encoder sets the unused bits of the last digit to zero.
            KRT_RAISE_UNLESS((bits & ((1U << 8 * padding) - 1)) == 0, ErrorCode::InvalidArgument,
                             "Unexpected Base64 bits before offset " << at);
            for (unsigned int byte = 0; byte < 3 - padding; ++byte)
                *out++ = static_cast<unsigned char>(bits >> (16 - 8 * byte));
        }
    }
    KRT_RAISE_UNLESS(digits % 4 == 0, ErrorCode::InvalidArgument,
                     "Base64 text ends inside a group at offset " << characters.size());
    return {bytes.data(), static_cast<unsigned long>(out - bytes.data())};
}

} // namespace Krt::Crypto
