#include "Backup/Core/OpenSSL/Inputs.h"

#include "Krt/String/Ascii.h"

#include <openssl/pem.h>

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace Backup::OpenSSL {

using Krt::MessageType;
using Krt::YString;
using Krt::File::YPath;
using Krt::String::AnyHexDigits;

namespace {

constexpr std::string_view Digits = "0123456789";

std::string AddressBytes(const std::string& text)
{
    const AddressPtr address(a2i_IPADDRESS(text.c_str()));
    if (address == nullptr)
        return "";
    return {reinterpret_cast<const char*>(ASN1_STRING_get0_data(address.get())),
            static_cast<std::size_t>(ASN1_STRING_length(address.get()))};
}

std::optional<ServerName> ParseIpv4(const std::string& text)
{
    const std::string bytes = AddressBytes(text);
    if (bytes.size() != 4)
        return std::nullopt;
    const auto part = [&](std::size_t i) {
        return static_cast<unsigned char>(bytes[i]);
    };
    char usual[16];
    std::snprintf(usual, sizeof usual, "%d.%d.%d.%d", part(0), part(1), part(2), part(3));
    return text == usual ? std::optional(ServerName{"", bytes}) : std::nullopt;
}

std::optional<ServerName> ParseIpv6(std::string_view text)
{
    // The zone is this machine's name for an interface, and no certificate contains it.
    const std::string address(text.substr(0, text.find('%')));
    if (address.find_first_not_of(std::string(AnyHexDigits) + ":.") != std::string::npos)
        return std::nullopt;
    const std::string bytes = AddressBytes(address);
    return bytes.size() == 16 ? std::optional(ServerName{"", bytes}) : std::nullopt;
}

bool IsLabel(std::string_view label)
{
    return !label.empty() && label.size() <= 63 &&
           label.find_first_not_of("abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789-_") ==
               std::string_view::npos;
}

bool IsNumber(std::string_view label)
{
    const bool isHex = label.starts_with("0x") || label.starts_with("0X");
    return (isHex ? label.find_first_not_of(AnyHexDigits, 2) : label.find_first_not_of(Digits)) ==
           std::string_view::npos;
}

bool IsHostName(std::string_view name)
{
    if (name.size() > 253)
        return false;
    for (;;) {
        const std::size_t dot = name.find('.');
        if (!IsLabel(name.substr(0, dot)))
            return false;
        if (dot == std::string_view::npos)
            return true;
        name.remove_prefix(dot + 1);
    }
}

// A name whose last label is a number can only be an IPv4 address, and only in its usual form: programs
// disagree on the meaning of the other forms.
std::optional<ServerName> ParseServerName(std::string_view text)
{
    const bool isBracketed = text.size() > 2 && text.starts_with('[') && text.ends_with(']');
    if (isBracketed)
        text = text.substr(1, text.size() - 2);
    if (text.find(':') != std::string_view::npos)
        return ParseIpv6(text);
    if (text.ends_with('.'))
        text.remove_suffix(1);
    if (isBracketed || !IsHostName(text))
        return std::nullopt;
    if (IsNumber(text.substr(text.rfind('.') + 1)))
        return ParseIpv4(std::string(text));
    return ServerName{std::string(text), ""};
}

ServerName ReadHost(const YString& host)
{
    std::optional<ServerName> name = ParseServerName(host.Bytes());
    if (name)
        return std::move(*name);
    const bool isAscii = std::none_of(host.Bytes().begin(), host.Bytes().end(),
                                      [](unsigned char byte) { return byte > 0x7F; });
    KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                 "Not a host name or an IP address: '"
                     << host << (isAscii ? "'" : "'; an international name is given as A-labels (xn--...)"));
}

KeyHash ReadPin(const YString& text)
{
    KeyHash hash;
    std::size_t size = 0;
    if (OPENSSL_hexstr2buf_ex(hash.data(), hash.size(), &size, text.CStr(), '\0') != 1 || size != hash.size())
        KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                     "A pinned key is 64 hexadecimal digits, not " << text);
    return hash;
}

