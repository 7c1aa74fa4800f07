// A TLS handshake that only obtains the server's certificate. It accepts any certificate, which the library
// verifies afterwards. Nothing is sent after the handshake.
#pragma once

#include "agent/Trust/Connection.h"

#include <memory>
#include <string>

struct ssl_st;

namespace Agent {

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
