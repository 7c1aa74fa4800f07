// What kind of failure an error is: its type, and the portable code that its raising site gives it.
#pragma once

namespace Krt::Exception {

enum class ExceptionType : unsigned int
{
    General = 0, ///< the code is an ErrorCode
    OsError = 3  ///< the code is an operating-system error number
};

struct ErrorCode
{
    enum Value : unsigned int
    {
        InvalidUse = 17,
        OutOfMemory = 21,
        AttributesUnavailable = 34,
        InvalidArgument = 58,
        NoPathComponent = 66,
        NotImplemented = 86,
        ProcessFailed = 111,
        NumberConversion = 126,
        CryptoFailure = 146,
        MutexInitFailed = 150,
        LockTimeout = 153,
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
