// Ids: what files and blobs are named by. The id of a file is the SHA-256 of its stored bytes, the id of a
// blob that of its plaintext.
#pragma once

#include "agent/Repository/Bytes.h"

#include <array>
#include <compare>
#include <cstddef>
#include <cstring>
#include <optional>
#include <string>
#include <string_view>

namespace Agent::Repo {

struct Id
{
    static constexpr std::size_t Size = 32;         ///< bytes
    static constexpr std::size_t Digits = 2 * Size; ///< characters of the hexadecimal form

    std::array<unsigned char, Size> bytes{}; ///< all zero for an id that was not set

    /// The SHA-256 of the bytes. Any thread.
    static Id Of(ByteView content);
    /// The id with these 64 hexadecimal digits of either letter case; nothing for any other text.
    static std::optional<Id> FromHex(std::string_view text);

    /// 64 lower-case hexadecimal digits.
    std::string ToHex() const;
    /// Appends ToHex to `out`.
    void AppendHex(std::string& out) const;

    friend auto operator<=>(const Id&, const Id&) = default;
};

/// For hash tables. An id is a hash itself, so its first bytes serve.
struct IdHash
{
    std::size_t operator()(const Id& id) const
    {
        std::size_t hash;
        std::memcpy(&hash, id.bytes.data(), sizeof(hash));
        return hash;
    }
};

} // namespace Agent::Repo
