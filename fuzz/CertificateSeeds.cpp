// Writes the seeds of the certificates: `CertificateSeeds fuzz/corpus/Certificate`. They are checked in; this
// is how they came about.
#include "testing/CertificateAuthority.h"

#include <cstdlib>
#include <fstream>

using Testing::AuthorityForm;
using Testing::Certificate;
using Testing::ServerForm;

namespace {

std::string directory;

// The parts with their lengths, after flags and host.
void Write(const char* name, char flags, const std::string& host, const std::vector<std::string>& parts)
{
    std::string bytes = flags + host + '\xFF';
    for (const std::string& part : parts) {
        bytes += static_cast<char>(part.size() >> 8);
        bytes += static_cast<char>(part.size() & 0xFF);
        bytes += part;
    }
    std::ofstream file(directory + "/" + name, std::ios::binary);
    if (!file.write(bytes.data(), static_cast<std::streamsize>(bytes.size())).flush()) {
        std::perror(name);
        std::exit(1);
    }
}

} // namespace

int main(int, char** argv)
{
    directory = argv[1];
    const Certificate root = Certificate::SelfSigned(AuthorityForm("Authority"));
    const Certificate between = root.Issue(AuthorityForm("Between"));
    const Certificate server = between.Issue(ServerForm("*.example.org"));
    const Certificate address = root.Issue(ServerForm("IP:192.0.2.1"));
    Testing::CertificateForm odd = AuthorityForm("Narrow");
    odd.extensions["nameConstraints"] = "critical,permitted;DNS:example.org,excluded;DNS:no.example.org";
    const Certificate narrow = root.Issue(odd);
    const Certificate bare = Certificate::SelfSigned({.subject = "Stars\xE2\x98\x85",
                                                      .issuer = "Authority",
                                                      .names = {"example.org"},
                                                      .extensions = {},
                                                      .version = 1});

    Write("chain", 0, "www.example.org", {"", root.Der(), server.Der(), between.Der()});
    Write("revocation-list", 4, "192.0.2.1",
          {root.RevocationList({between}), root.Der(), address.Der(), root.Der()});
    Write("revoked", 4, "192.0.2.1", {root.RevocationList({address}), root.Pem(), address.Der()});
    Write("names-constrained", 0, "no.example.org",
          {"", root.Der(), narrow.Issue(ServerForm("no.example.org")).Der(), narrow.Der()});
    Write("its-own-anchor", 2, "[2001:db8::1%1]", {"", "", root.Issue(ServerForm("IP:2001:db8::1")).Der()});
    Write("chain-as-text", 0, "www.example.org.", {"", root.Pem(), server.Pem() + between.Pem()});
    Write("stranger", 1, "example.org", {"", "", bare.Der()});
    return 0;
}
