#include "Backup/Core/OpenSSL.h"

#include "Backup/Core/OpenSSL/EncodedObjects.h"
#include "Backup/Core/OpenSSL/IssuerPaths.h"
#include "Backup/Core/OpenSSL/Judgement.h"
#include "Backup/Core/OpenSSL/RevocationLists.h"

#include "Krt/Exception/Raise.h"
#include "Krt/KrtFoundation/boostapi.h"

#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <iterator>

namespace Backup::OpenSSL {

using Krt::MessageType;
using Krt::YString;
using Krt::File::YPath;

namespace {

constexpr const char* TrustFunction = "IsCertificateTrusted";

[[noreturn]] void RaiseFailure(const char* function, unsigned long error)
{
    char text[256];
    ERR_error_string_n(error, text, sizeof text);
    KRT_RAISE_AS(function, MessageType::General, ErrorCode::CryptoFailure, text);
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

template <class Pointer>
void Append(std::vector<Pointer>&& read, const char* what, const YString& source, std::vector<Pointer>& all)
{
    if (read.empty())
        KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                     "No " << what << " can be read from " << source);
    std::move(read.begin(), read.end(), std::back_inserter(all));
}

Terms ReadTerms(const YString& host, const TrustOptions& options)
{
    // The first second of the year 0 to the last of 9999.
    if (options.time && (*options.time < -62167219200 || *options.time > 253402300799))
        KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                     "Out of the years 0 to 9999: the time of judgement, "
                         << std::to_string(*options.time).c_str());
    Terms terms{ReadHost(host), {}, {}, options.time, {}};
    if (!options.pinnedKey.IsEmpty())
        terms.pin = ReadPin(options.pinnedKey);
    for (const YPath& file : options.anchorFiles)
        Append(ReadCertificates(ReadCertificateFile(file)), "trust anchor", file, terms.anchors);
    for (const std::string& bytes : options.anchors)
        Append(ReadCertificates(bytes), "trust anchor", "the bytes given", terms.anchors);
    for (const std::string& bytes : options.revocationLists)
        Append(ReadRevocationLists(bytes), "revocation list", "the bytes given", terms.lists);
    for (const RevocationListPtr& list : terms.lists) {
        if (!IsUsable(*list))
            KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                         "A revocation list is a delta, indirect, for some reasons alone, or has an unknown "
                         "critical extension; give the complete list of its issuer");
        if (!HasAllowedSignature(*list))
            KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                         "The signature algorithm of a revocation list is too weak or unknown");
    }
    if (terms.pin && !terms.anchors.empty())
        KRT_RAISE_AS(TrustFunction, MessageType::General, ErrorCode::InvalidArgument,
                     "A pinned key stands for the trust anchor; give one of the two");
    return terms;
}

using FilePtr = std::unique_ptr<std::FILE, Freer<&std::fclose>>;

} // namespace

void RequireDone(bool done)
{
    if (!done)
        RaiseFailure(TrustFunction, ERR_peek_last_error());
}

Krt::Memory::YHeap<unsigned char> RandomBytes(int count)
{
    const ErrorMark mark;
    Krt::Memory::YHeap<unsigned char> bytes;
    bytes.Resize(Krt::NumericCast<unsigned long>(count));
    const int size = Krt::NumericCast<int>(bytes.Size());
    // An empty heap has no address to give; OpenSSL is asked all the same, and its answer counts.
    if (RAND_bytes(size == 0 ? nullptr : static_cast<unsigned char*>(bytes), size) <= 0)
        RaiseFailure(__func__, ERR_get_error());
    return bytes;
}

bool IsCertificateTrusted(const std::string& certificate, const std::vector<std::string>& chain,
                          const YString& host, const TrustOptions& options, TrustReport* report)
{
    const ErrorMark mark;
    const Terms terms = ReadTerms(host, options);
    TrustReport unasked;
    TrustReport& told = report == nullptr ? unasked : *report;
    told = TrustReport();
    std::vector<CertificatePtr> sent = ReadCertificates(certificate);
    if (sent.empty()) {
        told.reason = "the certificate can't be read";
        return false;
    }
    for (const std::string& bytes : chain) {
        std::vector<CertificatePtr> more = ReadCertificates(bytes);
        if (more.empty()) {
            told.server = Summarize(*sent.front());
            told.reason = "a certificate of the chain can't be read";
            return false;
        }
        std::move(more.begin(), more.end(), std::back_inserter(sent));
    }
    IssuerPath above;
    for (std::size_t i = 1; i < sent.size(); ++i)
        above.push_back(sent[i].get());
    return Judge(*sent.front(), MakeStack(above).get(), terms, told);
}

bool IsCertificateTrusted(ssl_st* connection, const YString& host, const TrustOptions& options,
                          TrustReport* report)
{
    const ErrorMark mark;
    KRT_RAISE_UNLESS(connection != nullptr && SSL_is_init_finished(connection), ErrorCode::InvalidArgument,
                     "The handshake of the connection isn't done");
    const Terms terms = ReadTerms(host, options);
    TrustReport unasked;
    TrustReport& told = report == nullptr ? unasked : *report;
    told = TrustReport();
    const CertificatePtr server(SSL_get1_peer_certificate(connection));
    if (server == nullptr) {
        told.reason = "the server showed no certificate";
        return false;
    }
    return Judge(*server, SSL_get_peer_cert_chain(connection), terms, told);
}

std::string ReadCertificateFile(const YPath& path)
{
    // A pipe nobody writes to would hold the thread for ever.
    std::error_code ignored;
    const std::filesystem::file_status status = std::filesystem::status(path.CStr(), ignored);
    KRT_RAISE_UNLESS(!std::filesystem::exists(status) || std::filesystem::is_regular_file(status),
                     ErrorCode::InvalidArgument, "Not a regular file: " << path);
    const FilePtr file(std::fopen(path.CStr(), "rbe"));
    if (file == nullptr)
        KRT_RAISE_OS("Failed to open " << path);
    std::string bytes;
    char block[16384];
    while (const std::size_t size = std::fread(block, 1, sizeof block, file.get())) {
        bytes.append(block, size);
        KRT_RAISE_UNLESS(bytes.size() <= MaxEncodedSize, ErrorCode::InvalidArgument,
                         "Too large for certificates: " << path);
    }
    if (std::ferror(file.get()) != 0)
        KRT_RAISE_OS("Failed to read " << path);
    return bytes;
}

} // namespace Backup::OpenSSL
