#include "Krt/Log/LogPrefix.h"

#include "Krt/Debug/Debugger.h"
#include "Krt/String/Ascii.h"
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

// True for the bytes of letters, digits and characters beyond ASCII.
constexpr std::array<bool, 256> IsWordByte = [] {
    std::array<bool, 256> isWord{};
    for (unsigned int byte = 0; byte < isWord.size(); ++byte)
        isWord[byte] = byte >= 0x80 || (byte >= '0' && byte <= '9') || (byte >= 'A' && byte <= 'Z') ||
                       (byte >= 'a' && byte <= 'z');
    return isWord;
}();

} // namespace

YString Camelify(const YString& name)
{
    std::string token = name.Bytes();
    bool wordBegins = true;
    std::size_t size = 0;
    for (const char byte : name.Bytes()) {
        const bool isWord = IsWordByte[static_cast<unsigned char>(byte)];
        if (isWord)
            token[size++] = wordBegins ? String::ToUpper(byte) : byte;
        wordBegins = !isWord;
    }
    token.resize(size);
    return YString(std::move(token));
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

// The text of the calling thread's id, which changes only in the child of a fork. Without a destructor, so
// that objects may log while the thread's others are destroyed.
struct ThreadText
{
    unsigned int id;
    char text[sizeof "0x12345678 " - 1];
};
constinit thread_local ThreadText t_thread{};

std::string_view TextOfThread()
{
    ThreadText& thread = t_thread;
    const auto id = static_cast<unsigned int>(Thread::GetThreadId());
    if (thread.id != id || thread.text[0] == '\0') {
        const std::string text = Util::NumberToString<unsigned int>(id, true).Bytes() + ' ';
        thread.id = id;
        text.copy(thread.text, sizeof thread.text);
    }
    return {thread.text, sizeof thread.text};
}

YString Prefix(const YString& name)
{
    const std::string_view thread = TextOfThread();
    std::string prefix;
    prefix.reserve(thread.size() + name.Bytes().size() + 2);
    prefix.append(thread).append(name.Bytes()).append(": ");
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
