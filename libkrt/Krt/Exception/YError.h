// YError: the one exception type. It carries what its raising site knew: type, channel, code, place, text and
// the stack. It is a value and owns all of it. It is also a std::exception, so a handler of those must come
// after the handlers of YError.
#pragma once

#include "Krt/Exception/ErrorCode.h"
#include "Krt/Log/MessageType.h"
#include "Krt/String/YString.h"

#include <exception>
#include <iosfwd>

namespace Krt::Exception {

class YError;

/// All that an error carries.
class KRT_API YErrorBase : public std::exception
{
public:
    YErrorBase() = default;
    YErrorBase(const YErrorBase&) = default;
    YErrorBase& operator=(const YErrorBase&) = default;
    ~YErrorBase() override = default;

    /// The message, and for an OsError ": " and the system's text after it; the name of the code if there is
    /// no message. Lives as long as the error, and ends at the first NUL byte.
    const char* what() const noexcept override;

    /// The operating-system error number with which the error was raised; 0 for the type General.
    virtual int GetOsError() const;
    /// The portable code; for an OsError the one that its number maps to.
    virtual unsigned int GetCode() const;

    /// The site's text, which may be empty. For people it isn't enough: the system's reason is in what(), in
    /// Describe() and in the printed form.
    const YString& GetMessage() const { return m_message; }
    /// Whether the code is an ErrorCode or an errno, and the channel as a MessageType.
    ExceptionType GetType() const { return static_cast<ExceptionType>(m_type); }
    unsigned int GetMessageType() const { return static_cast<unsigned int>(m_messageType); }
    /// Bare name of the function that raised.
    const YString& GetFunction() const { return m_function; }
    /// Source path of the site, without ending.
    const YString& GetFile() const { return m_file; }
    /// The site's line, from 1.
    unsigned int GetLine() const { return static_cast<unsigned int>(m_line); }
    /// Type, code by name and number with the system's text for it, and function.
    YString Describe() const;
    /// Prints the message and then Describe() in parentheses; the latter alone if there is no message.
    friend KRT_API std::ostream& operator<<(std::ostream& out, const YErrorBase& error);
    /// The raising thread's stack, a line a frame, with names where they are known. Names are looked up here.
    YString GetStackTrace() const;

protected:
    friend KRT_API YError MakeYError(ExceptionType, unsigned int, unsigned int, unsigned int, const char*,
                                     const char*, const YString&);

    /// What the operations above give.
    YString m_message;
    YString m_function;
    unsigned long long m_type = 0;
    unsigned long long m_messageType = 0;
    YString m_file;
    YString m_codeName; // "InvalidArgument", or "ENOENT" for an OsError
    YString m_what;     // for an OsError what() gives this; Describe takes the system's text from its end
    unsigned long long m_line = 0;
    YString m_stack; // as GetCurrentStackTrace gives it
    unsigned long long m_code = 0;
};

class KRT_API YError : public YErrorBase
{
public:
    /// An error that says nothing: type and codes 0, texts empty.
    YError() = default;
    /// A copy.
    explicit YError(const YErrorBase& other) : YErrorBase(other) {}
};

/// The error for a raising site. `code` is an ErrorCode, or an errno for OsError; `file` is the source path
/// and `function` the bare function name. Takes the stack of the caller. Does not fail.
KRT_API YError MakeYError(ExceptionType type, unsigned int messageType, unsigned int code, unsigned int line,
                          const char* file, const char* function, const YString& message);

/// The error for an exception of the standard library or of Boost: InvalidArgument, with `what()` behind the
/// message and ": ", or alone if the message is empty.
KRT_API YError TranslateYError(const std::exception& source, unsigned int messageType, unsigned int line,
                               const char* file, const char* function, const YString& message);

/// The calling thread's stack, a line a frame: the address, a blank, the module's path, "+" and the offset in
/// it. Cheap: no symbol is looked up.
KRT_API YString GetCurrentStackTrace();

/// The portable code for an operating-system error number.
KRT_API unsigned int CodeFromOsError(int osError);

} // namespace Krt::Exception
