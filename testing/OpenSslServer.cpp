#include "testing/OpenSslServer.h"

#include <csignal>

namespace Testing {

OpenSslServer::OpenSslServer(const std::vector<std::string>& arguments)
{
    std::string command = "echo $$; exec openssl s_server -accept 127.0.0.1:0 -www";
    for (const std::string& argument : arguments)
        command += " '" + argument + "'";
    m_output = popen((command + " </dev/null 2>/dev/null").c_str(), "re");
    // The shell prints its process id, which is also that of openssl. openssl prints "ACCEPT 127.0.0.1:PORT"
    // once it listens.
    char buffer[256];
    while (m_output != nullptr && m_port.empty() && std::fgets(buffer, sizeof buffer, m_output) != nullptr) {
        const std::string line(buffer);
        if (m_process == -1)
            m_process = std::stoi(line);
        else if (line.starts_with("ACCEPT "))
            m_port = line.substr(line.rfind(':') + 1, line.find('\n') - line.rfind(':') - 1);
    }
}

OpenSslServer::~OpenSslServer()
{
    if (m_output == nullptr)
        return;
    if (m_process > 0)
        kill(m_process, SIGKILL);
    pclose(m_output);
}

} // namespace Testing
