// What kind of failure an error is: its type, and the portable code that its raising site gives it.
#pragma once

namespace Krt::Exception {

/// Where an error comes from.
enum class ExceptionType : unsigned int
{
    General = 0, ///< the code is an ErrorCode
    OsError = 3  ///< the code is an operating-system error number
};

/// The portable codes. Their numbers are what programs compare and what stands in logs.
struct ErrorCode
{
    /// A code; its number never changes.
    enum Value : unsigned int
    {
        InvalidUse = 17, ///< the caller broke a rule: a failed assertion or required check
        OutOfMemory = 21,
        AttributesUnavailable = 34, ///< no extended attributes here
        InvalidArgument = 58,
        NoPathComponent = 66, ///< beyond the last component of a path
        NotImplemented = 86,
        ProcessFailed = 111, ///< a program that was run ended with another status than 0
        NumberConversion = 126,
        CryptoFailure = 146,
        MutexInitFailed = 150,
        LockTimeout = 153, ///< a lock or a state did not come in time
        InvalidUtf16 = 162,
        InvalidUtf8 = 163,
        ValueConversion = 164,
        EmptyJobPath = 173,
        InvalidState = 212,
        NotFound = 235,
        NotSupported = 259
    };
};

} // namespace Krt::Exception

namespace Krt {
using Exception::ErrorCode;
using Exception::ExceptionType;
} // namespace Krt
