#pragma once

/// @file
/// Owning pointers for OpenSSL objects, and error handling.

#include "Krt/Exception/Raise.h"
#include "Krt/Memory/Freer.h"

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>

namespace Backup::OpenSSL {

using Krt::Memory::Freer;

struct BytesFreer // OPENSSL_free is a macro
{
    void operator()(void* bytes) const { OPENSSL_free(bytes); }
};

struct StackFreer // frees the stack, not its certificates
{
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};

using AddressPtr = std::unique_ptr<ASN1_OCTET_STRING, Freer<&ASN1_OCTET_STRING_free>>;
using BioPtr = std::unique_ptr<BIO, Freer<&BIO_free>>;
using BytesPtr = std::unique_ptr<void, BytesFreer>;
using CertificatePtr = std::unique_ptr<X509, Freer<&X509_free>>;
using ContextPtr = std::unique_ptr<X509_STORE_CTX, Freer<&X509_STORE_CTX_free>>;
using ConstraintsPtr = std::unique_ptr<NAME_CONSTRAINTS, Freer<&NAME_CONSTRAINTS_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Freer<&X509_EXTENSION_free>>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, Freer<&GENERAL_NAMES_free>>;
using RevocationListPtr = std::unique_ptr<X509_CRL, Freer<&X509_CRL_free>>;
using StackPtr = std::unique_ptr<STACK_OF(X509), StackFreer>;
using StorePtr = std::unique_ptr<X509_STORE, Freer<&X509_STORE_free>>;
using TimePtr = std::unique_ptr<ASN1_TIME, Freer<&ASN1_TIME_free>>;

/// The function that errors of certificate verification report.
inline constexpr const char* TrustFunction = "IsCertificateTrusted";

/// Restores the thread's OpenSSL error queue on destruction, so that callers see only their own errors.
class ErrorMark
{
public:
    ErrorMark() { ERR_set_mark(); }
    ~ErrorMark() { ERR_pop_to_mark(); }
    ErrorMark(const ErrorMark&) = delete;
    ErrorMark& operator=(const ErrorMark&) = delete;
};

/// Raises CryptoFailure with OpenSSL's text if `done` is false. For calls that fail only if memory runs out
/// or OpenSSL is misinstalled.
inline void RequireDone(bool done)
{
    if (done)
        return;
    char text[256];
    ERR_error_string_n(ERR_peek_last_error(), text, sizeof text);
    KRT_RAISE_AS(TrustFunction, Krt::MessageType::General, Krt::ErrorCode::CryptoFailure, text);
}

} // namespace Backup::OpenSSL
