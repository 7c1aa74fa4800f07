#include "Backup/Core/OpenSSL/CertificateText.h"

#include <openssl/evp.h>

#include <string_view>

namespace Backup::OpenSSL {

using Krt::YString;

namespace {

YString NameText(const X509_NAME* name)
{
    const BioPtr text(BIO_new(BIO_s_mem()));
    RequireDone(text != nullptr);
    if (X509_NAME_print_ex(text.get(), name, 0, XN_FLAG_RFC2253) < 0)
        return "(a name that can't be read)";
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(text.get(), &bytes);
    return YString(std::string_view(bytes, static_cast<std::size_t>(size)));
}

std::optional<long long> Seconds(const ASN1_TIME* time)
{
    const TimePtr epoch(ASN1_TIME_set(nullptr, 0));
    RequireDone(epoch != nullptr);
    int days = 0;
    int seconds = 0;
    if (ASN1_TIME_diff(&days, &seconds, epoch.get(), time) != 1)
        return std::nullopt;
    return days * 86400LL + seconds;
}

YString HexText(const KeyHash& hash)
{
    static constexpr char Digits[] = "0123456789abcdef";
    std::string text;
    for (const unsigned char byte : hash) {
        text += Digits[byte >> 4];
        text += Digits[byte & 15];
    }
    return YString(std::move(text));
}

} // namespace

KeyHash HashKey(const X509& certificate)
{
    unsigned char* key = nullptr;
    const int size = i2d_X509_PUBKEY(X509_get_X509_PUBKEY(&certificate), &key);
    const BytesPtr owner(key);
    RequireDone(size > 0);
    KeyHash hash;
    RequireDone(
        EVP_Digest(key, static_cast<std::size_t>(size), hash.data(), nullptr, EVP_sha256(), nullptr) == 1);
    return hash;
}

YString SubjectText(const X509& certificate)
{
    return NameText(X509_get_subject_name(&certificate));
}

CertificateSummary Summarize(const X509& certificate)
{
    return {SubjectText(certificate), NameText(X509_get_issuer_name(&certificate)),
            Seconds(X509_get0_notBefore(&certificate)), Seconds(X509_get0_notAfter(&certificate)),
            HexText(HashKey(certificate))};
}

} // namespace Backup::OpenSSL
