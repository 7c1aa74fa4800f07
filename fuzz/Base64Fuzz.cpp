// The bytes are encoded as data, and decoded as text.
#include "fuzz/Input.h"

#include "Krt/Crypto/Base64.h"

#include <optional>

namespace {

constexpr std::string_view Alphabet = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

std::string Encoded(const std::string& data)
{
    std::string bits;
    for (const char byte : data) {
        for (int bit = 7; bit >= 0; --bit)
            bits += (byte >> bit & 1) != 0 ? '1' : '0';
    }
    std::string text;
    while (bits.size() % 6 != 0)
        bits += '0';
    for (std::size_t at = 0; at < bits.size(); at += 6)
        text += Alphabet[std::stoul(bits.substr(at, 6), nullptr, 2)];
    while (text.size() % 4 != 0)
        text += '=';
    return text;
}

// Returns the decoded data, or nothing if no encoder writes this text.
std::optional<std::string> Decoded(std::string text)
{
    std::erase_if(text, [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; });
    std::string bits;
    for (const char digit : text.substr(0, text.find('='))) {
        for (int bit = 5; bit >= 0; --bit)
            bits += (Alphabet.find(digit) >> bit & 1) != 0 ? '1' : '0';
    }
    std::string data;
    for (std::size_t at = 0; at + 8 <= bits.size(); at += 8)
        data += static_cast<char>(std::stoul(bits.substr(at, 8), nullptr, 2));
    return Encoded(data) == text ? std::optional(data) : std::nullopt;
}

std::string BytesOf(const Krt::Memory::YHeap<unsigned char>& heap)
{
    return heap.Size() == 0 ? std::string() : std::string(heap.Cast<char>(), heap.Size());
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes(data, data + size);
    const Krt::YString encoded = Krt::Crypto::Base64EncodeData({data, size});
    Fuzz::Expect(encoded.Bytes() == Encoded(bytes), "encoded as by the reference");
    Fuzz::Expect(BytesOf(Krt::Crypto::Base64DecodeData(encoded)) == bytes, "decoded to what was encoded");

    const Krt::YString text{std::string_view(bytes)};
    const std::optional<std::string> wanted = Decoded(text.Bytes());
    std::string decoded;
    const bool raises = Fuzz::Raises([&] { decoded = BytesOf(Krt::Crypto::Base64DecodeData(text)); });
    Fuzz::Expect(raises != wanted.has_value(), "what an encoder writes is taken, and nothing else");
    Fuzz::Expect(raises || decoded == *wanted, "decoded as by the reference");
    return 0;
}