template <auto Decode, class Pointer>
bool AppendDer(const unsigned char* bytes, long size, std::vector<Pointer>& all)
{
    const unsigned char* end = bytes;
    Pointer object(Decode(nullptr, &end, size));
    if (object == nullptr || end != bytes + size)
        return false;
    all.push_back(std::move(object));
    return true;
}

template <auto Decode, class Pointer>
bool AppendPem(std::string_view text, std::string_view wanted, std::vector<Pointer>& all)
{
    const BioPtr input(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    bool isSound = input != nullptr;
    char* label = nullptr;
    char* header = nullptr;
    unsigned char* bytes = nullptr;
    long size = 0;
    while (isSound && PEM_read_bio(input.get(), &label, &header, &bytes, &size) == 1) {
        const BytesPtr owners[] = {BytesPtr(label), BytesPtr(header), BytesPtr(bytes)};
        isSound = label != wanted || AppendDer<Decode>(bytes, size, all);
    }
    // PEM_read_bio reports the end of the text as an error.
    return isSound && ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
}

// DER of these objects is a sequence of 128 bytes or more. No text has such a second byte after '0'.
bool IsDer(std::string_view bytes)
{
    return bytes.size() > 1 && bytes[0] == 0x30 && (static_cast<unsigned char>(bytes[1]) & 0x80) != 0;
}

template <auto Decode, class Pointer>
std::vector<Pointer> ReadObjects(std::string_view bytes, std::string_view label)
{
    std::vector<Pointer> all;
    const ErrorMark mark;
    if (bytes.size() > MaxEncodedSize)
        return all;
    const bool isSound = IsDer(bytes)
                             ? AppendDer<Decode>(reinterpret_cast<const unsigned char*>(bytes.data()),
                                                 static_cast<long>(bytes.size()), all)
                             : AppendPem<Decode>(bytes, label, all);
    if (!isSound)
        all.clear();
    return all;
}

template <class Pointer>
void AppendRequired(std::vector<Pointer>&& objects, const char* what, const YString& source,
                    std::vector<Pointer>& all)
{
    if (objects.empty())
        KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                     "No " << what << " can be read from " << source);
    std::move(objects.begin(), objects.end(), std::back_inserter(all));
}

void RequireUsable(X509_CRL& list)
{
    if (!IsComplete(list))
        KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                     "A revocation list is a delta, indirect, for some reasons alone, or has an unknown "
                     "critical extension; give the complete list of its issuer");
    if (!HasAllowedSignature(list))
        KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                     "The signature algorithm of a revocation list is too weak or unknown");
}

} // namespace

VerifyParameters ReadParameters(const YString& host, const TrustOptions& options)
{
    // The first second of the year 0 to the last of 9999.
    if (options.time && (*options.time < -62167219200 || *options.time > 253402300799))
        KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                     "The time of verification is outside the years 0 to 9999: "
                         << std::to_string(*options.time).c_str());
    VerifyParameters parameters{ReadHost(host), {}, {}, options.time, {}};
    if (!options.pinnedKey.IsEmpty())
        parameters.pin = ReadPin(options.pinnedKey);
    for (const YPath& file : options.anchorFiles)
        AppendRequired(ReadCertificates(ReadCertificateFile(file)), "trust anchor", file, parameters.anchors);
    for (const std::string& bytes : options.anchors)
        AppendRequired(ReadCertificates(bytes), "trust anchor", "the bytes given", parameters.anchors);
    for (const std::string& bytes : options.revocationLists)
        AppendRequired(ReadObjects<&d2i_X509_CRL, RevocationListPtr>(bytes, "X509 CRL"), "revocation list",
                       "the bytes given", parameters.lists);
    for (const RevocationListPtr& list : parameters.lists)
        RequireUsable(*list);
    if (parameters.pin && !parameters.anchors.empty())
        KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                     "A pinned key replaces the trust anchor; give one or the other");
    return parameters;
}

std::vector<CertificatePtr> ReadCertificates(std::string_view bytes)
{
    return ReadObjects<&d2i_X509, CertificatePtr>(bytes, "CERTIFICATE");
}

} // namespace Backup::OpenSSL
