#pragma once

/// @file
/// Statements that raise errors. Each reads like its message and captures source path, function and line.
/// The text may be omitted. All throw Krt::Exception::YError on the channel General. The ..._ON forms name
/// another channel, the ..._AS forms also the function to report.
///
///     KRT_RAISE(ErrorCode::InvalidArgument, "Index " << index << " out of range");
///     KRT_RAISE_UNLESS(handle, ErrorCode::InvalidState, "File class not open");
///     KRT_SYSCALL(fstat(file, &status), "Failed to stat file: " << path);  a system call's error
///     KRT_RAISE_OS(error, "Failed to run " << program);                    an error number of the system

#include "Krt/Exception/YError.h"
#include "Krt/Log/YStream.h"
#include "Krt/Util/SystemCall.h"

#include <typeinfo>
#include <utility>

/// The source path that errors report, with its extension. A source that is a part of another one defines
/// it as that other source's path, before its includes.
#ifndef KRT_SOURCE_FILE
#define KRT_SOURCE_FILE __FILE__
#endif

namespace Krt::Exception {

/// Throws the error for a raising site. `file` is KRT_SOURCE_FILE; its extension is removed.
[[noreturn, gnu::cold]] KRT_API void Raise(ExceptionType type, unsigned int messageType, unsigned int code,
                                           unsigned int line, const char* file, const char* function,
                                           const YStream& message);

/// Writes the banner of a failed check to standard error, calls the debugger, and raises InvalidUse with the
/// banner as text.
[[noreturn, gnu::cold]] KRT_API void FailRequiredCheck(const char* condition, const YString& detail,
                                                       unsigned int line, const char* file,
                                                       const char* function);

/// Writes the banner of a failed check directly to standard error, calls the debugger, then abort().
[[noreturn, gnu::cold]] KRT_API void AbortRequiredCheck(const char* condition, const YStream& detail,
                                                        unsigned int line, const char* file,
                                                        const char* function);

/// Logs the failed assertion with the log prefix of `objectType`, calls the debugger and raises InvalidUse
/// with the detail.
[[noreturn, gnu::cold]] KRT_API void FailAssertion(const std::type_info& objectType, const char* condition,
                                                   const YStream& detail, unsigned int line, const char* file,
                                                   const char* function);

/// Returns the value of the result. If the operation failed, calls `fail` with its error; `fail` throws.
template <class T, class Fail>
T ValueOf(Util::OsResult<T> result, const Fail& fail)
{
    if (!result) [[unlikely]]
        fail(result.error);
    return std::move(result.value);
}

} // namespace Krt::Exception

/// The statement on which all others are based: ExceptionType, reported function, log channel, code, text.
#define KRT_RAISE_FULL(type, function, channel, code, ...)                                                   \
    do {                                                                                                     \
        ::Krt::YStream krtMessage{::Krt::YString()};                                                         \
        static_cast<void>(krtMessage __VA_OPT__(<< __VA_ARGS__));                                            \
        ::Krt::Exception::Raise(type, channel, code, __LINE__, KRT_SOURCE_FILE, function, krtMessage);       \
    } while (false)

/// Raises an error with an ErrorCode and a streamed text; reports `function` on `channel`.
#define KRT_RAISE_AS(function, channel, code, ...)                                                           \
    KRT_RAISE_FULL(::Krt::Exception::ExceptionType::General, function, channel,                              \
                   code __VA_OPT__(, ) __VA_ARGS__)
/// KRT_RAISE_AS with the enclosing function.
#define KRT_RAISE_ON(channel, code, ...) KRT_RAISE_AS(__func__, channel, code __VA_OPT__(, ) __VA_ARGS__)
/// KRT_RAISE_ON on the channel General.
#define KRT_RAISE(code, ...) KRT_RAISE_ON(::Krt::MessageType::General, code __VA_OPT__(, ) __VA_ARGS__)

/// KRT_RAISE if the condition is false; the text is built only then.
#define KRT_RAISE_UNLESS(condition, code, ...)                                                               \
    do {                                                                                                     \
        if (!(condition)) [[unlikely]]                                                                       \
            KRT_RAISE(code __VA_OPT__(, ) __VA_ARGS__);                                                      \
    } while (false)

/// Raises the operating system's error number `error`, which is read before the text is built.
#define KRT_RAISE_OS_AS(function, channel, error, ...)                                                       \
    do {                                                                                                     \
        const int krtOsError = (error);                                                                      \
        KRT_RAISE_FULL(::Krt::Exception::ExceptionType::OsError, function, channel,                          \
                       static_cast<unsigned int>(krtOsError) __VA_OPT__(, ) __VA_ARGS__);                    \
    } while (false)
/// KRT_RAISE_OS_AS with the enclosing function.
#define KRT_RAISE_OS_ON(channel, error, ...)                                                                 \
    KRT_RAISE_OS_AS(__func__, channel, error __VA_OPT__(, ) __VA_ARGS__)
/// KRT_RAISE_OS_ON on the channel General.
#define KRT_RAISE_OS(error, ...)                                                                             \
    KRT_RAISE_OS_ON(::Krt::MessageType::General, error __VA_OPT__(, ) __VA_ARGS__)

/// An expression: the value of a Util::OsResult. Raises its error with the text if the operation failed.
#define KRT_OS_VALUE(result, ...)                                                                            \
    ::Krt::Exception::ValueOf(result, [&, krtFunction = __func__](int krtError) {                            \
        KRT_RAISE_OS_AS(krtFunction, ::Krt::MessageType::General, krtError __VA_OPT__(, ) __VA_ARGS__);      \
    })
/// An expression: KRT_OS_VALUE of a system call, made by Util::CallSystem.
#define KRT_SYSCALL(call, ...)                                                                               \
    KRT_OS_VALUE(::Krt::Util::CallSystem([&] { return call; }) __VA_OPT__(, ) __VA_ARGS__)

/// A check in every build; see FailRequiredCheck. `detail` is a text.
#define KRT_REQUIRE(condition, detail)                                                                       \
    do {                                                                                                     \
        if (!(condition)) [[unlikely]]                                                                       \
            ::Krt::Exception::FailRequiredCheck(#condition, detail, __LINE__, KRT_SOURCE_FILE, __func__);    \
    } while (false)

/// An assertion in a member function: the log line has the object's prefix. `...` is the streamed detail.
#define KRT_ASSERT(condition, ...)                                                                           \
    do {                                                                                                     \
        if (!(condition)) [[unlikely]] {                                                                     \
            ::Krt::YStream krtDetail{::Krt::YString()};                                                      \
            static_cast<void>(krtDetail __VA_OPT__(<< __VA_ARGS__));                                         \
            ::Krt::Exception::FailAssertion(typeid(*this), "(" #condition ")", krtDetail, __LINE__,          \
                                            KRT_SOURCE_FILE, __func__);                                      \
        }                                                                                                    \
    } while (false)
