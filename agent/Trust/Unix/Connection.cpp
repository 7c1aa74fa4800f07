#include "agent/Trust/Connection.h"

#include "agent/Run/AnswerWithin.h"
#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"

#include <fcntl.h>
#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <vector>

namespace Agent {

using Krt::Util::YUnxHandle;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

struct Address
{
    sockaddr_storage bytes;
    socklen_t size;
};

std::vector<Address> LookUp(const Endpoint& server)
{
    addrinfo hints = {};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_NUMERICSERV;
    addrinfo* list = nullptr;
    const int error = getaddrinfo(server.host.c_str(), server.port.c_str(), &hints, &list);
    if (error == EAI_SYSTEM)
        KRT_RAISE_OS("Can't look up " << server.host.c_str());
    KRT_RAISE_UNLESS(error == 0, Krt::ErrorCode::NotFound,
                     "Can't look up " << server.host.c_str() << ": " << gai_strerror(error));
    std::vector<Address> all;
    for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next) {
        all.emplace_back();
        std::memcpy(&all.back().bytes, entry->ai_addr, entry->ai_addrlen);
        all.back().size = entry->ai_addrlen;
    }
    freeaddrinfo(list);
    return all;
}

milliseconds TimeUntil(Deadline deadline)
{
    return std::max(milliseconds(0), std::chrono::ceil<milliseconds>(deadline - steady_clock::now()));
}

// A connected socket; an empty one with errno set.
YUnxHandle ConnectTo(const Address& address, Deadline deadline)
{
    YUnxHandle connection(
        std::max(Krt::Util::MoveAboveStandardStreams(socket(address.bytes.ss_family, SOCK_STREAM, 0)), 0),
        true);
    if (connection.IsEmpty() || fcntl(connection.Get(), F_SETFD, FD_CLOEXEC) != 0 ||
        fcntl(connection.Get(), F_SETFL, O_NONBLOCK) != 0)
        return {};
    if (connect(connection.Get(), reinterpret_cast<const sockaddr*>(&address.bytes), address.size) == 0)
        return connection;
    // A call that a signal interrupts goes on by itself, too.
    if (errno != EINPROGRESS && errno != EINTR)
        return {};
    int error = ETIMEDOUT;
    socklen_t size = sizeof error;
    if (WaitUntilReady(connection, Direction::Write, deadline) &&
        getsockopt(connection.Get(), SOL_SOCKET, SO_ERROR, &error, &size) == 0 && error == 0)
        return connection;
    connection.Close();
    errno = error;
    return {};
}

} // namespace

YUnxHandle ConnectTo(const Endpoint& server, Deadline deadline)
{
    const auto addresses =
        AnswerWithin<std::vector<Address>>(TimeUntil(deadline), [server] { return LookUp(server); });
    errno = ETIMEDOUT;
    for (std::size_t i = 0; addresses && i < addresses->size(); ++i) {
        const auto share = TimeUntil(deadline) / (addresses->size() - i);
        YUnxHandle connection = ConnectTo((*addresses)[i], steady_clock::now() + share);
        if (!connection.IsEmpty())
            return connection;
    }
    KRT_RAISE_OS("Can't connect to " << server.host.c_str() << " port " << server.port.c_str());
}

bool WaitUntilReady(const YUnxHandle& connection, Direction direction, Deadline deadline)
{
    // A signal may come between the question whether one has come and the wait.
    constexpr milliseconds slice(100);
    pollfd entry = {connection.Get(), static_cast<short>(direction == Direction::Read ? POLLIN : POLLOUT), 0};
    for (;;) {
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted");
        const milliseconds left = TimeUntil(deadline);
        if (left <= milliseconds(0))
            return false; // also when more is ready: a server that trickles bytes has no more time either
        const int count = poll(&entry, 1, static_cast<int>(std::min(left, slice).count()));
        if (count < 0 && errno != EINTR)
            KRT_RAISE_OS("Failed to wait for the connection");
        if (count > 0)
            return true;
    }
}

} // namespace Agent
