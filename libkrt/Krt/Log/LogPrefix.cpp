#include "Krt/Log/LogPrefix.h"

#include "Krt/Debug/Debugger.h"
#include "Krt/Log/YStream.h"
#include "Krt/Thread/Thread.h"
#include "Krt/Util/Numbers.h"

#include <boost/core/demangle.hpp>

namespace Krt::Util {

namespace {

// Returns true for a byte of a letter, a digit or a character beyond ASCII.
bool IsWordByte(unsigned char byte)
{
    return byte >= 0x80 || (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
           (byte >= 'a' && byte <= 'z');
}

} // namespace

YString Camelify(const YString& name)
{
    std::string token;
    bool wordBegins = true;
    for (const char byte : name.Bytes()) {
        if (!IsWordByte(static_cast<unsigned char>(byte))) {
            wordBegins = true;
            continue;
        }
        token += wordBegins && byte >= 'a' && byte <= 'z' ? static_cast<char>(byte - 'a' + 'A') : byte;
        wordBegins = false;
    }
    return YString(std::string_view(token));
}

YString GetClassNameFromTypeInfo(const std::type_info& type)
{
    const std::string name = boost::core::demangle(type.name());
    std::size_t begin = 0;
    int depth = 0; // of template arguments and of the parameter lists of enclosing functions
    for (std::size_t i = 0; i < name.size(); ++i) {
        if (name[i] == '<' || name[i] == '(')
            ++depth;
        else if (name[i] == '>' || name[i] == ')')
            --depth;
        else if (depth == 0 && name.compare(i, 2, "::") == 0)
            begin = i + 2;
    }
    return YString(std::string_view(name).substr(begin));
}

} // namespace Krt::Util

namespace Krt::Log::Detail {

namespace {

YString ThreadIdText()
{
    return Util::NumberToString<unsigned int>(static_cast<unsigned int>(Thread::GetThreadId()), true);
}

YString FailedPrefix()
{
    Debug::EnterDebugger();
    return YString("RTTI ERROR");
}

} // namespace

YString PrefixOfName(const YString& name) noexcept
{
    try {
        return ThreadIdText() + YString(" ") + name + YString(": ");
    } catch (...) {
        return FailedPrefix();
    }
}

YString PrefixOfClass(const std::type_info& type) noexcept
{
    try {
        YStream prefix{YString()};
        prefix << ThreadIdText() << " " << Util::GetClassNameFromTypeInfo(type) << ": ";
        return prefix;
    } catch (...) {
        return FailedPrefix();
    }
}

} // namespace Krt::Log::Detail
