#include "agent/Repository/Id.h"

#include "Krt/Exception/Raise.h"
#include "Krt/String/Ascii.h"

#include <openssl/evp.h>

#include <memory>
#include <random>

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
    KRT_RAISE_UNLESS(context != nullptr && EVP_DigestUpdate(context, content.data(), content.size()) == 1 &&
                         EVP_DigestFinal_ex(context, id.bytes.data(), nullptr) == 1,
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
