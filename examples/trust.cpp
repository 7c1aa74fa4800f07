// trust CERTIFICATE HOST [ANCHORS]: prints whether a certificate would be trusted for a host, and why not.
// Learn: a bad certificate never raises: the result is false, with a report. An unusable argument raises.
// Without anchors, a program trusts the system's store.
#include "Backup/Core/OpenSSL.h"
#include "Krt/Exception/YError.h"

#include <iostream>

int main(int argc, char** argv)
{
    if (argc < 3) {
        std::cerr << "Usage: trust CERTIFICATE HOST [ANCHORS]\n";
        return 2;
    }
    try {
        Backup::OpenSSL::TrustOptions options;
        if (argc > 3)
            options.anchorFiles.emplace_back(argv[3]);
        Backup::OpenSSL::TrustReport report;
        const std::string certificate = Backup::OpenSSL::ReadCertificateFile(argv[1]);
        if (Backup::OpenSSL::IsCertificateTrusted(certificate, {}, argv[2], options, &report))
            std::cout << "trusted\n";
        else
            std::cout << "not trusted: " << report.reason << "\n";
    } catch (const Krt::Exception::YError& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
