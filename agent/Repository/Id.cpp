#include "agent/Repository/Id.h"

#include "agent/Repository/Look.h"

#include "Krt/Exception/Raise.h"
#include "Krt/String/Ascii.h"

#include <openssl/evp.h>

#include <memory>
#include <random>

namespace Agent::Repo {

namespace {

constexpr unsigned char NoDigit = 0xFF;

// The values of hexadecimal digits, by character.
constexpr std::array<unsigned char, 256> MakeDigitValues()
{
    std::array<unsigned char, 256> values{};
    values.fill(NoDigit);
    for (unsigned char i = 0; i < 16; ++i) {
        values[static_cast<unsigned char>("0123456789abcdef"[i])] = i;
        values[static_cast<unsigned char>("0123456789ABCDEF"[i])] = i;
    }
    return values;
}

struct Free
{
    void operator()(EVP_MD_CTX* context) const { EVP_MD_CTX_free(context); }
};

// Ready for the next digest. Fetching the algorithm takes longer than hashing a small blob.
EVP_MD_CTX* DigestOfThread()
{
    thread_local const std::unique_ptr<EVP_MD_CTX, Free> context(EVP_MD_CTX_new());
    static const EVP_MD* const algorithm = EVP_MD_fetch(nullptr, "SHA256", nullptr);
    return algorithm && context && EVP_DigestInit_ex2(context.get(), algorithm, nullptr) == 1 ? context.get()
                                                                                              : nullptr;
}

} // namespace

Id Id::Of(ByteView content)
{
    Id id;
    EVP_MD_CTX* const context = DigestOfThread();
    bool hasSucceeded = context != nullptr;
    for (; content.size() > LookStep; content = content.subspan(LookStep)) {
        Look();
        hasSucceeded = hasSucceeded && EVP_DigestUpdate(context, content.data(), LookStep) == 1;
    }
    KRT_RAISE_UNLESS(hasSucceeded && EVP_DigestUpdate(context, content.data(), content.size()) == 1 &&
                         EVP_DigestFinal_ex(context, id.bytes.data(), nullptr) == 1,
                     Krt::ErrorCode::CryptoFailure, "Failed to compute a SHA-256 digest");
    return id;
}

std::optional<Id> Id::FromHex(std::string_view text)
{
    if (text.size() != Digits)
        return std::nullopt;
    static constexpr std::array<unsigned char, 256> Values = MakeDigitValues();
    Id id;
    unsigned int all = 0; // the union of the bits of all values
    for (std::size_t i = 0; i < Size; ++i) {
        const unsigned int high = Values[static_cast<unsigned char>(text[2 * i])];
        const unsigned int low = Values[static_cast<unsigned char>(text[2 * i + 1])];
        all |= high | low;
        id.bytes[i] = static_cast<unsigned char>(high << 4 | low);
    }
    if (all > 0xF)
        return std::nullopt;
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
    Krt::String::AppendHex(out, bytes);
}

const std::array<std::uint64_t, 4> IdHash::Secret = [] {
    std::array<std::uint64_t, 4> secret;
    std::random_device device;
    for (std::uint64_t& word : secret)
        word = std::uint64_t{device()} << 32 | device();
    return secret;
}();

} // namespace Agent::Repo
