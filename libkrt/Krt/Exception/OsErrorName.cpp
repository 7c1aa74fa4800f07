#include "Krt/Exception/OsErrorName.h"

#include <cerrno>

namespace Krt::Exception {

namespace {

struct NamedError
{
    int number;
    const char* name;
};

// A table of our own, since the C library's look-up by number isn't there on every system.
#define KRT_NAMED(name)                                                                                      \
    {                                                                                                        \
        name, #name                                                                                          \
    }
constexpr NamedError namedErrors[] = {
    KRT_NAMED(E2BIG),        KRT_NAMED(EACCES),
    KRT_NAMED(EADDRINUSE),   KRT_NAMED(EADDRNOTAVAIL),
    KRT_NAMED(EAFNOSUPPORT), KRT_NAMED(EAGAIN),
    KRT_NAMED(EALREADY),     KRT_NAMED(EBADF),
    KRT_NAMED(EBADMSG),      KRT_NAMED(EBUSY),
    KRT_NAMED(ECANCELED),    KRT_NAMED(ECHILD),
    KRT_NAMED(ECONNABORTED), KRT_NAMED(ECONNREFUSED),
    KRT_NAMED(ECONNRESET),   KRT_NAMED(EDEADLK),
    KRT_NAMED(EDESTADDRREQ), KRT_NAMED(EDOM),
    KRT_NAMED(EDQUOT),       KRT_NAMED(EEXIST),
    KRT_NAMED(EFAULT),       KRT_NAMED(EFBIG),
    KRT_NAMED(EHOSTUNREACH), KRT_NAMED(EIDRM),
    KRT_NAMED(EILSEQ),       KRT_NAMED(EINPROGRESS),
    KRT_NAMED(EINTR),        KRT_NAMED(EINVAL),
    KRT_NAMED(EIO),          KRT_NAMED(EISCONN),
    KRT_NAMED(EISDIR),       KRT_NAMED(ELOOP),
    KRT_NAMED(EMFILE),       KRT_NAMED(EMLINK),
    KRT_NAMED(EMSGSIZE),     KRT_NAMED(EMULTIHOP),
    KRT_NAMED(ENAMETOOLONG), KRT_NAMED(ENETDOWN),
    KRT_NAMED(ENETRESET),    KRT_NAMED(ENETUNREACH),
    KRT_NAMED(ENFILE),       KRT_NAMED(ENOBUFS),
    KRT_NAMED(ENODATA),      KRT_NAMED(ENODEV),
    KRT_NAMED(ENOENT),       KRT_NAMED(ENOEXEC),
    KRT_NAMED(ENOLCK),       KRT_NAMED(ENOLINK),
    KRT_NAMED(ENOMEM),       KRT_NAMED(ENOMSG),
    KRT_NAMED(ENOPROTOOPT),  KRT_NAMED(ENOSPC),
    KRT_NAMED(ENOSYS),       KRT_NAMED(ENOTBLK),
    KRT_NAMED(ENOTCONN),     KRT_NAMED(ENOTDIR),
    KRT_NAMED(ENOTEMPTY),    KRT_NAMED(ENOTRECOVERABLE),
    KRT_NAMED(ENOTSOCK),     KRT_NAMED(ENOTSUP),
    KRT_NAMED(ENOTTY),       KRT_NAMED(ENXIO),
    KRT_NAMED(EOVERFLOW),    KRT_NAMED(EOWNERDEAD),
    KRT_NAMED(EPERM),        KRT_NAMED(EPIPE),
    KRT_NAMED(EPROTO),       KRT_NAMED(EPROTONOSUPPORT),
    KRT_NAMED(EPROTOTYPE),   KRT_NAMED(ERANGE),
    KRT_NAMED(EROFS),        KRT_NAMED(ESPIPE),
    KRT_NAMED(ESRCH),        KRT_NAMED(ESTALE),
    KRT_NAMED(ETIMEDOUT),    KRT_NAMED(ETXTBSY),
    KRT_NAMED(EXDEV),
};
#undef KRT_NAMED

} // namespace

const char* OsErrorName(int osError)
{
    for (const NamedError& error : namedErrors) {
        if (error.number == osError)
            return error.name;
    }
    return "";
}

} // namespace Krt::Exception
