#pragma once

#include "Krt/Exception/ErrorCode.h"
#include "Krt/Log/MessageType.h"
#include "Krt/String/YString.h"

#include <exception>
#include <iosfwd>

namespace Krt::Exception {

class YError;

/// The content of an error: type, channel, code, location, text and stack.
class KRT_API YErrorBase : public std::exception
{
public:
    YErrorBase() = default;
    YErrorBase(const YErrorBase&) = default;
    YErrorBase& operator=(const YErrorBase&) = default;
    ~YErrorBase() override = default;

    /// The message; for an OsError followed by ": " and the system's text. The name of the code if there is
    /// no message. Valid as long as the error; ends at the first NUL byte.
    const char* what() const noexcept override;

    /// The operating system's error number with which the error was raised; 0 for the type General.
    virtual int GetOsError() const;
    /// The portable code; for an OsError the code to which its number maps.
    virtual unsigned int GetCode() const;

    /// The text of the raising site, which may be empty. It lacks the system's reason, which what(),
    /// Describe() and the printed form contain.
    const YString& GetMessage() const { return m_message; }
    /// The type: whether the error was raised with an ErrorCode or with an error number.
    ExceptionType GetType() const { return static_cast<ExceptionType>(m_type); }
    /// The log channel, a MessageType.
    unsigned int GetMessageType() const { return static_cast<unsigned int>(m_messageType); }
    /// The bare name of the raising function.
    const YString& GetFunction() const { return m_function; }
    /// The source path of the raising site, without its extension.
    const YString& GetFile() const { return m_file; }
    /// The line of the raising site, from 1.
    unsigned int GetLine() const { return static_cast<unsigned int>(m_line); }
    /// Returns type, code (by name and number, with the system's text) and function.
    YString Describe() const;
    /// Prints the message and then Describe() in parentheses; only the part in parentheses if there is no
    /// message.
    friend KRT_API std::ostream& operator<<(std::ostream& out, const YErrorBase& error);
    /// Returns the raising thread's stack, one line per frame, with names if they are known. The names are
    /// looked up by this call.
    YString GetStackTrace() const;

protected:
    friend KRT_API YError MakeYError(ExceptionType, unsigned int, unsigned int, unsigned int, const char*,
                                     const char*, const YString&);

    YString m_message;                    ///< returned by GetMessage
    YString m_function;                   ///< returned by GetFunction
    unsigned long long m_type = 0;        ///< returned by GetType
    unsigned long long m_messageType = 0; ///< returned by GetMessageType
    YString m_file;                       ///< returned by GetFile
    YString m_codeName;                   ///< "InvalidArgument", or "ENOENT" for an OsError
    YString m_what;                       ///< for an OsError what(); it ends with the system's text
    unsigned long long m_line = 0;        ///< returned by GetLine
    YString m_stack;                      ///< in the form of GetCurrentStackTrace
    unsigned long long m_code = 0;        ///< an ErrorCode, or an error number for an OsError
};

/// The only exception type. It records what the raising site knows. It is a value and owns its content. It
/// is also a std::exception, so a handler of std::exception must follow the handlers of YError.
class KRT_API YError : public YErrorBase
{
public:
    /// An error with type and codes 0 and empty texts.
    YError() = default;
    /// Copies the content of `other`.
    explicit YError(const YErrorBase& other) : YErrorBase(other) {}
};

/// Returns the error for a raising site. `code` is an ErrorCode, or an error number for OsError. `file` is
/// the source path, which is kept as it is, and `function` the bare function name. Captures the caller's
/// stack. Does not fail.
KRT_API YError MakeYError(ExceptionType type, unsigned int messageType, unsigned int code, unsigned int line,
                          const char* file, const char* function, const YString& message);

/// Returns the error InvalidArgument for an exception of the standard library or of Boost. Its text is the
/// message, ": " and `what()`; only `what()` if the message is empty. `file` is KRT_SOURCE_FILE; its
/// extension is removed.
KRT_API YError TranslateYError(const std::exception& source, unsigned int messageType, unsigned int line,
                               const char* file, const char* function, const YString& message);

/// Returns the calling thread's stack, one line per frame: the address, a blank, the module's path, "+" and
/// the offset in the module. Looks up no symbols.
KRT_API YString GetCurrentStackTrace();

/// Returns the portable code for an operating system's error number.
KRT_API unsigned int CodeFromOsError(int osError);

} // namespace Krt::Exception
