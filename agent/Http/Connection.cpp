#include "agent/Http/Connection.h"

#include "agent/Http/Acknowledge.h"
#include "agent/Repository/Secret.h"

#include "Krt/Exception/Raise.h"

#include <curl/curl.h>

#include <algorithm>
#include <charconv>
#include <cstring>
#include <exception>
#include <optional>
#include <thread>

namespace Agent::Http {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr int BetweenLooks = 100; // milliseconds
constexpr std::size_t HeaderLimit = 256 << 10;
constexpr std::size_t ErrorBodyLimit = 64 << 10;
constexpr std::uint64_t ReserveLimit = 32 << 20; // what a response announces need not come
constexpr long FastBuffer = 256 << 10;
constexpr long SlowBuffer = 16 << 10;          // the smallest of libcurl
constexpr std::uint64_t LeastBytes = 16 << 10; // of a response in the time of a stall
constexpr int FirstRefusal = 401;              // a 400 may be temporary, which its body says
constexpr long Forbidden = 403;
constexpr long ProxyAuthenticationRequired = 407;

void RequireInitialized()
{
    static const CURLcode code = curl_global_init(CURL_GLOBAL_DEFAULT);
    KRT_RAISE_UNLESS(code == CURLE_OK, Krt::ErrorCode::NotSupported,
                     "libcurl can't be used: " << curl_easy_strerror(code));
}

// "name: value" with white space at its ends.
std::optional<Header> ParseHeader(std::string_view line)
{
    constexpr std::string_view Blanks = " \t\r\n";
    const std::size_t colon = line.find(':');
    if (colon == line.npos || colon == 0)
        return std::nullopt;
    Header header{std::string(line.substr(0, colon)), ""};
    std::transform(header.name.begin(), header.name.end(), header.name.begin(), [](char byte) {
        return byte >= 'A' && byte <= 'Z' ? static_cast<char>(byte + 32) : byte;
    });
    line.remove_prefix(colon + 1);
    if (const std::size_t begin = line.find_first_not_of(Blanks); begin != line.npos)
        header.value = line.substr(begin, line.find_last_not_of(Blanks) + 1 - begin);
    return header;
}

// The headers of a request, as libcurl has them. They may contain a password.
class HeaderList
{
public:
    HeaderList() = default;
    ~HeaderList()
    {
        for (curl_slist* each = m_list; each != nullptr; each = each->next)
            Repo::Wipe({reinterpret_cast<unsigned char*>(each->data), std::strlen(each->data)});
        curl_slist_free_all(m_list);
    }
    HeaderList(const HeaderList&) = delete;
    HeaderList& operator=(const HeaderList&) = delete;

    void Add(std::string line)
    {
        curl_slist* const longer = curl_slist_append(m_list, line.c_str());
        Repo::Wipe({reinterpret_cast<unsigned char*>(line.data()), line.size()});
        KRT_RAISE_UNLESS(longer != nullptr, Krt::ErrorCode::OutOfMemory, "No memory for a request");
        m_list = longer;
    }
    curl_slist* Get() const { return m_list; }
    // Replaces the values of headers that are secrets by "***" in a text.
    void HideSecretsIn(std::string& text) const
    {
        for (const curl_slist* each = m_list; each != nullptr; each = each->next) {
            std::string_view line = each->data;
            const std::string name = ParseHeader(line).value_or(Header()).name;
            if (name != "authorization" && name != "x-amz-security-token")
                continue;
            line.remove_prefix(line.rfind(' ') + 1); // also the kind of authorization
            constexpr std::string_view Hidden = "***";
            for (std::size_t at = 0; !line.empty() && (at = text.find(line, at)) != text.npos;
                 at += Hidden.size())
                text.replace(at, line.size(), Hidden);
        }
    }

private:
    curl_slist* m_list = nullptr;
};

// The code of "HTTP/1.1 200 OK"; 0 for anything else.
int ParseStatus(std::string_view line)
{
    int status = 0;
    if (const std::size_t blank = line.find(' '); blank != line.npos)
        std::from_chars(line.data() + blank + 1, line.data() + line.size(), status);
    return status;
}

Fault FaultOf(CURLcode code)
{
    switch (code) {
    case CURLE_COULDNT_RESOLVE_HOST:
    case CURLE_COULDNT_RESOLVE_PROXY:
    case CURLE_COULDNT_CONNECT:
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_OPERATION_TIMEDOUT: // while it connects, since later times are watched here
        return Fault::Unreachable;
    case CURLE_SEND_ERROR:
    case CURLE_RECV_ERROR:
    case CURLE_GOT_NOTHING:
    case CURLE_PARTIAL_FILE:
    case CURLE_WEIRD_SERVER_REPLY:
    case CURLE_SEND_FAIL_REWIND:
        return Fault::Cut;
    default:
        return Fault::Final;
    }
}

} // namespace

