#include "agent/Run/Text.h"

#include "Backup/Core/YJobPath.h"

#include "Krt/String/Printable.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cmath>
#include <cstdio>
#include <ctime>
#include <exception>
#include <system_error>

namespace Agent {

std::string Printable(std::string_view text)
{
    std::string out;
    out.reserve(text.size());
    Krt::String::AppendPrintable(out, text);
    return out;
}

std::string PrintableJson(std::string_view json)
{
    std::string out;
    out.reserve(json.size());
    Krt::String::AppendPrintableJson(out, json);
    return out;
}

Krt::YString ShownPath(const Backup::YJobPath& path)
{
    // Components of a job may precede, follow or separate those of a file system.
    unsigned long files = 0;
    while (files < path.GetComponentCount() && path.GetComponent(files).IsFileSystem())
        ++files;
    const bool isFile = files != 0 && files == path.GetComponentCount();
    return isFile ? Krt::YString(path.GetFilesystemPortion()) : path.GetDisplayPath();
}

Krt::YString ReasonOf(const Krt::Exception::YError& error)
{
    std::string text = error.GetMessage().Bytes();
    if (error.GetType() == Krt::ExceptionType::OsError)
        text += (text.empty() ? "" : ": ") + std::generic_category().message(error.GetOsError());
    return text.empty() ? error.Describe() : Krt::YString(std::string_view(text));
}

std::string CountText(unsigned long long count, const char* one, const char* several)
{
    return std::to_string(count) + " " + (count == 1 ? one : several);
}

std::string Joined(const std::vector<std::string>& texts, const char* separator)
{
    std::string all;
    for (const std::string& text : texts)
        all += (all.empty() ? "" : separator) + text;
    return all;
}

std::string ShortSize(unsigned long long bytes)
{
    static constexpr std::array Units{"B", "KiB", "MiB", "GiB", "TiB", "PiB", "EiB"};
    std::size_t unit = 0;
    double size = static_cast<double>(bytes);
    while (size >= 1024 && unit + 1 < Units.size()) {
        size /= 1024;
        ++unit;
    }
    char text[32];
    std::snprintf(text, sizeof text, "%.*f %s", unit == 0 ? 0 : 1, size, Units[unit]);
    return text;
}

std::string DurationText(unsigned long long seconds)
{
    char text[64];
    if (seconds >= 3600)
        std::snprintf(text, sizeof(text), "%llu:%02llu:%02llu", seconds / 3600, seconds / 60 % 60,
                      seconds % 60);
    else
        std::snprintf(text, sizeof(text), "%llu:%02llu", seconds / 60, seconds % 60);
    return text;
}

std::optional<std::uint64_t> ParseSize(const std::string& text)
{
    constexpr std::string_view Units = "KMGT";
    const std::size_t end = std::min(text.find_first_not_of("0123456789."), text.size());
    std::size_t used = 0;
    double size = 0;
    try {
        size = std::stod(text.substr(0, end), &used);
    } catch (const std::exception&) {
        return std::nullopt;
    }
    if (used != end || text.size() - end > 1)
        return std::nullopt;
    if (end != text.size()) {
        const std::size_t unit =
            Units.find(static_cast<char>(std::toupper(static_cast<unsigned char>(text[end]))));
        if (unit == std::string_view::npos)
            return std::nullopt;
        size *= std::pow(1024, static_cast<double>(unit + 1));
    }
    return size < 1e18 ? std::optional(static_cast<std::uint64_t>(size)) : std::nullopt;
}

std::string TimeText(unsigned long long seconds)
{
    const auto time = static_cast<std::time_t>(seconds);
    std::tm utc{};
    char text[64];
    if (gmtime_r(&time, &utc) == nullptr || std::strftime(text, sizeof text, "%Y-%m-%dT%H:%M:%SZ", &utc) == 0)
        return std::to_string(static_cast<long long>(seconds));
    return text;
}

} // namespace Agent
