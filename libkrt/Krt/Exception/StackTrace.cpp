#include "Krt/Exception/YError.h"

#include <boost/core/demangle.hpp>
#include <boost/stacktrace/stacktrace.hpp>

#include <dlfcn.h>

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace Krt::Exception {

namespace {

// A frame holds a return address, which may already belong to the next function when the call never returns;
// one byte less lies inside the call.
std::uintptr_t CallAddress(const boost::stacktrace::frame& frame)
{
    const auto address = reinterpret_cast<std::uintptr_t>(frame.address());
    return address == 0 ? 0 : address - 1;
}

void AppendFrame(std::string& text, std::uintptr_t address)
{
    char number[2 + 16 + 1];
    std::snprintf(number, sizeof number, "0x%" PRIxPTR, address);
    text += number;
    Dl_info info;
    if (dladdr(reinterpret_cast<void*>(address), &info) != 0 && info.dli_fname != nullptr) {
        std::snprintf(number, sizeof number, "0x%" PRIxPTR,
                      address - reinterpret_cast<std::uintptr_t>(info.dli_fbase));
        text.append(" ").append(info.dli_fname).append("+").append(number);
    }
}

// The name of the function that a line of AppendFrame lies in, empty if it isn't known.
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