const char* NameOf(Method method)
{
    switch (method) {
    case Method::Get:
        return "GET";
    case Method::Head:
        return "HEAD";
    case Method::Put:
        return "PUT";
    case Method::Post:
        return "POST";
    case Method::Delete:
        return "DELETE";
    }
    return "";
}

std::string_view Response::Find(std::string_view name) const
{
    const auto found = std::find_if(headers.begin(), headers.end(),
                                    [name](const Header& header) { return header.name == name; });
    return found == headers.end() ? std::string_view() : std::string_view(found->value);
}

struct Connection::Handles
{
    struct FreeEasy
    {
        void operator()(CURL* handle) const { curl_easy_cleanup(handle); }
    };
    struct FreeMulti
    {
        void operator()(CURLM* handle) const { curl_multi_cleanup(handle); }
    };

    std::unique_ptr<CURLM, FreeMulti> multi; // has the connection
    std::unique_ptr<CURL, FreeEasy> easy;
    // The socket that libcurl opened last. It may be closed by now; the number may then be that of another
    // file.
    curl_socket_t socket = CURL_SOCKET_BAD;
    char error[CURL_ERROR_SIZE] = {};
    std::optional<ServerTrust::Verification> verification;
};

// A request on its way. libcurl calls the static functions, through which no exception may pass.
class Connection::Transfer
{
public:
    Transfer(Connection& connection, const Request& request, Repo::Bytes& body,
             const std::function<bool()>& isEnding)
        : m_settings(connection.m_settings), m_handles(*connection.m_handles), m_request(request),
          m_body(body), m_isEnding(isEnding)
    {}

    Attempt Run();

private:
    template <class Value>
    void Set(CURLoption option, Value value)
    {
        const CURLcode code = curl_easy_setopt(m_handles.easy.get(), option, value);
        KRT_RAISE_UNLESS(code == CURLE_OK, Krt::ErrorCode::NotSupported,
                         "libcurl lacks an option: " << curl_easy_strerror(code));
    }
    void SetCommonOptions();
    void SetTrust();
    void SetMethod();
    void SetHeaders();
    CURLcode Perform();
    Attempt Conclude(CURLcode code);
    Fault FaultOfServer(CURLcode code) const;
    bool IsRefused(CURLcode code) const;
    void Count(std::size_t received);
    bool IsStalled();
    void HideSecrets();
    void WaitFor(steady_clock::time_point time);
    std::size_t AddHeader(std::string_view line);
    std::size_t AddToBody(std::string_view bytes);
    std::size_t TakeContent(char* to, std::size_t size);

    // Calls, and keeps an exception for Run.
    template <class Result, class Call>
    Result Guarded(Result failure, const Call& call)
    {
        try {
            return call();
        } catch (...) {
            m_exception = std::current_exception();
            return failure;
        }
    }
    static std::size_t OnHeader(char* data, std::size_t, std::size_t size, void* self)
    {
        Transfer& transfer = *static_cast<Transfer*>(self);
        return transfer.Guarded<std::size_t>(0, [&] { return transfer.AddHeader({data, size}); });
    }
    static std::size_t OnBody(char* data, std::size_t, std::size_t size, void* self)
    {
        Transfer& transfer = *static_cast<Transfer*>(self);
        return transfer.Guarded<std::size_t>(0, [&] { return transfer.AddToBody({data, size}); });
    }
    static std::size_t OnContent(char* to, std::size_t, std::size_t size, void* self)
    {
        Transfer& transfer = *static_cast<Transfer*>(self);
        return transfer.Guarded<std::size_t>(CURL_READFUNC_ABORT,
                                             [&] { return transfer.TakeContent(to, size); });
    }
    static int OnSeek(void* self, curl_off_t offset, int origin)
    {
        Transfer& transfer = *static_cast<Transfer*>(self);
        if (origin != SEEK_SET || offset < 0 ||
            static_cast<std::uint64_t>(offset) > transfer.m_request.content.size())
            return CURL_SEEKFUNC_FAIL;
        transfer.m_sent = static_cast<std::size_t>(offset);
        return CURL_SEEKFUNC_OK;
    }
    static int OnSocket(void* handles, curl_socket_t socket, curlsocktype)
    {
        static_cast<Handles*>(handles)->socket = socket;
        return CURL_SOCKOPT_OK;
    }
    static CURLcode OnTlsContext(CURL*, void* context, void* self)
    {
        ServerTrust::Install(static_cast<ssl_ctx_st*>(context),
                             *static_cast<Transfer*>(self)->m_handles.verification);
        return CURLE_OK;
    }

