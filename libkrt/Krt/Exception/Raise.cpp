#include "Krt/Exception/Raise.h"

#include "Krt/Debug/Debugger.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Thread/Thread.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <locale>
#include <sstream>
#include <string>

namespace Krt::Exception {

namespace {

// The source path of a site, as errors report it.
std::string WithoutEnding(const char* file)
{
    const char* const slash = std::strrchr(file, '/');
    const char* const dot = std::strrchr(slash ? slash : file, '.');
    return dot ? std::string(file, dot) : std::string(file);
}

// Writes the lines of a failed check. The last one, the stack's text, has no line end.
void WriteBanner(std::ostream& stream, const char* condition, const YString& detail, unsigned int line,
                 const char* file, const char* function)
{
    stream << "******** Abort due to required check: '" << condition << "' " << detail.CStr() << std::endl
           << "******** ThreadId: 0x" << std::hex << Thread::GetThreadId() << std::dec << std::endl
           << "******** ThreadName: " << Thread::GetName().CStr() << std::endl
           << "******** Method: " << function << " " << WithoutEnding(file) << ":" << line << std::endl
           << "******** Stack: " << std::endl
           << GetCurrentStackTrace().CStr() << std::flush;
}

} // namespace

void Raise(ExceptionType type, unsigned int messageType, unsigned int code, unsigned int line,
           const char* file, const char* function, const YStream& message)
{
    throw YError(MakeYError(type, messageType, code, line, WithoutEnding(file).c_str(), function, message));
}

YError TranslateYError(const std::exception& source, unsigned int messageType, unsigned int line,
                       const char* file, const char* function, const YString& message)
{
    YString text = message.IsEmpty() ? YString() : message + YString(": ");
    text += YString(source.what());
    return MakeYError(ExceptionType::General, messageType, ErrorCode::InvalidArgument, line,
                      WithoutEnding(file).c_str(), function, text);
}

void FailRequiredCheck(const char* condition, const YString& detail, unsigned int line, const char* file,
                       const char* function)
{
    std::ostringstream text;
    text.imbue(std::locale::classic());
    WriteBanner(text, condition, detail, line, file, function);
    YStream banner{YString()};
    banner << text.str().c_str() << Modifiers::EndLine;
    std::cerr << YString(banner).CStr() << std::flush;
    Debug::EnterDebugger();
    Raise(ExceptionType::General, MessageType::General, ErrorCode::InvalidUse, line, file, function, banner);
}

void AbortRequiredCheck(const char* condition, const YStream& detail, unsigned int line, const char* file,
                        const char* function)
{
    // Not a stream of this layer: its flush acquires the lock of the signals, and a lock is what has just
    // failed.
    WriteBanner(std::cerr, condition, detail, line, file, function);
    Debug::EnterDebugger();
    std::abort();
}

void FailAssertion(const std::type_info& objectType, const char* condition, const YStream& detail,
                   unsigned int line, const char* file, const char* function)
{
    KRT_LOG_WITH_PREFIX(MessageType::General, Log::Detail::PrefixOfClass(objectType),
                        "Assertion failed for " << condition << "; " << detail);
    Debug::EnterDebugger();
    Raise(ExceptionType::General, MessageType::General, ErrorCode::InvalidUse, line, file, function, detail);
}

} // namespace Krt::Exception
