// A TLS handshake whose only purpose is to see the server's certificate. It is done with any server, so that
// a bad certificate gets as far as being judged; the library judges it, and nothing is ever sent behind the
// handshake.
#pragma once

#include "agent/Trust/Connection.h"

#include <memory>
#include <string>

struct ssl_st;

namespace Agent {

class Handshake
{
public:
    /// Connects and shakes hands. `name` is the one that the server is asked for; an IP address is not sent.
    /// Raises as ConnectTo, and CryptoFailure with OpenSSL's reason.
    Handshake(const Endpoint& server, const std::string& name, Deadline deadline);

    ssl_st* GetConnection() const { return m_tls.get(); }

private:
    void Finish(const Endpoint& server, Deadline deadline);

    Krt::Util::YUnxHandle m_connection;
    std::shared_ptr<ssl_st> m_tls;
};

} // namespace Agent