    const ConnectionSettings& m_settings;
    Handles& m_handles;
    const Request& m_request;
    Repo::Bytes& m_body;
    const std::function<bool()>& m_isEnding;
    HeaderList m_headers;
    Response m_response;
    std::size_t m_headerSize = 0;
    bool m_hasHeaders = false; // all of them
    std::size_t m_sent = 0;    // bytes of the content
    steady_clock::time_point m_progress = steady_clock::now();
    std::optional<steady_clock::time_point> m_paceBegin; // at first, that of the response
    std::uint64_t m_received = 0;                        // since then
    bool m_isEnded = false;                              // the caller asked for it
    bool m_isStalled = false;
    bool m_isBodyCut = false; // on this side, since it is too long
    std::exception_ptr m_exception;
};

void Connection::Transfer::SetCommonOptions()
{
    const bool isLimited = m_settings.upload.IsLimited() || m_settings.download.IsLimited();
    curl_easy_reset(m_handles.easy.get()); // the connection stays
    m_handles.error[0] = '\0';
    Set(CURLOPT_ERRORBUFFER, m_handles.error);
    Set(CURLOPT_URL, (m_settings.origin + m_request.target).c_str());
    Set(CURLOPT_PROTOCOLS_STR, "http,https");
    Set(CURLOPT_FOLLOWLOCATION, 0L); // a signature or a password is for this server only
    Set(CURLOPT_PATH_AS_IS, 1L);
    Set(CURLOPT_HTTP_VERSION, static_cast<long>(CURL_HTTP_VERSION_1_1));
    Set(CURLOPT_USERAGENT, "kbagent");
    Set(CURLOPT_SUPPRESS_CONNECT_HEADERS, 1L);
    Set(CURLOPT_NOSIGNAL, 1L);
    Set(CURLOPT_QUICK_EXIT, 1L); // a lookup of the host's name does not delay the end
    Set(CURLOPT_TCP_KEEPALIVE, 1L);
    Set(CURLOPT_CONNECTTIMEOUT_MS, static_cast<long>(m_settings.connectTime.count()));
    Set(CURLOPT_BUFFERSIZE, isLimited ? SlowBuffer : FastBuffer);
    Set(CURLOPT_UPLOAD_BUFFERSIZE, isLimited ? SlowBuffer : FastBuffer);
    Set(CURLOPT_SOCKOPTFUNCTION, &Transfer::OnSocket);
    Set(CURLOPT_SOCKOPTDATA, &m_handles);
    Set(CURLOPT_HEADERFUNCTION, &Transfer::OnHeader);
    Set(CURLOPT_HEADERDATA, this);
    Set(CURLOPT_WRITEFUNCTION, &Transfer::OnBody);
    Set(CURLOPT_WRITEDATA, this);
}

void Connection::Transfer::SetTrust()
{
    if (m_settings.trust == nullptr)
        return;
    m_handles.verification->reason.clear();
    Set(CURLOPT_SSLVERSION, static_cast<long>(CURL_SSLVERSION_TLSv1_2));
    Set(CURLOPT_SSL_CTX_FUNCTION, &Transfer::OnTlsContext);
    Set(CURLOPT_SSL_CTX_DATA, this);
    // The verification loads CAs itself.
    Set(CURLOPT_CAINFO, static_cast<char*>(nullptr));
    Set(CURLOPT_CAPATH, static_cast<char*>(nullptr));
}

void Connection::Transfer::SetMethod()
{
    switch (m_request.method) {
    case Method::Get:
        Set(CURLOPT_HTTPGET, 1L);
        return;
    case Method::Head:
        Set(CURLOPT_NOBODY, 1L);
        return;
    case Method::Delete:
        Set(CURLOPT_CUSTOMREQUEST, "DELETE");
        return;
    case Method::Put:
    case Method::Post:
        Set(CURLOPT_UPLOAD, 1L);
        Set(CURLOPT_CUSTOMREQUEST, NameOf(m_request.method));
        Set(CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(m_request.content.size()));
        Set(CURLOPT_READFUNCTION, &Transfer::OnContent);
        Set(CURLOPT_READDATA, this);
        Set(CURLOPT_SEEKFUNCTION, &Transfer::OnSeek);
        Set(CURLOPT_SEEKDATA, this);
        return;
    }
}

