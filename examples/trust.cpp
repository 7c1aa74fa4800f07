// trust CERTIFICATE HOST [ANCHORS]: whether a certificate would be trusted for a host, and if not, why.
// Learn: a bad certificate is an answer with a report and never an exception; what raises is an argument that
// can't be used. Without anchors of its own a program trusts the system's store.
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
