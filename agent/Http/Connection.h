// Connection: a handle of libcurl, which keeps its connection to the server for the next request. It sends a
// request once. One thread at a time.
#pragma once

#include "agent/Http/Message.h"
#include "agent/Http/RateLimit.h"
#include "agent/Http/ServerTrust.h"

#include <chrono>
#include <functional>
#include <memory>
#include <string>

namespace Agent::Http {

/// What all connections of a client share, and outlives them.
struct ConnectionSettings
{
    std::string origin;                    ///< that of the server; see Address::Origin
    const ServerTrust* trust = nullptr;    ///< null for a server without TLS
    RateLimit& upload;                     ///< of the bodies of requests
    RateLimit& download;                   ///< of the bodies of responses
    std::chrono::milliseconds connectTime; ///< for the connection and the TLS handshake
    /// The longest time without a byte in either direction, and for 16 KiB of a response or its end.
    std::chrono::milliseconds stallTime;
};

/// Why an attempt had no response.
enum class Fault
{
    None,        ///< there is a response
    Unreachable, ///< no connection was made
    Cut,         ///< the connection ended early, or stalled
    Interrupted, ///< the caller asked for the end
    Final        ///< it would fail again, as for a server that is not trusted
};

/// What an attempt had as its result.
struct Attempt
{
    Fault fault = Fault::None;
    std::string reason; ///< of the fault
    /// If there is no fault. Secrets of the request are replaced in the response of a failure and in its
    /// body.
    Response response;
};

class Connection
{
public:
    /// Raises CryptoFailure or NotSupported if libcurl can't be used.
    explicit Connection(const ConnectionSettings& settings);
    ~Connection();

    /// Sends the request and receives the response. The content of `body` is replaced by that of the
    /// response. The attempt ends within 100 ms after `isEnding` returns true.
    Attempt Send(const Request& request, Repo::Bytes& body, const std::function<bool()>& isEnding);

private:
    class Transfer;

    const ConnectionSettings& m_settings;
    struct Handles;
    std::unique_ptr<Handles> m_handles;
};

} // namespace Agent::Http
