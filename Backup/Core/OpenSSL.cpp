#include "Backup/Core/OpenSSL.h"

#include "Backup/Core/OpenSSL/Inputs.h"
#include "Backup/Core/OpenSSL/Verify.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Util/YUnxHandle.h"

#include <openssl/rand.h>
#include <openssl/ssl.h>

#include <fcntl.h>
#include <iterator>

namespace Backup::OpenSSL {

using Krt::MessageType;
using Krt::YString;
using Krt::File::YPath;

namespace {

// Fills the report, if there is one. `server` is nullptr if there is no readable certificate.
bool Conclude(const VerifyResult& result, const X509* server, TrustReport* report)
{
    if (report != nullptr)
        *report = {result.reason, result.subject, result.depth,
                   server == nullptr ? CertificateSummary() : Summarize(*server)};
    return result.IsOk();
}

} // namespace

Krt::Memory::YHeap<unsigned char> RandomBytes(int count)
{
    const ErrorMark mark;
    Krt::Memory::YHeap<unsigned char> bytes;
    bytes.Resize(Krt::NumericCast<unsigned long>(count));
    const int size = Krt::NumericCast<int>(bytes.Size());
    // An empty heap has no address. OpenSSL is called for it nevertheless, so that its failure is reported.
    if (RAND_bytes(size == 0 ? nullptr : static_cast<unsigned char*>(bytes), size) <= 0) {
        char text[256];
        ERR_error_string_n(ERR_get_error(), text, sizeof text);
        KRT_RAISE_AS(__func__, MessageType::General, ErrorCode::CryptoFailure, text);
    }
    return bytes;
}

bool IsCertificateTrusted(const std::string& certificate, const std::vector<std::string>& chain,
                          const YString& host, const TrustOptions& options, TrustReport* report)
{
    const ErrorMark mark;
    const VerifyParameters parameters = ReadParameters(host, options);
    std::vector<CertificatePtr> presented = ReadCertificates(certificate);
    if (presented.empty())
        return Conclude(VerifyResult::Fault("the certificate can't be read", nullptr), nullptr, report);
    for (const std::string& bytes : chain) {
        std::vector<CertificatePtr> more = ReadCertificates(bytes);
        if (more.empty())
            return Conclude(VerifyResult::Fault("a certificate of the chain can't be read", nullptr),
                            presented.front().get(), report);
        std::move(more.begin(), more.end(), std::back_inserter(presented));
    }
    std::vector<X509*> issuers;
    for (std::size_t i = 1; i < presented.size(); ++i)
        issuers.push_back(presented[i].get());
    X509& server = *presented.front();
    return Conclude(VerifyServer(server, MakeStack(issuers).get(), parameters), &server, report);
}

bool IsCertificateTrusted(ssl_st* connection, const YString& host, const TrustOptions& options,
                          TrustReport* report)
{
    const ErrorMark mark;
    KRT_RAISE_UNLESS(connection != nullptr && SSL_is_init_finished(connection), ErrorCode::InvalidArgument,
                     "The handshake of the connection isn't done");
    const VerifyParameters parameters = ReadParameters(host, options);
    const CertificatePtr server(SSL_get1_peer_certificate(connection));
    if (server == nullptr)
        return Conclude(VerifyResult::Fault("the server showed no certificate", nullptr), nullptr, report);
    return Conclude(VerifyServer(*server, SSL_get_peer_cert_chain(connection), parameters), server.get(),
                    report);
}

std::string ReadCertificateFile(const YPath& path)
{
    // A pipe that no process writes to would hold the thread for ever.
    const auto file = KRT_OS_VALUE(Krt::Util::OpenHandle(path.CStr(), O_RDONLY | O_NONBLOCK | O_NOCTTY),
                                   "Failed to open " << path);
    KRT_RAISE_UNLESS(S_ISREG(Krt::File::Stat(file).st_mode), ErrorCode::InvalidArgument,
                     "Not a regular file: " << path);
    auto bytes = Krt::File::ReadWholeFile(file, MaxEncodedSize);
    KRT_RAISE_UNLESS(bytes.error != EFBIG, ErrorCode::InvalidArgument,
                     "Too large for certificates: " << path);
    return KRT_OS_VALUE(std::move(bytes), "Failed to read " << path);
}

} // namespace Backup::OpenSSL
