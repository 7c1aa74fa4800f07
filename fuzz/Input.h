// Takes the bytes of a case apart: first numbers, then texts, in an order that the target fixes.
#pragma once

#include "fuzz/Fuzz.h"

#include "Krt/Exception/YError.h"

#include <algorithm>
#include <string>
#include <string_view>

namespace Fuzz {

class Input
{
public:
    Input(const std::uint8_t* data, std::size_t size) : m_rest(reinterpret_cast<const char*>(data), size) {}

    bool IsEmpty() const { return m_rest.empty(); }
    /// 0 at the end.
    unsigned char Byte()
    {
        const std::string_view byte = Take(1);
        return byte.empty() ? 0 : static_cast<unsigned char>(byte.front());
    }
    /// A position or a count: small ones, and the largest that there are.
    unsigned int Count()
    {
        const unsigned int byte = Byte();
        return byte < 0xF0 ? byte : byte - 0x100;
    }
    /// Returns the text up to the next byte 0xFF, which UTF-8 never contains, or to the end.
    std::string Text()
    {
        const std::string_view text = Take(m_rest.find('\xFF'));
        Take(1);
        return std::string(text);
    }
    /// As many bytes as the two in front of them say, of which the first counts more.
    std::string Bytes()
    {
        const unsigned int high = Byte();
        return std::string(Take(high << 8 | Byte()));
    }

private:
    std::string_view Take(std::size_t size)
    {
        const std::string_view taken = m_rest.substr(0, size);
        m_rest.remove_prefix(taken.size());
        return taken;
    }

    std::string_view m_rest;
};

/// Whether the call raises a YError. Any other exception goes on, and is a finding.
template <class Call>
bool Raises(Call call)
{
    try {
        call();
    } catch (const Krt::Exception::YError&) {
        return true;
    }
    return false;
}

} // namespace Fuzz
