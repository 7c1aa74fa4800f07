#include "Krt/Log/LogPrefix.h"

#include "Krt/Debug/Debugger.h"
#include "Krt/Thread/Thread.h"
#include "Krt/Util/Numbers.h"

#include <boost/core/demangle.hpp>

#include <array>
#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <utility>

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

// The names of the classes that logged, since each takes longer to demangle than a line takes otherwise. An
// entry is created by the first line of a class, and never changes or ends. Classes with one position share
// it; only one of them has an entry.
struct ClassName
{
    std::string mangled; // a copy, since a library may be unloaded and another one loaded in its place
    YString name;
};
constexpr std::size_t ClassNameCount = 256;
constinit std::array<std::atomic<const ClassName*>, ClassNameCount> g_classNames{};

YString NameOf(const std::type_info& type)
{
    std::atomic<const ClassName*>& entry =
        g_classNames[std::hash<std::string_view>()(type.name()) % ClassNameCount];
    const ClassName* const known = entry.load(std::memory_order_acquire);
    if (known != nullptr && known->mangled == type.name())
        return known->name;
    auto made =
        std::make_unique<const ClassName>(ClassName{type.name(), Util::GetClassNameFromTypeInfo(type)});
    const YString name = made->name;
    const ClassName* none = nullptr;
    if (entry.compare_exchange_strong(none, made.get(), std::memory_order_acq_rel))
        made.release();
    return name;
}

YString Prefix(const YString& name)
{
    const YString thread =
        Util::NumberToString<unsigned int>(static_cast<unsigned int>(Thread::GetThreadId()), true);
    std::string prefix;
    prefix.reserve(thread.Bytes().size() + 1 + name.Bytes().size() + 2);
    prefix.append(thread.Bytes()).append(" ").append(name.Bytes()).append(": ");
    return YString(std::move(prefix));
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
        return Prefix(name);
    } catch (...) {
        return FailedPrefix();
    }
}

YString PrefixOfClass(const std::type_info& type) noexcept
{
    try {
        return Prefix(NameOf(type));
    } catch (...) {
        return FailedPrefix();
    }
}

} // namespace Krt::Log::Detail
