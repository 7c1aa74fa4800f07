// Creates keys, certificates and revocation lists, including invalid ones that no CA would sign.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

struct evp_pkey_st;
struct x509_st;

namespace Testing {

/// The time of verification, in seconds since 1970.
constexpr long long JudgementTime = 1700000000;

/// Values in the syntax of OpenSSL's configuration, by OpenSSL's short names.
using Extensions = std::map<std::string, std::string>;

/// The contents of a certificate.
struct CertificateForm
{
    std::string subject; ///< common name, UTF-8
    std::string issuer;  ///< the signer's subject if empty
    /// Alternative names: addresses with the prefix "IP:"; others are host names, byte for byte.
    std::vector<std::string> names;
    Extensions extensions;
    long long notBefore = JudgementTime - 1000;
    long long notAfter = JudgementTime + 1000;
    int rsaBits = 0;    ///< of the key; 0 for one on the curve P-256
    bool isDsa = false; ///< a DSA key of 2048 bits, which cannot sign
    const char* digest = "SHA256";
    long version = 3;
};

CertificateForm ServerForm(const std::string& hostName);
CertificateForm AuthorityForm(const std::string& subject);

class Certificate
{
public:
    static Certificate SelfSigned(const CertificateForm& form);
    /// Issues a certificate for a new key, or for the key of `keyOwner`.
    Certificate Issue(const CertificateForm& form, const Certificate* keyOwner = nullptr) const;

    std::string Der() const;
    std::string Pem() const;
    std::string KeyPem() const;
    /// SHA-256 of the public key, in lower-case digits.
    std::string KeyHash() const;
    static constexpr long long NoEnd = 0;
    /// Returns a list of this issuer in PEM. `entryExtensions` are added to each entry.
    std::string RevocationList(const std::vector<Certificate>& revoked,
                               long long nextUpdate = JudgementTime + 1000, const Extensions& extensions = {},
                               const Extensions& entryExtensions = {}, const char* digest = "SHA256") const;

private:
    Certificate(const CertificateForm& form, const Certificate* issuer, const Certificate* keyOwner);

    std::shared_ptr<evp_pkey_st> m_key;
    std::shared_ptr<x509_st> m_certificate;
};

} // namespace Testing
