#include "agent/Repository/Id.h"

#include "Krt/Exception/Raise.h"

#include <openssl/sha.h>

namespace Agent::Repo {

namespace {

// The value of a digit, or a negative number.
int DigitValue(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return digit >= 'A' && digit <= 'F' ? digit - 'A' + 10 : -1;
}

} // namespace

Id Id::Of(ByteView content)
{
    Id id;
    KRT_RAISE_UNLESS(SHA256(content.data(), content.size(), id.bytes.data()) != nullptr,
                     Krt::ErrorCode::CryptoFailure, "Failed to compute a SHA-256 digest");
    return id;
}

std::optional<Id> Id::FromHex(std::string_view text)
{
    if (text.size() != Digits)
        return std::nullopt;
    Id id;
    for (std::size_t i = 0; i < Size; ++i) {
        const int high = DigitValue(text[2 * i]);
        const int low = DigitValue(text[2 * i + 1]);
        if (high < 0 || low < 0)
            return std::nullopt;
        id.bytes[i] = static_cast<unsigned char>(high * 16 + low);
    }
    return id;
}

std::string Id::ToHex() const
{
    std::string text;
    text.reserve(Digits);
    AppendHex(text);
    return text;
}

void Id::AppendHex(std::string& out) const
{
    static constexpr char HexDigits[] = "0123456789abcdef";
    for (const unsigned char byte : bytes) {
        out += HexDigits[byte >> 4];
        out += HexDigits[byte & 15];
    }
}

} // namespace Agent::Repo
