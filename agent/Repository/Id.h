// Ids: what files and blobs are named by. The id of a file is the SHA-256 of its stored bytes, the id of a
// blob that of its plaintext.
#pragma once

#include "agent/Repository/Bytes.h"

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
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

/// For hash tables. The ids in a hostile repository are not hashes but chosen, so that many could meet in one
/// place of a table. They are therefore mixed with a secret of the process.
struct IdHash
{
    std::size_t operator()(const Id& id) const
    {
        std::uint64_t words[4];
        std::memcpy(words, id.bytes.data(), sizeof(words));
        return Mixed(words[0] ^ Secret[0], words[1] ^ Secret[1]) ^
               Mixed(words[2] ^ Secret[2], words[3] ^ Secret[3]);
    }

private:
    static std::uint64_t Mixed(std::uint64_t a, std::uint64_t b)
    {
        __extension__ using Product = unsigned __int128;
        const Product product = static_cast<Product>(a) * b;
        return static_cast<std::uint64_t>(product) ^ static_cast<std::uint64_t>(product >> 64);
    }

    static const std::array<std::uint64_t, 4> Secret;
};

} // namespace Agent::Repo
