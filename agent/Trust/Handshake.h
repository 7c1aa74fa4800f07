// TCP connections with a deadline, and the TLS handshake that obtains a server's certificate. An interrupt of
// the program ends every wait and raises InvalidState.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <chrono>
#include <memory>
#include <string>

struct ssl_st;

namespace Agent {

using Deadline = std::chrono::steady_clock::time_point;

struct Endpoint
{
    std::string host; ///< without brackets
    std::string port; ///< 1 to 65535
};

/// Returns a non-blocking connection. The addresses of the host are tried one after the other, each for its
/// share of the remaining time. Raises NotFound if the host can't be looked up, ETIMEDOUT at the deadline,
/// and otherwise the operating system's error for the last address.
Krt::Util::YUnxHandle ConnectTo(const Endpoint& server, Deadline deadline);

enum class Direction
{
    Read,
    Write
};

/// Waits and returns true if the connection became ready before the deadline.
bool WaitUntilReady(const Krt::Util::YUnxHandle& connection, Direction direction, Deadline deadline);

/// A TLS handshake that only obtains the server's certificate. It accepts any certificate, which the library
/// verifies afterwards. Nothing is sent after the handshake.
class Handshake
{
public:
    /// Connects and performs the handshake. `name` is sent as the server name, unless it is an IP address.
    /// Raises the errors of ConnectTo, and CryptoFailure with OpenSSL's reason.
    Handshake(const Endpoint& server, const std::string& name, Deadline deadline);

    /// Returns the connection, which this object owns.
    ssl_st* GetConnection() const { return m_tls.get(); }

private:
    void Finish(const Endpoint& server, Deadline deadline);

    Krt::Util::YUnxHandle m_connection;
    std::shared_ptr<ssl_st> m_tls;
};

} // namespace Agent
