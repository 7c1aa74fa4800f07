#include "testing/SilentFileSystem.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <linux/fuse.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

namespace Testing {

namespace {

constexpr std::uint64_t Below = 2; // number of every directory that isn't the root
constexpr std::uint64_t Hour = 3600;

fuse_attr DirectoryOf(std::uint64_t number)
{
    fuse_attr attributes = {};
    attributes.ino = number;
    attributes.mode = S_IFDIR | 0755;
    attributes.nlink = 2;
    return attributes;
}

template <class Body>
void Answer(int device, const fuse_in_header& request, Body body)
{
    fuse_out_header header = {sizeof header + sizeof body, 0, request.unique};
    const iovec parts[] = {{&header, sizeof header}, {&body, sizeof body}};
    if (writev(device, parts, 2) < 0 && errno != ENOENT) // the asker is gone
        throw std::runtime_error("can't answer as a file system");
}

void Refuse(int device, const fuse_in_header& request)
{
    const fuse_out_header header = {sizeof header, -ENOSYS, request.unique};
    if (write(device, &header, sizeof header) < 0 && errno != ENOENT)
        throw std::runtime_error("can't answer as a file system");
}

void AnswerRequest(int device, const fuse_in_header& request)
{
    switch (request.opcode) {
    case FUSE_INIT: {
        fuse_init_out begin = {};
        begin.major = FUSE_KERNEL_VERSION;
        begin.minor = FUSE_KERNEL_MINOR_VERSION;
        begin.max_write = FUSE_MIN_READ_BUFFER;
        Answer(device, request, begin);
        break;
    }
    case FUSE_GETATTR: {
        fuse_attr_out status = {};
        status.attr = DirectoryOf(request.nodeid);
        Answer(device, request, status);
        break;
    }
    case FUSE_LOOKUP: {
        fuse_entry_out entry = {};
        entry.nodeid = Below;
        entry.entry_valid = Hour;
        entry.attr = DirectoryOf(Below);
        Answer(device, request, entry);
        break;
    }
    case FUSE_FORGET:
    case FUSE_BATCH_FORGET:
        break;
    default:
        Refuse(device, request);
    }
}

} // namespace

SilentFileSystem::SilentFileSystem(const MountNamespace& space, const std::string& target)
    : m_device(open("/dev/fuse", O_RDWR | O_CLOEXEC | O_NONBLOCK))
{
    if (m_device < 0)
        throw Unavailable(std::string("/dev/fuse: ") + std::strerror(errno));
    try {
        space.Mount("silent", target, "fuse", 0,
                    "fd=" + std::to_string(m_device) + ",rootmode=40000,user_id=0,group_id=0");
    } catch (...) {
        close(m_device);
        throw;
    }
    m_server = std::thread([this] { Serve(); });
}

SilentFileSystem::~SilentFileSystem()
{
    FallSilent();
    close(m_device);
}

void SilentFileSystem::FallSilent()
{
    m_isSilent = true;
    if (m_server.joinable())
        m_server.join();
}

void SilentFileSystem::Serve() const
{
    alignas(fuse_in_header) char buffer[FUSE_MIN_READ_BUFFER + 4096];
    while (!m_isSilent) {
        pollfd waiting = {m_device, POLLIN, 0};
        if (poll(&waiting, 1, 10) <= 0)
            continue;
        const ssize_t count = read(m_device, buffer, sizeof buffer);
        if (count >= static_cast<ssize_t>(sizeof(fuse_in_header)))
            AnswerRequest(m_device, *reinterpret_cast<const fuse_in_header*>(buffer));
    }
}

} // namespace Testing
