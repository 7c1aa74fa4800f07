#include "testing/OpenSslServer.h"

#include <csignal>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

namespace {

[[noreturn]] void Become(const std::vector<std::string>& arguments, int output)
{
    std::vector<std::string> all{"openssl", "s_server", "-accept", "127.0.0.1:0", "-www"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> vector;
    for (std::string& argument : all)
        vector.push_back(argument.data());
    vector.push_back(nullptr);
    dup2(open("/dev/null", O_RDWR), 0);
    dup2(output, 1);
    dup2(0, 2);
    execvp("openssl", vector.data());
    _exit(127);
}

} // namespace

OpenSslServer::OpenSslServer(const std::vector<std::string>& arguments)
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        return;
    m_process = fork();
    if (m_process == 0)
        Become(arguments, ends[1]);
    close(ends[1]);
    m_output = ends[0];
    // It says "ACCEPT 127.0.0.1:PORT" once it listens.
    std::string line;
    for (char byte; read(m_output, &byte, 1) == 1;) {
        if (byte != '\n') {
            line += byte;
        } else if (line.starts_with("ACCEPT ")) {
            m_port = line.substr(line.rfind(':') + 1);
            return;
        } else {
            line.clear();
        }
    }
}

OpenSslServer::~OpenSslServer()
{
    if (m_process > 0) {
        kill(m_process, SIGKILL);
        waitpid(m_process, nullptr, 0);
    }
    close(m_output);
}

} // namespace Testing
