#include "Backup/Core/OpenSSL/EncodedObjects.h"

#include <openssl/pem.h>

namespace Backup::OpenSSL {

namespace {

template <auto Decode, class Pointer>
bool Append(const unsigned char* bytes, long size, std::vector<Pointer>& all)
{
    const unsigned char* end = bytes;
    Pointer object(Decode(nullptr, &end, size));
    if (object == nullptr || end != bytes + size)
        return false;
    all.push_back(std::move(object));
    return true;
}

// A sequence of 128 bytes and more. No text has such a second byte behind a '0'.
bool IsDer(std::string_view bytes)
{
    return bytes.size() > 1 && bytes[0] == 0x30 && (static_cast<unsigned char>(bytes[1]) & 0x80) != 0;
}

template <auto Decode, class Pointer>
bool AppendBlocks(std::string_view text, std::string_view wanted, std::vector<Pointer>& all)
{
    const BioPtr input(BIO_new_mem_buf(text.data(), static_cast<int>(text.size())));
    bool isSound = input != nullptr;
    char* label = nullptr;
    char* header = nullptr;
    unsigned char* bytes = nullptr;
    long size = 0;
    while (isSound && PEM_read_bio(input.get(), &label, &header, &bytes, &size) == 1) {
        const BytesPtr owners[] = {BytesPtr(label), BytesPtr(header), BytesPtr(bytes)};
        isSound = label != wanted || Append<Decode>(bytes, size, all);
    }
    // The end of the text is an error, too.
    return isSound && ERR_GET_REASON(ERR_peek_last_error()) == PEM_R_NO_START_LINE;
}

template <auto Decode, class Pointer>
std::vector<Pointer> Read(std::string_view bytes, std::string_view label)
{
    std::vector<Pointer> all;
    const ErrorMark mark;
    if (bytes.size() > MaxEncodedSize)
        return all;
    const bool isSound = IsDer(bytes) ? Append<Decode>(reinterpret_cast<const unsigned char*>(bytes.data()),
                                                       static_cast<long>(bytes.size()), all)
                                      : AppendBlocks<Decode>(bytes, label, all);
    if (!isSound)
        all.clear();
    return all;
}

} // namespace

std::vector<CertificatePtr> ReadCertificates(std::string_view bytes)
{
    return Read<&d2i_X509, CertificatePtr>(bytes, "CERTIFICATE");
}

std::vector<RevocationListPtr> ReadRevocationLists(std::string_view bytes)
{
    return Read<&d2i_X509_CRL, RevocationListPtr>(bytes, "X509 CRL");
}

} // namespace Backup::OpenSSL
