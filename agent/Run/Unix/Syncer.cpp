#include "agent/Run/Syncer.h"

#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <optional>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Agent {

using Krt::Util::CallSystem;
using Krt::Util::YUnxHandle;

namespace {

// A request is one byte with two descriptors: the file, and the end of a pipe for the error number.
struct Request
{
    int file;
    int reply;
};

// A message that transfers a request.
class Message
{
public:
    Message()
    {
        m_header.msg_iov = &m_text;
        m_header.msg_iovlen = 1;
        m_header.msg_control = m_control;
        m_header.msg_controllen = sizeof m_control;
    }

    bool Send(int socket, const Request& request)
    {
        cmsghdr* const part = CMSG_FIRSTHDR(&m_header);
        part->cmsg_level = SOL_SOCKET;
        part->cmsg_type = SCM_RIGHTS;
        part->cmsg_len = CMSG_LEN(sizeof request);
        std::memcpy(CMSG_DATA(part), &request, sizeof request);
        return CallSystem([&] { return sendmsg(socket, &m_header, 0); }).value == 1;
    }
    // Returns nothing at the end of the requests.
    std::optional<Request> Receive(int socket)
    {
        Request request;
        if (CallSystem([&] { return recvmsg(socket, &m_header, 0); }).value != 1)
            return std::nullopt;
        const cmsghdr* const part = CMSG_FIRSTHDR(&m_header);
        if (part == nullptr || part->cmsg_len != CMSG_LEN(sizeof request))
            return std::nullopt;
        std::memcpy(&request, CMSG_DATA(part), sizeof request);
        return request;
    }

private:
    char m_byte = 0;
    iovec m_text{&m_byte, 1};
    alignas(cmsghdr) char m_control[CMSG_SPACE(sizeof(Request))] = {};
    msghdr m_header = {};
};

// Makes system calls only: a thread of the program may have held any lock when it forked.
void Answer(const Request& request)
{
    const auto error = static_cast<unsigned char>(Krt::File::TrySync(YUnxHandle(request.file, false)));
    CallSystem([&] { return write(request.reply, &error, sizeof error); });
}

// A disk may be slow for each of several requests, so each has a process of its own. They outlive this one.
[[noreturn]] void ServeRequests(int socket)
{
    // The reader of the program's output must not wait for these processes. Descriptors that are received are
    // above those of the streams.
    const int none = open("/dev/null", O_RDWR);
    for (int stream = STDIN_FILENO; stream <= STDERR_FILENO; ++stream)
        dup2(none, stream);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP, SIGCHLD})
        std::signal(signal, SIG_IGN);
    while (const std::optional<Request> request = Message().Receive(socket)) {
        const pid_t child = fork();
        if (child <= 0)
            Answer(*request);
        if (child == 0)
            _exit(0);
        close(request->file);
        close(request->reply);
    }
    _exit(0);
}

void CloseOnExec(int descriptor)
{
    fcntl(descriptor, F_SETFD, FD_CLOEXEC);
}

} // namespace

Syncer::~Syncer()
{
    if (m_requests.IsEmpty())
        return;
    // Closing would not end the process while a child of this one has the socket, too.
    shutdown(m_requests.Get(), SHUT_RDWR);
    if (const pid_t process = m_process; !IsInterrupted())
        CallSystem([process] { return waitpid(process, nullptr, 0); });
}

// Returns the socket for requests, 0 if there is no process.
int Syncer::Start()
{
    const Krt::Thread::AnnotatedLock lock(m_mutex);
    int ends[2];
    if (std::exchange(m_isStarted, true) || socketpair(AF_UNIX, SOCK_STREAM, 0, ends) != 0)
        return m_requests.Get();
    YUnxHandle ours(ends[0], true);
    const YUnxHandle theirs(ends[1], true);
    CloseOnExec(ours.Get());
    m_process = fork();
    if (m_process == 0) {
        ours.Close();
        ServeRequests(theirs.Get());
    }
    if (m_process > 0)
        m_requests = std::move(ours);
    return m_requests.Get();
}

void Syncer::Sync(const YUnxHandle& handle)
{
    constexpr int MillisecondsBetweenLooks = 100;
    const int requests = Start();
    int ends[2];
    if (requests == 0 || pipe(ends) != 0)
        return Krt::File::Sync(handle);
    const YUnxHandle reading(ends[0], true);
    YUnxHandle writing(ends[1], true);
    CloseOnExec(reading.Get());
    CloseOnExec(writing.Get());
    const bool isSent = Message().Send(requests, {handle.Get(), writing.Get()});
    writing.Close();
    pollfd waited{reading.Get(), POLLIN, 0};
    while (isSent && CallSystem([&] { return poll(&waited, 1, MillisecondsBetweenLooks); }).value == 0)
        RaiseIfInterrupted();
    unsigned char error = 0;
    if (!isSent || CallSystem([&] { return read(reading.Get(), &error, sizeof error); }).value != 1)
        return Krt::File::Sync(handle); // the process was killed
    if (error != 0)
        KRT_RAISE_OS(error, "Failed to sync file");
}

} // namespace Agent