void Connection::Transfer::SetHeaders()
{
    m_headers.Add("Expect:"); // it would cost a round trip for each file
    for (Header& header : m_request.makeHeaders()) {
        m_headers.Add(header.name + ": " + header.value);
        Repo::Wipe({reinterpret_cast<unsigned char*>(header.value.data()), header.value.size()});
    }
    Set(CURLOPT_HTTPHEADER, m_headers.Get());
}

// Sleeps, because of a limit, until the time comes or the attempt has to end.
void Connection::Transfer::WaitFor(steady_clock::time_point time)
{
    for (auto now = steady_clock::now(); now < time && !m_isEnded; now = steady_clock::now()) {
        std::this_thread::sleep_for(std::min<steady_clock::duration>(milliseconds(BetweenLooks), time - now));
        m_isEnded = m_isEnding();
    }
    m_progress = steady_clock::now();
}

void Connection::Transfer::Count(std::size_t received)
{
    m_progress = steady_clock::now();
    if (!m_paceBegin && m_sent == m_request.content.size()) // otherwise the pace is that of the upload
        m_paceBegin = m_progress;
    m_received += received;
}

// Returns true if there was no byte for too long, or the response is so slow that a server could send it for
// ever. The pace is not that of the server if there is a limit.
bool Connection::Transfer::IsStalled()
{
    const steady_clock::time_point now = steady_clock::now();
    if (m_paceBegin && now - *m_paceBegin > m_settings.stallTime && !m_settings.download.IsLimited()) {
        if (m_received < LeastBytes)
            return true;
        m_paceBegin = now;
        m_received = 0;
    }
    return now - m_progress > m_settings.stallTime;
}

std::size_t Connection::Transfer::AddHeader(std::string_view line)
{
    Count(line.size());
    m_headerSize += line.size();
    if (m_headerSize > HeaderLimit)
        return 0;
    if (line.starts_with("HTTP/")) {
        m_response.headers.clear(); // a preliminary response came before
        m_response.status = ParseStatus(line);
        m_hasHeaders = false;
    } else if (line == "\r\n" || line == "\n") {
        m_hasHeaders = true;
        // A server that sends the headers on their own and does not disable Nagle's algorithm keeps a short
        // body until they were acknowledged. The kernel delays that by up to 40 ms.
        AcknowledgeAtOnce(m_handles.socket);
    } else if (std::optional<Header> header = ParseHeader(line)) {
        m_response.headers.push_back(std::move(*header));
    }
    return line.size();
}

std::size_t Connection::Transfer::AddToBody(std::string_view bytes)
{
    const std::uint64_t limit = m_response.IsSuccess() ? m_request.limit : ErrorBodyLimit;
    if (m_body.empty()) {
        std::uint64_t announced = 0;
        const std::string_view length = m_response.Find("content-length");
        std::from_chars(length.data(), length.data() + length.size(), announced);
        m_body.reserve(static_cast<std::size_t>(std::min({announced, limit, ReserveLimit})));
    }
    WaitFor(m_settings.download.Reserve(bytes.size()));
    Count(bytes.size());
    const auto taken = static_cast<std::size_t>(std::min<std::uint64_t>(bytes.size(), limit - m_body.size()));
    const Repo::ByteView content = Repo::AsBytes(bytes.substr(0, taken)); // char would be copied byte by byte
    m_body.insert(m_body.end(), content.begin(), content.end());
    m_isBodyCut = taken < bytes.size();
    return m_isBodyCut || m_isEnded ? 0 : bytes.size();
}

std::size_t Connection::Transfer::TakeContent(char* to, std::size_t size)
{
    const std::size_t left = m_request.content.size() - m_sent;
    const std::size_t taken = m_settings.upload.PortionOf(std::min(size, left));
    WaitFor(m_settings.upload.Reserve(taken));
    if (m_isEnded)
        return CURL_READFUNC_ABORT;
    m_sent += Repo::AsText(m_request.content).copy(to, taken, m_sent);
    return taken;
}

// Returns the result, or CURLE_ABORTED_BY_CALLBACK if the attempt was ended here.
CURLcode Connection::Transfer::Perform()
{
    CURLM* const multi = m_handles.multi.get();
    for (;;) {
        int running = 0;
        if (curl_multi_perform(multi, &running) != CURLM_OK)
            return CURLE_FAILED_INIT;
        int left = 0;
        for (const CURLMsg* message; (message = curl_multi_info_read(multi, &left)) != nullptr;) {
            if (message->msg == CURLMSG_DONE)
                return message->data.result;
        }
        m_isEnded = m_isEnded || m_isEnding();
        m_isStalled = IsStalled();
        if (m_isEnded || m_isStalled || running == 0)
            return CURLE_ABORTED_BY_CALLBACK;
        if (curl_multi_poll(multi, nullptr, 0, BetweenLooks, nullptr) != CURLM_OK)
            return CURLE_FAILED_INIT;
    }
}

