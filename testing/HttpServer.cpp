#include "testing/HttpServer.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <arpa/inet.h>
#include <chrono>
#include <netinet/in.h>
#include <poll.h>
#include <sstream>
#include <sys/socket.h>
#include <unistd.h>

namespace Testing {

namespace {

constexpr int BetweenLooks = 20; // milliseconds

sockaddr_in Loopback(unsigned short port)
{
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::string Lower(std::string text)
{
    std::transform(text.begin(), text.end(), text.begin(),
                   [](unsigned char byte) { return static_cast<char>(std::tolower(byte)); });
    return text;
}

void ParseHead(HttpRequest& request)
{
    std::istringstream lines(request.head);
    lines >> request.method >> request.target;
    std::string line;
    std::getline(lines, line);
    while (std::getline(lines, line)) {
        const std::size_t colon = line.find(": ");
        if (colon != line.npos)
            request.headers[Lower(line.substr(0, colon))] =
                line.substr(colon + 2, line.find('\r') - colon - 2);
    }
}

} // namespace

HttpAnswer Answer(int status, const std::string& body, const std::string& headers)
{
    return {"HTTP/1.1 " + std::to_string(status) +
            " Status\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" + headers + "\r\n" + body};
}

HttpServer::HttpServer(Handler handler) : m_handler(std::move(handler))
{
    m_listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof(address);
    EXPECT_EQ(bind(m_listener, reinterpret_cast<sockaddr*>(&address), size), 0);
    EXPECT_EQ(listen(m_listener, 64), 0);
    EXPECT_EQ(getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
    m_place = "127.0.0.1:" + std::to_string(ntohs(address.sin_port));
    m_acceptor = std::thread([this] { Accept(); });
}

HttpServer::~HttpServer()
{
    m_isEnding = true;
    m_acceptor.join();
    for (std::thread& connection : m_connections)
        connection.join();
    close(m_listener);
}

// Returns false when the server ends.
bool HttpServer::Wait(int descriptor, short events) const
{
    for (pollfd wanted{descriptor, events, 0}; !m_isEnding;) {
        if (poll(&wanted, 1, BetweenLooks) > 0)
            return true;
    }
    return false;
}

void HttpServer::Accept()
{
    while (Wait(m_listener, POLLIN)) {
        if (const int connection = accept(m_listener, nullptr, nullptr); connection >= 0)
            m_connections.emplace_back([this, connection] { Serve(connection); });
    }
}

bool HttpServer::ReadRequest(int connection, std::string& buffer, HttpRequest& request) const
{
    const auto readMore = [&] {
        char bytes[65536];
        const ssize_t count = Wait(connection, POLLIN) ? recv(connection, bytes, sizeof(bytes), 0) : 0;
        buffer.append(bytes, count > 0 ? static_cast<std::size_t>(count) : 0);
        return count > 0;
    };
    std::size_t end = 0;
    while ((end = buffer.find("\r\n\r\n")) == buffer.npos) {
        if (!readMore())
            return false;
        if (buffer.starts_with('\x16')) { // a client that uses TLS
            buffer.clear();
            return true;
        }
    }
    request.head = buffer.substr(0, end + 4);
    buffer.erase(0, end + 4);
    ParseHead(request);
    const auto length = request.headers.find("content-length");
    const std::size_t size = length == request.headers.end() ? 0 : std::stoull(length->second);
    while (buffer.size() < size) {
        if (!readMore())
            return false;
    }
    request.body = buffer.substr(0, size);
    buffer.erase(0, size);
    return true;
}

bool HttpServer::Send(int connection, const std::string& bytes) const
{
    for (std::size_t sent = 0; sent < bytes.size();) {
        if (!Wait(connection, POLLOUT))
            return false;
        const ssize_t count =
            send(connection, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count <= 0)
            return false;
        sent += static_cast<std::size_t>(count);
    }
    return true;
}

void HttpServer::Serve(int connection)
{
    std::string buffer;
    for (;;) {
        HttpRequest request;
        if (!ReadRequest(connection, buffer, request))
            break;
        HttpAnswer answer;
        {
            const std::lock_guard guard(m_mutex);
            request.number = ++m_count;
            answer = m_handler(request);
        }
        bool goesOn = Send(connection, answer.bytes);
        while (goesOn && !answer.repeated.empty()) {
            std::this_thread::sleep_for(answer.pause);
            goesOn = Send(connection, answer.repeated);
        }
        if (answer.isSilent)
            Wait(connection, POLLIN); // until the client closes
        if (!goesOn || answer.isCut || answer.isSilent)
            break;
    }
    close(connection);
}

HttpServer::Handler ForwardTo(const std::string& port)
{
    return [port](const HttpRequest& request) {
        HttpAnswer answer;
        answer.isCut = true;
        const int server = socket(AF_INET, SOCK_STREAM, 0);
        const sockaddr_in address = Loopback(static_cast<unsigned short>(std::stoul(port)));
        if (connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) == 0) {
            // The end of the answer is that of the connection.
            const std::string bytes =
                request.head.substr(0, request.head.size() - 2) + "Connection: close\r\n\r\n" + request.body;
            for (std::size_t sent = 0; sent < bytes.size();) {
                const ssize_t count = send(server, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
                if (count <= 0)
                    break;
                sent += static_cast<std::size_t>(count);
            }
            char part[65536];
            for (ssize_t count = 0; (count = recv(server, part, sizeof(part), 0)) > 0;)
                answer.bytes.append(part, static_cast<std::size_t>(count));
        }
        close(server);
        return answer;
    };
}

const std::vector<HttpFault>& TemporaryFaults()
{
    using Next = HttpServer::Handler;
    const auto status = [](int number, const char* headers) {
        return [=](const Next&, const HttpRequest&) {
            return Answer(number, "later", headers);
        };
    };
    static const std::vector<HttpFault> faults = {
        {"cut before the request is read by the store",
         [](const Next&, const HttpRequest&) {
             return HttpAnswer{"", true};
         }},
        {"answer is lost",
         [](const Next& next, const HttpRequest& request) {
             next(request);
             return HttpAnswer{"", true};
         }},
        {"answer is truncated",
         [](const Next& next, const HttpRequest& request) {
             const std::string bytes = next(request).bytes;
             return HttpAnswer{bytes.substr(0, bytes.size() - std::min<std::size_t>(bytes.size(), 3)), true};
         }},
        {"answer is late",
         [](const Next& next, const HttpRequest& request) {
             HttpAnswer late = next(request);
             std::this_thread::sleep_for(std::chrono::milliseconds(50));
             return late;
         }},
        {"request comes twice",
         [](const Next& next, const HttpRequest& request) {
             next(request);
             return next(request);
         }},
        {"500", status(500, "")},
        {"503", status(503, "Retry-After: 0\r\n")},
        {"429", status(429, "Retry-After: 0\r\n")},
    };
    return faults;
}

} // namespace Testing
