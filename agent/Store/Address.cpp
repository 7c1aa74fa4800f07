#include "agent/Store/Address.h"

#include "agent/Store/Hex.h"

#include "Krt/Exception/Raise.h"

#include <openssl/evp.h>

namespace Agent {

namespace {

// The value of a digit, or a negative number.
int DigitValue(char digit)
{
    if (digit >= '0' && digit <= '9')
        return digit - '0';
    if (digit >= 'a' && digit <= 'f')
        return digit - 'a' + 10;
    return -1;
}

void Check(int result)
{
    KRT_RAISE_UNLESS(result == 1, Krt::ErrorCode::CryptoFailure, "Failed to compute a SHA-256 digest");
}

} // namespace

std::string Address::ToHex() const
{
    std::string text(2 * Size, '\0');
    WriteHex(bytes.data(), Size, text.data());
    return text;
}

Address Address::FromHex(const Krt::YString& text)
{
    Address address;
    const std::string& digits = text.Bytes();
    bool valid = digits.size() == 2 * Size;
    for (std::size_t i = 0; valid && i < Size; ++i) {
        const int high = DigitValue(digits[2 * i]);
        const int low = DigitValue(digits[2 * i + 1]);
        valid = high >= 0 && low >= 0;
        address.bytes[i] = static_cast<unsigned char>(high * 16 + low);
    }
    KRT_RAISE_UNLESS(valid, Krt::ErrorCode::InvalidArgument, "Not an address: '" << text << "'");
    return address;
}

void Sha256::Free::operator()(evp_md_ctx_st* context) const
{
    EVP_MD_CTX_free(context);
}

void Sha256::Free::operator()(evp_md_st* algorithm) const
{
    EVP_MD_free(algorithm);
}

Sha256::Sha256() : m_algorithm(EVP_MD_fetch(nullptr, "SHA256", nullptr)), m_context(EVP_MD_CTX_new())
{
    Check(m_algorithm != nullptr && m_context != nullptr);
    Begin();
}

Sha256::~Sha256() = default;

void Sha256::Begin()
{
    Check(EVP_DigestInit_ex2(m_context.get(), m_algorithm.get(), nullptr));
}

void Sha256::Add(const void* data, std::size_t size)
{
    Check(EVP_DigestUpdate(m_context.get(), data, size));
}

Address Sha256::End()
{
    Address address;
    Check(EVP_DigestFinal_ex(m_context.get(), address.bytes.data(), nullptr));
    return address;
}

} // namespace Agent