// A server may repeat what it was sent, and its text becomes part of messages.
void Connection::Transfer::HideSecrets()
{
    if (m_response.IsSuccess())
        return;
    for (Header& header : m_response.headers)
        m_headers.HideSecretsIn(header.value);
    std::string text(Repo::AsText(m_body));
    m_headers.HideSecretsIn(text);
    m_body.assign(text.begin(), text.end());
}

// A proxy that refuses to connect would do that again.
Fault Connection::Transfer::FaultOfServer(CURLcode code) const
{
    long status = 0;
    curl_easy_getinfo(m_handles.easy.get(), CURLINFO_HTTP_CONNECTCODE, &status);
    return status == Forbidden || status == ProxyAuthenticationRequired ? Fault::Final : FaultOf(code);
}

// Returns true if the server refused the request and closed the connection before it had the whole file.
bool Connection::Transfer::IsRefused(CURLcode code) const
{
    return FaultOf(code) == Fault::Cut && m_hasHeaders && m_response.status >= FirstRefusal &&
           m_sent < m_request.content.size();
}

Attempt Connection::Transfer::Conclude(CURLcode code)
{
    Attempt attempt;
    if (m_exception)
        std::rethrow_exception(m_exception);
    if (m_isEnded) {
        attempt.fault = Fault::Interrupted;
        attempt.reason = "the request was stopped";
    } else if (m_isStalled) {
        attempt.fault = Fault::Cut;
        attempt.reason = "the server does not respond";
    } else if (m_settings.trust != nullptr && !m_handles.verification->reason.empty()) {
        attempt.fault = Fault::Final;
        attempt.reason = "the server is not trusted: " + m_handles.verification->reason;
    } else if (m_headerSize > HeaderLimit) {
        attempt.fault = Fault::Final;
        attempt.reason = "the server sends too many headers";
    } else if (code == CURLE_OK && !m_hasHeaders) {
        attempt.fault = Fault::Cut; // which libcurl accepts for HEAD
        attempt.reason = "the server closed the connection within the headers";
    } else if (m_response.IsSuccess() && m_sent < m_request.content.size()) {
        attempt.fault = Fault::Cut;
        attempt.reason = "the server answered before it had the whole file";
    } else if (code == CURLE_OK || m_isBodyCut || IsRefused(code)) {
        m_response.isTooLong = m_isBodyCut && m_response.IsSuccess();
        HideSecrets();
        attempt.response = std::move(m_response);
    } else {
        attempt.fault = FaultOfServer(code);
        attempt.reason = m_handles.error[0] != '\0' ? m_handles.error : curl_easy_strerror(code);
        // OpenSSL's text for a response that is not TLS, such as one of plain HTTP.
        if (attempt.reason.find("wrong version number") != std::string::npos)
            attempt.reason += ". The server may not use TLS; the address of such a server has http: and not "
                              "https:";
    }
    return attempt;
}

Attempt Connection::Transfer::Run()
{
    m_body.clear();
    SetCommonOptions();
    SetTrust();
    SetMethod();
    SetHeaders();
    KRT_RAISE_UNLESS(curl_multi_add_handle(m_handles.multi.get(), m_handles.easy.get()) == CURLM_OK,
                     Krt::ErrorCode::NotSupported, "libcurl can't be used");
    const CURLcode code = Perform();
    curl_multi_remove_handle(m_handles.multi.get(), m_handles.easy.get());
    return Conclude(code);
}

Connection::Connection(const ConnectionSettings& settings)
    : m_settings(settings), m_handles(std::make_unique<Handles>())
{
    RequireInitialized();
    m_handles->multi.reset(curl_multi_init());
    m_handles->easy.reset(curl_easy_init());
    KRT_RAISE_UNLESS(m_handles->multi && m_handles->easy, Krt::ErrorCode::OutOfMemory,
                     "No memory for a connection");
    if (settings.trust != nullptr)
        m_handles->verification.emplace(ServerTrust::Verification{*settings.trust, {}});
}

Connection::~Connection() = default;

Attempt Connection::Send(const Request& request, Repo::Bytes& body, const std::function<bool()>& isEnding)
{
    return Transfer(*this, request, body, isEnding).Run();
}

} // namespace Agent::Http
