#include "testing/CertificateAuthority.h"

#include <openssl/bn.h>
#include <openssl/ec.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/param_build.h>
#include <openssl/pem.h>
#include <openssl/rsa.h>
#include <openssl/x509.h>
#include <openssl/x509v3.h>

#include <cstdio>
#include <ctime>
#include <functional>
#include <stdexcept>

namespace Testing {

namespace {

template <class T>
T Made(T result)
{
    if (!result)
        throw std::runtime_error(std::string("OpenSSL can't make what the test asks for: ") +
                                 ERR_error_string(ERR_peek_last_error(), nullptr));
    return result;
}

std::shared_ptr<X509_NAME> Name(const std::string& commonName)
{
    const std::shared_ptr<X509_NAME> name(Made(X509_NAME_new()), &X509_NAME_free);
    Made(X509_NAME_add_entry_by_txt(name.get(), "CN", MBSTRING_UTF8,
                                    reinterpret_cast<const unsigned char*>(commonName.data()),
                                    static_cast<int>(commonName.size()), -1, 0));
    return name;
}

void AddNames(X509* certificate, const std::vector<std::string>& names)
{
    const std::shared_ptr<GENERAL_NAMES> all(Made(GENERAL_NAMES_new()), &GENERAL_NAMES_free);
    for (const std::string& text : names) {
        GENERAL_NAME* const name = Made(GENERAL_NAME_new());
        if (text.starts_with("IP:")) {
            GENERAL_NAME_set0_value(name, GEN_IPADD, Made(a2i_IPADDRESS(text.c_str() + 3)));
        } else {
            ASN1_IA5STRING* const value = Made(ASN1_IA5STRING_new());
            Made(ASN1_STRING_set(value, text.data(), static_cast<int>(text.size())));
            GENERAL_NAME_set0_value(name, GEN_DNS, value);
        }
        Made(sk_GENERAL_NAME_push(all.get(), name));
    }
    if (!names.empty())
        Made(X509_add1_ext_i2d(certificate, NID_subject_alt_name, all.get(), 0, X509V3_ADD_DEFAULT));
}

// Adds one extension at a time: the authority key identifier is copied from the issuer's certificate.
void AddExtensions(const Extensions& extensions, X509V3_CTX& context,
                   const std::function<int(X509_EXTENSION*)>& add)
{
    for (const auto& [name, value] : extensions) {
        const std::shared_ptr<X509_EXTENSION> extension(
            Made(X509V3_EXT_nconf(nullptr, &context, name.c_str(), value.c_str())), &X509_EXTENSION_free);
        Made(add(extension.get()));
    }
}

std::string Written(const std::function<int(BIO*)>& write)
{
    const std::shared_ptr<BIO> output(Made(BIO_new(BIO_s_mem())), &BIO_free);
    Made(write(output.get()));
    char* bytes = nullptr;
    const long size = BIO_get_mem_data(output.get(), &bytes);
    return {bytes, static_cast<std::size_t>(size)};
}

// Uses a Diffie-Hellman group, since generating DSA parameters takes seconds.
EVP_PKEY* MakeDsaKey()
{
    const std::shared_ptr<BIGNUM> prime(Made(BN_get_rfc3526_prime_2048(nullptr)), &BN_free);
    const std::shared_ptr<BIGNUM> order(Made(BN_dup(prime.get())), &BN_free), four(Made(BN_new()), &BN_free);
    Made(BN_rshift1(order.get(), order.get()) == 1 && BN_set_word(four.get(), 4) == 1);
    const std::shared_ptr<OSSL_PARAM_BLD> builder(Made(OSSL_PARAM_BLD_new()), &OSSL_PARAM_BLD_free);
    for (const auto& [name, number] : {std::pair("p", prime), {"q", order}, {"g", four}, {"pub", four}})
        Made(OSSL_PARAM_BLD_push_BN(builder.get(), name, number.get()));
    const std::shared_ptr<OSSL_PARAM> parameters(Made(OSSL_PARAM_BLD_to_param(builder.get())),
                                                 &OSSL_PARAM_free);
    const std::shared_ptr<EVP_PKEY_CTX> context(Made(EVP_PKEY_CTX_new_from_name(nullptr, "DSA", nullptr)),
                                                &EVP_PKEY_CTX_free);
    EVP_PKEY* key = nullptr;
    Made(EVP_PKEY_fromdata_init(context.get()) == 1 &&
         EVP_PKEY_fromdata(context.get(), &key, EVP_PKEY_PUBLIC_KEY, parameters.get()) == 1);
    return key;
}

std::shared_ptr<EVP_PKEY> MakeKey(const CertificateForm& form)
{
    if (form.isDsa)
        return {MakeDsaKey(), &EVP_PKEY_free};
    return {Made(form.rsaBits == 0 ? EVP_EC_gen("P-256") : EVP_RSA_gen(static_cast<unsigned>(form.rsaBits))),
            &EVP_PKEY_free};
}

} // namespace

CertificateForm ServerForm(const std::string& hostName)
{
    return {.subject = "Server",
            .issuer = "",
            .names = {hostName},
            .extensions = {{"authorityKeyIdentifier", "keyid"},
                           {"basicConstraints", "critical,CA:FALSE"},
                           {"extendedKeyUsage", "serverAuth"},
                           {"keyUsage", "critical,digitalSignature"},
                           {"subjectKeyIdentifier", "hash"}}};
}

CertificateForm AuthorityForm(const std::string& subject)
{
    return {.subject = subject,
            .issuer = "",
            .names = {},
            .extensions = {{"basicConstraints", "critical,CA:TRUE"},
                           {"keyUsage", "critical,keyCertSign,cRLSign"},
                           {"subjectKeyIdentifier", "hash"}}};
}

Certificate Certificate::SelfSigned(const CertificateForm& form)
{
    return Certificate(form, nullptr, nullptr);
}

Certificate Certificate::Issue(const CertificateForm& form, const Certificate* keyOwner) const
{
    CertificateForm issued = form;
    issued.extensions.try_emplace("authorityKeyIdentifier", "keyid");
    return Certificate(issued, this, keyOwner);
}

Certificate::Certificate(const CertificateForm& form, const Certificate* issuer, const Certificate* keyOwner)
    : m_key(keyOwner == nullptr ? MakeKey(form) : keyOwner->m_key),
      m_certificate(Made(X509_new()), &X509_free)
{
    static long s_serial = 0;
    X509* const made = m_certificate.get();
    const Certificate& signer = issuer == nullptr ? *this : *issuer;
    Made(X509_set_version(made, form.version - 1));
    Made(ASN1_INTEGER_set(X509_get_serialNumber(made), ++s_serial));
    Made(ASN1_TIME_set(X509_getm_notBefore(made), form.notBefore));
    Made(ASN1_TIME_set(X509_getm_notAfter(made), form.notAfter));
    Made(X509_set_subject_name(made, Name(form.subject).get()));
    Made(X509_set_issuer_name(made, form.issuer.empty() ? X509_get_subject_name(signer.m_certificate.get())
                                                        : Name(form.issuer).get()));
    Made(X509_set_pubkey(made, m_key.get()));
    AddNames(made, form.names);
    X509V3_CTX context;
    X509V3_set_ctx(&context, signer.m_certificate.get(), made, nullptr, nullptr, 0);
    AddExtensions(form.extensions, context,
                  [&](X509_EXTENSION* extension) { return X509_add_ext(made, extension, -1); });
    Made(X509_sign(made, signer.m_key.get(), EVP_get_digestbyname(form.digest)));
}

std::string Certificate::Der() const
{
    return Written([&](BIO* output) { return i2d_X509_bio(output, m_certificate.get()); });
}

std::string Certificate::Pem() const
{
    return Written([&](BIO* output) { return PEM_write_bio_X509(output, m_certificate.get()); });
}

std::string Certificate::KeyPem() const
{
    return Written([&](BIO* output) {
        return PEM_write_bio_PrivateKey(output, m_key.get(), nullptr, nullptr, 0, nullptr, nullptr);
    });
}

std::string Certificate::KeyHash() const
{
    const std::string key = Written([&](BIO* output) { return i2d_PUBKEY_bio(output, m_key.get()); });
    unsigned char hash[32];
    Made(EVP_Digest(key.data(), key.size(), hash, nullptr, EVP_sha256(), nullptr));
    std::string text;
    for (const unsigned char byte : hash) {
        char digits[3];
        std::snprintf(digits, sizeof digits, "%02x", byte);
        text += digits;
    }
    return text;
}

std::string Certificate::RevocationList(const std::vector<Certificate>& revoked, long long nextUpdate,
                                        const Extensions& extensions, const Extensions& entryExtensions,
                                        const char* digest) const
{
    const std::shared_ptr<X509_CRL> list(Made(X509_CRL_new()), &X509_CRL_free);
    const std::shared_ptr<ASN1_TIME> start(Made(ASN1_TIME_set(nullptr, JudgementTime - 2000)),
                                           &ASN1_TIME_free);
    const std::shared_ptr<ASN1_TIME> end(Made(ASN1_TIME_set(nullptr, nextUpdate)), &ASN1_TIME_free);
    Made(X509_CRL_set_version(list.get(), 1));
    Made(X509_CRL_set_issuer_name(list.get(), X509_get_subject_name(m_certificate.get())));
    Made(X509_CRL_set1_lastUpdate(list.get(), start.get()));
    if (nextUpdate != NoEnd)
        Made(X509_CRL_set1_nextUpdate(list.get(), end.get()));
    X509V3_CTX context;
    X509V3_set_ctx(&context, m_certificate.get(), nullptr, nullptr, list.get(), 0);
    for (const Certificate& certificate : revoked) {
        X509_REVOKED* const entry = Made(X509_REVOKED_new());
        Made(X509_REVOKED_set_serialNumber(entry, X509_get_serialNumber(certificate.m_certificate.get())));
        Made(X509_REVOKED_set_revocationDate(entry, start.get()));
        Made(X509_CRL_add0_revoked(list.get(), entry));
        AddExtensions(entryExtensions, context,
                      [&](X509_EXTENSION* extension) { return X509_REVOKED_add_ext(entry, extension, -1); });
    }
    Extensions all = extensions;
    all.try_emplace("authorityKeyIdentifier", "keyid");
    AddExtensions(all, context,
                  [&](X509_EXTENSION* extension) { return X509_CRL_add_ext(list.get(), extension, -1); });
    Made(X509_CRL_sign(list.get(), m_key.get(), EVP_get_digestbyname(digest)));
    return Written([&](BIO* output) { return PEM_write_bio_X509_CRL(output, list.get()); });
}

} // namespace Testing
