// A TLS server, run by the program openssl on a free port of the loopback interface.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

namespace Testing {

class OpenSslServer
{
public:
    /// Arguments of "openssl s_server".
    explicit OpenSslServer(const std::vector<std::string>& arguments);
    ~OpenSslServer();
    OpenSslServer(const OpenSslServer&) = delete;
    OpenSslServer& operator=(const OpenSslServer&) = delete;

    /// Returns the port; empty if the program is missing or could not start.
    const std::string& Port() const { return m_port; }

private:
    int m_process = -1;
    std::FILE* m_output = nullptr;
    std::string m_port;
};

} // namespace Testing
