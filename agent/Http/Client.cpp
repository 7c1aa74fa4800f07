#include "agent/Http/Client.h"

#include "agent/Http/SendGuard.h"
#include "agent/Http/Shortened.h"
#include "agent/Repository/Failure.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Output.h"
#include "agent/Run/Text.h"

#include "Krt/Log/LogSite.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <ctime>
#include <thread>

namespace Agent::Http {

using Krt::YString;
using Krt::Thread::AnnotatedLock;
using Repo::Failure;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds BetweenLooks{50};
constexpr unsigned int NotedAttempt = 2; // the first one that fails is not worth a note
constexpr std::chrono::minutes BetweenNotes{1};

// The time since the user interrupted, as far as this program has noticed it.
milliseconds SinceInterrupt()
{
    static const steady_clock::time_point noticed = steady_clock::now();
    return std::chrono::duration_cast<milliseconds>(steady_clock::now() - noticed);
}

bool IsTemporaryStatus(int status)
{
    switch (status) {
    case 408: // Request Timeout
    case 429: // Too Many Requests
        return true;
    case 501: // Not Implemented
    case 505: // HTTP Version Not Supported
    case 507: // Insufficient Storage
        return false;
    default:
        return status >= 500;
    }
}

// Either seconds or a date; nothing for anything else.
std::optional<milliseconds> ParseRetryAfter(std::string_view text)
{
    constexpr long long Most = 24 * 3600;
    long long seconds = 0;
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, seconds);
    if (text.empty() || error != std::errc() || stop != end) {
        const std::time_t date = curl_getdate(std::string(text).c_str(), nullptr);
        if (date < 0)
            return std::nullopt;
        seconds = static_cast<long long>(date) - static_cast<long long>(std::time(nullptr));
    }
    return std::chrono::seconds(std::clamp(seconds, 0LL, Most));
}

} // namespace

// A connection for one attempt, which is given back afterwards unless it is dropped.
class Client::Lease
{
public:
    explicit Lease(Client& client) : m_client(client)
    {
        {
            const AnnotatedLock lock(client.m_mutex);
            if (!client.m_idle.empty()) {
                m_connection = std::move(client.m_idle.back());
                client.m_idle.pop_back();
            }
        }
        if (!m_connection)
            m_connection = std::make_unique<Connection>(client.m_connectionSettings);
    }
    ~Lease()
    {
        if (!m_connection)
            return;
        try {
            const AnnotatedLock lock(m_client.m_mutex);
            m_client.m_idle.push_back(std::move(m_connection));
        } catch (const std::bad_alloc&) {
            // The connection is closed.
        }
    }
    Lease(const Lease&) = delete;
    Lease& operator=(const Lease&) = delete;

    Connection& Get() { return *m_connection; }
    // Closes the connection.
    void Drop() { m_connection.reset(); }

private:
    Client& m_client;
    std::unique_ptr<Connection> m_connection;
};

Client::Client(const Address& server, ClientSettings settings)
    : m_settings(std::move(settings)), m_host(server.HostAndPort()), m_upload(m_settings.uploadLimit),
      m_download(m_settings.downloadLimit),
      m_connectionSettings{server.Origin(),     nullptr, m_upload, m_download, m_settings.connectTime,
                           m_settings.stallTime}
{
    if (!server.isSecure)
        return;
    m_trust.emplace(server.host, m_settings.trust);
    m_connectionSettings.trust = &*m_trust;
}

Client::~Client() = default;

