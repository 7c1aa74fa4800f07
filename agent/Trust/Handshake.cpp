#include "agent/Trust/Handshake.h"

#include "Krt/Exception/Raise.h"

#include <openssl/err.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

namespace Agent {

namespace {

void RequireDone(bool done)
{
    if (done)
        return;
    const char* const reason = ERR_reason_error_string(ERR_get_error());
    KRT_RAISE_AS("Handshake", Krt::MessageType::General, Krt::ErrorCode::CryptoFailure,
                 "TLS can't be set up: " << (reason == nullptr ? "OpenSSL reports no reason" : reason));
}

std::shared_ptr<SSL> MakeClient()
{
    const std::shared_ptr<SSL_CTX> context(SSL_CTX_new(TLS_client_method()), &SSL_CTX_free);
    RequireDone(context != nullptr && SSL_CTX_set_min_proto_version(context.get(), TLS1_2_VERSION) == 1);
    SSL_CTX_set_verify(context.get(), SSL_VERIFY_NONE, nullptr);
    // The handshake with a server whose key is weak must succeed, so that the key can be reported.
    SSL_CTX_set_security_level(context.get(), 0);
    std::shared_ptr<SSL> client(SSL_new(context.get()), &SSL_free);
    RequireDone(client != nullptr);
    return client;
}

// Returns the server name to send, without a trailing dot, or "" for an IP address.
std::string ServerNameToSend(std::string name)
{
    if (name.ends_with('.'))
        name.pop_back();
    const std::shared_ptr<ASN1_OCTET_STRING> address(a2i_IPADDRESS(name.c_str()), &ASN1_OCTET_STRING_free);
    return address != nullptr || name.find(':') != std::string::npos ? "" : name;
}

} // namespace

Handshake::Handshake(const Endpoint& server, const std::string& name, Deadline deadline)
    : m_connection(ConnectTo(server, deadline)), m_tls(MakeClient())
{
    RequireDone(SSL_set_fd(m_tls.get(), m_connection.Get()) == 1);
    const std::string sentName = ServerNameToSend(name);
    if (!sentName.empty())
        RequireDone(SSL_set_tlsext_host_name(m_tls.get(), sentName.c_str()) == 1);
    Finish(server, deadline);
}

void Handshake::Finish(const Endpoint& server, Deadline deadline)
{
    const std::string where = server.host + " port " + server.port;
    for (;;) {
        ERR_clear_error();
        errno = 0;
        const int result = SSL_connect(m_tls.get());
        if (result == 1)
            return;
        const int osError = errno;
        const int state = SSL_get_error(m_tls.get(), result);
        if (state == SSL_ERROR_WANT_READ || state == SSL_ERROR_WANT_WRITE) {
            const auto direction = state == SSL_ERROR_WANT_READ ? Direction::Read : Direction::Write;
            if (!WaitUntilReady(m_connection, direction, deadline))
                KRT_RAISE_OS(ETIMEDOUT, "No TLS handshake with " << where.c_str());
            continue;
        }
        if (state == SSL_ERROR_SYSCALL && osError != 0)
            KRT_RAISE_OS(osError, "No TLS handshake with " << where.c_str());
        const char* const reason = ERR_reason_error_string(ERR_peek_last_error());
        KRT_RAISE(Krt::ErrorCode::CryptoFailure,
                  "No TLS handshake with "
                      << where.c_str() << ": "
                      << (reason == nullptr ? "the server closed the connection" : reason));
    }
}

} // namespace Agent
