// Makes keys, certificates and revocation lists, right ones and such as no authority would sign.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

struct evp_pkey_st;
struct x509_st;

namespace Testing {

/// When judgements take place.
constexpr long long JudgementTime = 1700000000;

/// By OpenSSL's short names, in the words of its configuration.
using Extensions = std::map<std::string, std::string>;

/// What a certificate says.
struct CertificateForm
{
    std::string subject; ///< common name, UTF-8
    std::string issuer;  ///< as the certificate tells it, where that isn't the signer's subject
    /// Alternative names, "IP:" in front of an address; others are host names, byte for byte.
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
    /// PEM, of this issuer. The last extensions are those of each entry.
    std::string RevocationList(const std::vector<Certificate>& revoked,
                               long long nextUpdate = JudgementTime + 1000, const Extensions& extensions = {},
                               const Extensions& entryExtensions = {}, const char* digest = "SHA256") const;

private:
    Certificate(const CertificateForm& form, const Certificate* issuer, const Certificate* keyOwner);

    std::shared_ptr<evp_pkey_st> m_key;
    std::shared_ptr<x509_st> m_certificate;
};

} // namespace Testing
