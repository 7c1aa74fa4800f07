// The bytes are converted as UTF-8, and, two at a time, as UTF-16.
#include "fuzz/Input.h"

#include "Krt/String/Encoding.h"

#include <optional>

namespace {

using Fuzz::Expect;

void AppendUnits(char32_t character, std::wstring& units)
{
    if (character >= 0x10000) {
        units += static_cast<wchar_t>(0xD800 + ((character - 0x10000) >> 10));
        character = 0xDC00 + ((character - 0x10000) & 0x3FF);
    }
    units += static_cast<wchar_t>(character);
}

void AppendBytes(char32_t character, std::string& bytes)
{
    const int more = character < 0x80 ? 0 : character < 0x800 ? 1 : character < 0x10000 ? 2 : 3;
    constexpr unsigned int Leads[] = {0, 0xC0, 0xE0, 0xF0};
    bytes += static_cast<char>(Leads[more] | character >> 6 * more);
    for (int shift = 6 * (more - 1); shift >= 0; shift -= 6)
        bytes += static_cast<char>(0x80 | (character >> shift & 0x3F));
}

// Every character that there is has one form in bytes and one in units, so a text is valid if it is the
// concatenation of those that it announces.
std::optional<std::wstring> FromBytes(const std::string& text)
{
    std::wstring units;
    std::string again;
    for (std::size_t at = 0; at < text.size(); at = again.size()) {
        const unsigned int lead = static_cast<unsigned char>(text[at]);
        const int more = lead >= 0xF0 ? 3 : lead >= 0xE0 ? 2 : lead >= 0xC0 ? 1 : 0;
        char32_t character = more == 0 ? lead : lead & (0x3F >> more);
        for (int i = 1; i <= more; ++i)
            character = character << 6 | (text.c_str()[std::min(at + i, text.size())] & 0x3F);
        if (character > 0x10FFFF || (character >= 0xD800 && character < 0xE000))
            return std::nullopt;
        AppendBytes(character, again);
        if (!text.starts_with(again))
            return std::nullopt;
        AppendUnits(character, units);
    }
    return units;
}

std::optional<std::string> FromUnits(const std::wstring& units)
{
    std::string text;
    for (std::size_t at = 0; at < units.size(); ++at) {
        char32_t character = units[at];
        if (character >= 0xD800 && character < 0xE000) {
            const char32_t trail = at + 1 < units.size() ? units[at + 1] : 0;
            if (character >= 0xDC00 || trail < 0xDC00 || trail >= 0xE000)
                return std::nullopt;
            character = 0x10000 + ((character - 0xD800) << 10) + (trail - 0xDC00);
            ++at;
        }
        AppendBytes(character, text);
    }
    return text;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    const std::string bytes = std::string(data, data + size).c_str();
    const std::optional<std::wstring> wantedUnits = FromBytes(bytes);
    std::wstring units;
    const bool badBytes = Fuzz::Raises([&] {
        auto heap = Krt::String::Convert<char, wchar_t>(bytes.c_str());
        units = heap;
        Expect(heap.Size() == (units.size() + 1) * sizeof(wchar_t), "the units and their NUL, no more");
    });
    Expect(badBytes != wantedUnits.has_value() && (badBytes || units == *wantedUnits), "UTF-8 to UTF-16");

    std::wstring wide;
    for (std::size_t at = 0; at + 2 <= size && (data[at] != 0 || data[at + 1] != 0); at += 2)
        wide += static_cast<wchar_t>(data[at] | data[at + 1] << 8);
    const std::optional<std::string> wantedBytes = FromUnits(wide);
    std::string text;
    const bool badUnits = Fuzz::Raises([&] {
        auto heap = Krt::String::Convert<wchar_t, char>(wide.c_str());
        text = heap;
        Expect(heap.Size() == (wide.size() + 1) * 16, "16 bytes for each unit and the NUL");
    });
    Expect(badUnits != wantedBytes.has_value() && (badUnits || text == *wantedBytes), "UTF-16 to UTF-8");
    return 0;
}
