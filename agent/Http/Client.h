// Client: sends requests to one server, and repeats those that may succeed later. Any number of threads may
// use it at once; each request in progress has a connection of its own, which is kept for the next one.
#pragma once

#include "agent/Http/Address.h"
#include "agent/Http/Connection.h"

#include "Krt/Thread/ThreadSafety.h"

#include <atomic>
#include <chrono>
#include <memory>
#include <optional>
#include <vector>

namespace Agent::Http {

struct ClientSettings
{
    TrustSettings trust;
    std::uint64_t uploadLimit = 0;   ///< bytes a second of all connections; 0 for no limit
    std::uint64_t downloadLimit = 0; ///< bytes a second of all connections; 0 for no limit

    std::chrono::milliseconds connectTime{std::chrono::seconds(30)};
    std::chrono::milliseconds stallTime{std::chrono::minutes(5)};
    /// How often a request is sent, at most. Until the server has responded for the first time, one that
    /// can't be reached is tried less often, since its name may be wrong.
    unsigned int attempts = 10;
    unsigned int firstAttempts = 3;
    /// The wait before the second attempt. Each further one is twice as long. All are shortened by Shortened.
    std::chrono::milliseconds firstWait{500};
    std::chrono::milliseconds longestWait{std::chrono::seconds(30)};
    /// The longest wait that a server can ask for.
    std::chrono::milliseconds longestAskedWait{std::chrono::minutes(2)};
    /// After an interrupt, requests with a grace end within this time.
    std::chrono::milliseconds graceTime{1500};
};

class Client
{
public:
    /// Does not connect yet. Raises what ServerTrust raises.
    Client(const Address& server, ClientSettings settings = {});
    ~Client();
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /// Sends a request until there is a response that is not temporary, and returns that; or the last one
    /// that is. The content of `body` is replaced. Raises Failure::Unreachable if the last attempt had no
    /// connection, Failure::Backend if there is no response for another reason, InvalidState when the user
    /// interrupts, and what SendGuard::Require raises before each attempt. Reports a request that failed
    /// twice, once a minute.
    Response Send(const Request& request, Repo::Bytes& body);

private:
    class Lease;

    bool MayRepeat(const Attempt& attempt, const Request& request, Repo::ByteView body) const;
    unsigned int LimitFor(const Attempt& attempt) const;
    std::chrono::milliseconds WaitAfter(const Attempt& attempt, unsigned int number) const;
    void NoteFailure(const std::string& reason);
    bool IsEnding(const Request& request) const;
    void Wait(std::chrono::milliseconds time, const Request& request) const;
    [[noreturn]] void RaiseInterrupted(const Request& request) const;

    ClientSettings m_settings;
    std::string m_host;
    std::optional<ServerTrust> m_trust;
    RateLimit m_upload;
    RateLimit m_download;
    ConnectionSettings m_connectionSettings;
    std::atomic<bool> m_hasResponded{false};
    std::atomic<std::chrono::steady_clock::time_point> m_nextNote{};
    Krt::Thread::AnnotatedMutex m_mutex;
    std::vector<std::unique_ptr<Connection>> m_idle KRT_GUARDED_BY(m_mutex);
};

} // namespace Agent::Http
