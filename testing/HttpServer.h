// An HTTP server within the test, on a free port of the loopback interface. It sends what the test makes up,
// right or wrong, or passes the requests of a client to a real server and spoils some of the answers.
#pragma once

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace Testing {

struct HttpRequest
{
    std::string head; ///< with the empty line at its end
    std::string method;
    std::string target;
    std::map<std::string, std::string> headers; ///< names in lower case
    std::string body;
    unsigned int number = 0; ///< of all requests to the server, from 1
};

struct HttpAnswer
{
    std::string bytes;                  ///< sent as they are
    bool isCut = false;                 ///< the connection is closed after them
    bool isSilent = false;              ///< nothing follows them, and the connection stays open
    std::string repeated = {};          ///< if not empty, sent without end after them
    std::chrono::milliseconds pause{0}; ///< before each of these
};

/// A well-formed answer. `headers` are lines with their ends.
HttpAnswer Answer(int status, const std::string& body = "", const std::string& headers = "");

class HttpServer
{
public:
    /// Called for each request, by one thread at a time.
    using Handler = std::function<HttpAnswer(const HttpRequest& request)>;

    explicit HttpServer(Handler handler);
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    /// "127.0.0.1:PORT".
    const std::string& Place() const { return m_place; }
    /// The requests that came so far.
    unsigned int Count() const { return m_count; }

private:
    void Accept();
    void Serve(int connection);
    bool ReadRequest(int connection, std::string& buffer, HttpRequest& request) const;
    bool Send(int connection, const std::string& bytes) const;
    bool Wait(int descriptor, short events) const;

    Handler m_handler;
    std::mutex m_mutex; // for calls of the handler
    std::string m_place;
    int m_listener = -1;
    std::atomic<bool> m_isEnding{false};
    std::atomic<unsigned int> m_count{0};
    std::vector<std::thread> m_connections; // of m_acceptor
    std::thread m_acceptor;
};

/// A handler that passes requests on to the server at 127.0.0.1:`port`, and its answers back.
HttpServer::Handler ForwardTo(const std::string& port);

/// What is done to an answer on its way.
struct HttpFault
{
    const char* label;
    std::function<HttpAnswer(const HttpServer::Handler& next, const HttpRequest& request)> spoil;
};
/// Faults that a client has to survive: cut, truncated and late answers, ones that are lost after the server
/// did its work, requests that arrive twice, and the status 500, 503 and 429.
const std::vector<HttpFault>& TemporaryFaults();

} // namespace Testing
