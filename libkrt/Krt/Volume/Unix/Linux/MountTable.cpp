#include "Krt/Volume/MountTable.h"

#include "Krt/Util/YUnxHandle.h"

#include <algorithm>
#include <array>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

// getmntent_r is not used: it loses an empty source, leaves '#' escaped, treats a read error as the end of
// the table, and takes longer than all the rest of listing.
namespace Krt::Volume {

namespace {

// The process's own view; /etc/mtab may describe another mount namespace.
constexpr const char* SystemTable = "/proc/self/mounts";

std::string_view WithoutLeadingBlanks(std::string_view text)
{
    return text.substr(std::min(text.find_first_not_of(" \t"), text.size()));
}

// Two searches for a byte are faster than one for a set of them.
std::string_view TakeField(std::string_view& line)
{
    std::string_view field = line.substr(0, line.find(' '));
    field = field.substr(0, field.find('\t'));
    line = WithoutLeadingBlanks(line.substr(field.size()));
    return field;
}

constexpr bool IsOctal(char digit)
{
    return digit >= '0' && digit <= '7';
}

// The kernel writes blanks, tabs, line ends, backslashes and '#' as a backslash with three octal digits.
YString Decode(std::string_view field)
{
    std::size_t escape = field.find('\\');
    if (escape == std::string_view::npos)
        return YString(field);
    std::string decoded;
    do {
        decoded += field.substr(0, escape);
        field.remove_prefix(escape);
        if (field.size() >= 4 && field[1] <= '3' &&
            std::all_of(field.begin() + 1, field.begin() + 4, IsOctal)) {
            decoded += static_cast<char>((field[1] - '0') << 6 | (field[2] - '0') << 3 | (field[3] - '0'));
            field.remove_prefix(4);
        } else {
            decoded += '\\';
            field.remove_prefix(1);
        }
        escape = field.find('\\');
    } while (escape != std::string_view::npos);
    return YString(std::move(decoded += field));
}

bool HasOption(std::string_view options, std::string_view wanted)
{
    while (true) {
        const std::size_t end = options.find(',');
        if (options.substr(0, end) == wanted)
            return true;
        if (end == std::string_view::npos)
            return false;
        options.remove_prefix(end + 1);
    }
}

void AddEntry(std::vector<MountEntry>& entries, std::string_view line)
{
    std::array<std::string_view, 4> fields;
    line = WithoutLeadingBlanks(line);
    if (line.empty() || line.front() == '#')
        return;
    for (std::string_view& field : fields)
        field = TakeField(line);
    // The line of a mount without a source begins with a blank. A type never begins with a slash, and a
    // directory always does.
    if (!fields[1].starts_with('/') && fields[0].starts_with('/'))
        fields = {"", fields[0], fields[1], fields[2]};
    const auto& [source, directory, type, options] = fields;
    // This is how an automounter marks an entry that is not to be listed.
    if (type == "autofs" && HasOption(options, "ignore"))
        return;
    entries.push_back({Decode(type), Decode(directory), Decode(source), HasOption(options, "ro")});
}

void AddEntries(std::vector<MountEntry>& entries, std::string_view lines)
{
    while (!lines.empty()) {
        const std::size_t end = std::min(lines.find('\n'), lines.size());
        AddEntry(entries, lines.substr(0, end));
        lines.remove_prefix(std::min(end + 1, lines.size()));
    }
}

} // namespace

std::vector<MountEntry> ListMountEntries()
{
    const auto file = Util::OpenHandle(SystemTable, O_RDONLY);
    if (!file)
        return {};
    std::vector<MountEntry> entries;
    // The kernel returns at most a page of its own table at once.
    std::string buffer(0x4000, '\0');
    std::size_t kept = 0;
    while (true) {
        if (kept == buffer.size()) // a line that is longer
            buffer.resize(2 * kept);
        const auto count = Util::CallSystem(
            [&] { return read(file.value.Get(), buffer.data() + kept, buffer.size() - kept); });
        if (!count)
            return {};
        const std::string_view text(buffer.data(), kept + static_cast<std::size_t>(count.value));
        if (count.value == 0) {
            AddEntries(entries, text);
            return entries;
        }
        const std::size_t end = text.rfind('\n') + 1; // 0 if there is no line end
        AddEntries(entries, text.substr(0, end));
        kept = text.size() - end;
        std::memmove(buffer.data(), buffer.data() + end, kept);
    }
}

} // namespace Krt::Volume
