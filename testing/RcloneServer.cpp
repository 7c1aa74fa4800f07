#include "testing/RcloneServer.h"

#include <arpa/inet.h>
#include <csignal>
#include <cstdlib>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

namespace {

sockaddr_in Loopback(in_port_t port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = port;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

in_port_t FreePort()
{
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof(address);
    bind(probe, reinterpret_cast<sockaddr*>(&address), size);
    getsockname(probe, reinterpret_cast<sockaddr*>(&address), &size);
    close(probe);
    return address.sin_port;
}

bool IsListening(in_port_t port)
{
    const int probe = socket(AF_INET, SOCK_STREAM, 0);
    const sockaddr_in address = Loopback(port);
    const bool isListening =
        connect(probe, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0;
    close(probe);
    return isListening;
}

} // namespace

RcloneServer::RcloneServer(const std::string& directory)
{
    const in_port_t port = FreePort();
    const std::string place = "127.0.0.1:" + std::to_string(ntohs(port));
    m_process = fork();
    if (m_process == 0) {
        const int none = open("/dev/null", O_RDWR);
        for (const int descriptor : {0, 1, 2})
            dup2(none, descriptor);
        setenv("RCLONE_CONFIG", "/dev/null", 1);
        execlp("rclone", "rclone", "serve", "restic", "--addr", place.c_str(), directory.c_str(), nullptr);
        _exit(127);
    }
    for (int tries = 0; tries < 300 && waitpid(m_process, nullptr, WNOHANG) == 0; ++tries) {
        if (IsListening(port)) {
            m_place = place;
            return;
        }
        usleep(50'000);
    }
}

RcloneServer::~RcloneServer()
{
    if (m_place.empty())
        return; // it has ended
    kill(m_process, SIGKILL);
    waitpid(m_process, nullptr, 0);
}

} // namespace Testing
