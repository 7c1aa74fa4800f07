#include "agent/Http/Acknowledge.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

namespace Agent::Http {

void AcknowledgeAtOnce(int socket)
{
#ifdef TCP_QUICKACK
    const int isOn = 1; // until the kernel decides otherwise; see tcp(7)
    setsockopt(socket, IPPROTO_TCP, TCP_QUICKACK, &isOn, sizeof(isOn));
#else
    static_cast<void>(socket);
#endif
}

} // namespace Agent::Http
