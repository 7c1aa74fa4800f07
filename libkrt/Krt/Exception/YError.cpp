#include "Krt/Exception/YError.h"

#include <cerrno>
#include <ostream>
#include <string>
#include <system_error>

namespace Krt::Exception {

namespace {

// Returns "" for a code without a name.
const char* ErrorCodeName(unsigned int code)
{
    switch (code) {
    case ErrorCode::InvalidUse:
        return "InvalidUse";
    case ErrorCode::OutOfMemory:
        return "OutOfMemory";
    case ErrorCode::AttributesUnavailable:
        return "AttributesUnavailable";
    case ErrorCode::InvalidArgument:
        return "InvalidArgument";
    case ErrorCode::NoPathComponent:
        return "NoPathComponent";
    case ErrorCode::NotImplemented:
        return "NotImplemented";
    case ErrorCode::ProcessFailed:
        return "ProcessFailed";
    case ErrorCode::NumberConversion:
        return "NumberConversion";
    case ErrorCode::CryptoFailure:
        return "CryptoFailure";
    case ErrorCode::MutexInitFailed:
        return "MutexInitFailed";
    case ErrorCode::LockTimeout:
        return "LockTimeout";
    case ErrorCode::InvalidUtf16:
        return "InvalidUtf16";
    case ErrorCode::InvalidUtf8:
        return "InvalidUtf8";
    case ErrorCode::ValueConversion:
        return "ValueConversion";
    case ErrorCode::EmptyJobPath:
        return "EmptyJobPath";
    case ErrorCode::InvalidState:
        return "InvalidState";
    case ErrorCode::NotFound:
        return "NotFound";
    case ErrorCode::NotSupported:
        return "NotSupported";
    default:
        return "";
    }
}

struct NamedError
{
    int number;
    const char* name;
};

// The C library cannot look up names by number on every system.
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

// Returns a name such as "ENOENT", or "" for a number without a name. If a number has several names, returns
// the first in POSIX's list.
const char* OsErrorName(int osError)
{
    for (const NamedError& error : namedErrors) {
        if (error.number == osError)
            return error.name;
    }
    return "";
}

} // namespace

unsigned int CodeFromOsError(int osError)
{
    switch (osError) {
    case ENOTSUP:
        return ErrorCode::AttributesUnavailable;
    case ENOMEM:
        return ErrorCode::OutOfMemory;
    case EINVAL:
    case ENAMETOOLONG:
        return ErrorCode::InvalidArgument;
    case ENOENT:
    case ENOTDIR:
        return ErrorCode::NotFound;
    case ENOSYS:
        return ErrorCode::NotSupported;
    default:
        return ErrorCode::InvalidState;
    }
}

int YErrorBase::GetOsError() const
{
    // A failed call may have returned a negative value without setting errno, so the sign is restored.
    return GetType() == ExceptionType::OsError ? static_cast<int>(m_code) : 0;
}

unsigned int YErrorBase::GetCode() const
{
    return GetType() == ExceptionType::OsError ? CodeFromOsError(GetOsError())
                                               : static_cast<unsigned int>(m_code);
}

const char* YErrorBase::what() const noexcept
{
    for (const YString* text : {&m_what, &m_message, &m_codeName}) {
        if (!text->IsEmpty())
            return text->CStr();
    }
    return "Krt::Exception::YError";
}

YString YErrorBase::Describe() const
{
    const bool isOsError = GetType() == ExceptionType::OsError;
    std::string text = isOsError ? "OsError, " : "General, ";
    if (!m_codeName.IsEmpty())
        text.append(m_codeName.Bytes()).append(" ");
    text += isOsError ? std::to_string(GetOsError()) : std::to_string(m_code);
    if (isOsError)
        text.append(": ").append(m_what.Bytes(), m_message.IsEmpty() ? 0 : m_message.Bytes().size() + 2);
    text.append(", ").append(m_function.Bytes());
    return YString(std::string_view(text));
}

std::ostream& operator<<(std::ostream& out, const YErrorBase& error)
{
    if (!error.m_message.IsEmpty())
        out << error.m_message << " ";
    return out << "(" << error.Describe() << ")";
}

YError MakeYError(ExceptionType type, unsigned int messageType, unsigned int code, unsigned int line,
                  const char* file, const char* function, const YString& message)
{
    YError error;
    error.m_message = message;
    error.m_function = function;
    error.m_type = static_cast<unsigned int>(type);
    error.m_messageType = messageType;
    error.m_file = file;
    error.m_line = line;
    error.m_code = code;
    error.m_stack = GetCurrentStackTrace();
    if (type == ExceptionType::OsError) {
        const int osError = static_cast<int>(code);
        error.m_codeName = OsErrorName(osError);
        error.m_what = message.IsEmpty() ? YString() : message + ": ";
        error.m_what += std::generic_category().message(osError).c_str();
    } else {
        error.m_codeName = ErrorCodeName(code);
    }
    return error;
}

} // namespace Krt::Exception
