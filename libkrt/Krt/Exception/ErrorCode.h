#pragma once

/// @file
/// The kinds of failures: the type of an error, and its portable code.

namespace Krt::Exception {

/// The origin of an error, which defines the meaning of its code.
enum class ExceptionType : unsigned int
{
    General = 0, ///< the code is an ErrorCode
    OsError = 3  ///< the code is an operating-system error number
};

/// The portable codes. Programs compare their numbers, and logs contain them.
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
        LockTimeout = 153, ///< a lock or a state was not reached in time
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