Response Client::Send(const Request& request, Repo::Bytes& body)
{
    for (unsigned int number = 1;; ++number) {
        SendGuard::Require();
        Attempt attempt;
        {
            Lease connection(*this);
            attempt = connection.Get().Send(request, body,
                                            [&] { return IsEnding(request) || !SendGuard::MaySend(); });
            if (attempt.fault != Fault::None)
                connection.Drop(); // after a failed lookup, libcurl does not accept all options again
        }
        if (attempt.fault == Fault::Interrupted && IsEnding(request))
            RaiseInterrupted(request);
        if (attempt.fault == Fault::None)
            m_hasResponded = true;
        const bool mayRepeat = MayRepeat(attempt, request, body);
        if (!mayRepeat || number >= LimitFor(attempt)) {
            if (attempt.fault == Fault::None)
                return std::move(attempt.response);
            REPOSITORY_RAISE(attempt.fault == Fault::Unreachable ? Failure::Unreachable : Failure::Backend,
                             m_host.c_str() << ": " << YString(std::string_view(attempt.reason)));
        }
        const std::string reason = attempt.fault == Fault::None
                                       ? "status " + std::to_string(attempt.response.status)
                                       : attempt.reason;
        KRT_LOG_FREE(Krt::MessageType::General,
                     "Attempt " << number << " of " << NameOf(request.method) << " at " << m_host.c_str()
                                << " failed: " << YString(std::string_view(reason)));
        if (number == NotedAttempt && attempt.fault != Fault::Interrupted && !IsInterrupted())
            NoteFailure(reason);
        Wait(WaitAfter(attempt, number), request);
    }
}

bool Client::MayRepeat(const Attempt& attempt, const Request& request, Repo::ByteView body) const
{
    if (attempt.fault != Fault::None)
        return attempt.fault != Fault::Final;
    const Response& response = attempt.response;
    return !response.IsSuccess() &&
           (IsTemporaryStatus(response.status) || request.isTemporary(response.status, Repo::AsText(body)));
}

unsigned int Client::LimitFor(const Attempt& attempt) const
{
    return attempt.fault == Fault::Unreachable && !m_hasResponded ? m_settings.firstAttempts
                                                                  : m_settings.attempts;
}

milliseconds Client::WaitAfter(const Attempt& attempt, unsigned int number) const
{
    constexpr unsigned int MostDoublings = 16;
    const milliseconds doubled = m_settings.firstWait * (1 << std::min(number - 1, MostDoublings));
    const milliseconds wait = Shortened(std::min(doubled, m_settings.longestWait));
    const std::optional<milliseconds> asked = ParseRetryAfter(attempt.response.Find("retry-after"));
    return asked ? std::max(wait, std::min(*asked, m_settings.longestAskedWait)) : wait;
}

// Report can't be used, since it is for one thread. The progress on the terminal is erased and printed again.
void Client::NoteFailure(const std::string& reason)
{
    const steady_clock::time_point now = steady_clock::now();
    steady_clock::time_point next = m_nextNote;
    if (now >= next && HasRoomForErrors() && m_nextNote.compare_exchange_strong(next, now + BetweenNotes))
        PrintError((IsErrorTerminal() ? "\r\033[Kkbagent: " : "kbagent: ") +
                   Printable(m_host + ": " + reason + "; trying again") + "\n");
}

bool Client::IsEnding(const Request& request) const
{
    if (!IsInterrupted())
        return false;
    const milliseconds grace = request.grace == Grace::Half ? m_settings.graceTime / 2 : m_settings.graceTime;
    return SinceInterrupt() >= grace || request.grace == Grace::None;
}

void Client::Wait(milliseconds time, const Request& request) const
{
    const auto end = steady_clock::now() + time;
    for (auto now = steady_clock::now(); now < end; now = steady_clock::now()) {
        if (IsEnding(request))
            RaiseInterrupted(request);
        std::this_thread::sleep_for(std::min<steady_clock::duration>(BetweenLooks, end - now));
    }
}

void Client::RaiseInterrupted(const Request& request) const
{
    KRT_RAISE_UNLESS(request.grace == Grace::None, Krt::ErrorCode::InvalidState,
                     m_host.c_str() << " did not respond in time after the interrupt");
    KRT_RAISE(Krt::ErrorCode::InvalidState, "Interrupted");
}

} // namespace Agent::Http
