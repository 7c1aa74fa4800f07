// Owners of OpenSSL's objects, and what every call of it needs.
#pragma once

#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/x509.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include <memory>

namespace Backup::OpenSSL {

template <auto Free>
struct Freer
{
    template <class T>
    void operator()(T* object) const
    {
        Free(object);
    }
};

struct BytesFreer
{
    void operator()(void* bytes) const { OPENSSL_free(bytes); }
};

struct StackFreer // the certificates are not owned
{
    void operator()(STACK_OF(X509) * stack) const { sk_X509_free(stack); }
};

using AddressPtr = std::unique_ptr<ASN1_OCTET_STRING, Freer<&ASN1_OCTET_STRING_free>>;
using BioPtr = std::unique_ptr<BIO, Freer<&BIO_free>>;
using BytesPtr = std::unique_ptr<void, BytesFreer>; // bytes that OpenSSL allocated
using CertificatePtr = std::unique_ptr<X509, Freer<&X509_free>>;
using ContextPtr = std::unique_ptr<X509_STORE_CTX, Freer<&X509_STORE_CTX_free>>;
using ConstraintsPtr = std::unique_ptr<NAME_CONSTRAINTS, Freer<&NAME_CONSTRAINTS_free>>;
using ExtensionPtr = std::unique_ptr<X509_EXTENSION, Freer<&X509_EXTENSION_free>>;
using NamesPtr = std::unique_ptr<GENERAL_NAMES, Freer<&GENERAL_NAMES_free>>;
using RevocationListPtr = std::unique_ptr<X509_CRL, Freer<&X509_CRL_free>>;
using StackPtr = std::unique_ptr<STACK_OF(X509), StackFreer>;
using StorePtr = std::unique_ptr<X509_STORE, Freer<&X509_STORE_free>>;
using TimePtr = std::unique_ptr<ASN1_TIME, Freer<&ASN1_TIME_free>>;

/// Takes what was raised meanwhile off the thread's queue of errors: a caller who asks it next means its own
/// call.
class ErrorMark
{
public:
    ErrorMark() { ERR_set_mark(); }
    ~ErrorMark() { ERR_pop_to_mark(); }
    ErrorMark(const ErrorMark&) = delete;
    ErrorMark& operator=(const ErrorMark&) = delete;
};

/// Raises CryptoFailure with the last error's text, from IsCertificateTrusted, if a call failed that only
/// lack of memory or a broken installation lets fail.
void RequireDone(bool done);

} // namespace Backup::OpenSSL
