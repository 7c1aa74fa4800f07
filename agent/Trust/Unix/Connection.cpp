#include "agent/Trust/Handshake.h"

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

using Krt::Util::CallSystem;
using Krt::Util::OsResult;
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
        KRT_RAISE_OS(errno, "Can't look up " << server.host.c_str());
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

// Returns 0, or the error number of a connection that could not be established in time.
int Connect(const YUnxHandle& connection, const Address& address, Deadline deadline)
{
    const auto* const bytes = reinterpret_cast<const sockaddr*>(&address.bytes);
    if (connect(connection.Get(), bytes, address.size) == 0)
        return 0;
    // A call that a signal interrupts also continues in the background.
    if (const int error = errno; error != EINPROGRESS && error != EINTR)
        return error;
    if (!WaitUntilReady(connection, Direction::Write, deadline))
        return ETIMEDOUT;
    int error = 0;
    socklen_t size = sizeof error;
    const auto asked =
        CallSystem([&] { return getsockopt(connection.Get(), SOL_SOCKET, SO_ERROR, &error, &size); });
    return asked ? error : asked.error;
}

// Returns a connected socket.
OsResult<YUnxHandle> ConnectTo(const Address& address, Deadline deadline)
{
    auto made = Krt::Util::OwnAboveStandardStreams(
        CallSystem([&] { return socket(address.bytes.ss_family, SOCK_STREAM, 0); }));
    if (made)
        made.error = CallSystem([&] { return fcntl(made.value.Get(), F_SETFD, FD_CLOEXEC); }).error;
    if (made)
        made.error = CallSystem([&] { return fcntl(made.value.Get(), F_SETFL, O_NONBLOCK); }).error;
    if (made)
        made.error = Connect(made.value, address, deadline);
    return made;
}

} // namespace

YUnxHandle ConnectTo(const Endpoint& server, Deadline deadline)
{
    const auto addresses =
        AnswerWithin<std::vector<Address>>(TimeUntil(deadline), [server] { return LookUp(server); });
    OsResult<YUnxHandle> connection{YUnxHandle(), ETIMEDOUT};
    for (std::size_t i = 0; addresses && i < addresses->size(); ++i) {
        const auto share = TimeUntil(deadline) / (addresses->size() - i);
        connection = ConnectTo((*addresses)[i], steady_clock::now() + share);
        if (connection)
            break;
    }
    return KRT_OS_VALUE(std::move(connection),
                        "Can't connect to " << server.host.c_str() << " port " << server.port.c_str());
}

bool WaitUntilReady(const YUnxHandle& connection, Direction direction, Deadline deadline)
{
    // A signal may arrive between the check for an interrupt and the wait.
    constexpr milliseconds slice(100);
    pollfd entry = {connection.Get(), static_cast<short>(direction == Direction::Read ? POLLIN : POLLOUT), 0};
    for (;;) {
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted");
        const milliseconds left = TimeUntil(deadline);
        if (left <= milliseconds(0))
            return false; // even if data is ready: a server may trickle bytes
        const int count = poll(&entry, 1, static_cast<int>(std::min(left, slice).count()));
        if (count < 0 && errno != EINTR)
            KRT_RAISE_OS(errno, "Failed to wait for the connection");
        if (count > 0)
            return true;
    }
}

} // namespace Agent
