#include "Krt/Exception/YError.h"

#include "Krt/Exception/Unix/Module.h"

#include <boost/core/demangle.hpp>
#include <boost/stacktrace/stacktrace.hpp>

#include <dlfcn.h>

#include <charconv>
#include <cstdint>
#include <cstdlib>
#include <string>

namespace Krt::Exception {

namespace {

// A frame contains a return address, which may belong to the next function if the call never returns. The
// byte before it is inside the call.
std::uintptr_t CallAddress(const boost::stacktrace::frame& frame)
{
    const auto address = reinterpret_cast<std::uintptr_t>(frame.address());
    return address == 0 ? 0 : address - 1;
}

void AppendHexadecimal(std::string& text, std::uintptr_t number)
{
    char digits[2 * sizeof number];
    const auto end = std::to_chars(digits, digits + sizeof digits, number, 16).ptr;
    text.append("0x").append(digits, end);
}

void AppendFrame(std::string& text, std::uintptr_t address)
{
    AppendHexadecimal(text, address);
    const Module module = FindModule(address);
    if (module.path == nullptr)
        return;
    text.append(" ").append(module.path).append("+");
    AppendHexadecimal(text, address - module.base);
}

// Returns the function's name from a line of AppendFrame; empty if the line has no name.
std::string FunctionOfFrame(const std::string& line)
{
    const std::uintptr_t address = std::strtoull(line.c_str(), nullptr, 16);
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(address), &info) == 0 || info.dli_sname == nullptr)
        return std::string();
    return boost::core::demangle(info.dli_sname);
}

} // namespace

[[gnu::noinline]] YString GetCurrentStackTrace()
{
    const boost::stacktrace::stacktrace frames;
    std::string text;
    for (const boost::stacktrace::frame& frame : frames) {
        if (!text.empty())
            text += '\n';
        AppendFrame(text, CallAddress(frame));
    }
    return YString(std::string_view(text));
}

YString YErrorBase::GetStackTrace() const
{
    std::string text;
    for (const YString& frame : m_stack.SectionVector('\n', true, true)) {
        if (!text.empty())
            text += '\n';
        text += frame.Bytes();
        if (const std::string function = FunctionOfFrame(frame.Bytes()); !function.empty())
            text.append(" ").append(function);
    }
    return YString(std::string_view(text));
}

} // namespace Krt::Exception
