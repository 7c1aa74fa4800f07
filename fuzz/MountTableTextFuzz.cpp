// The bytes are a table of mounts.
#include "fuzz/Input.h"

#include "testing/TemporaryDirectory.h"

#include "Krt/Volume/MountTable.h"

#include <array>
#include <sstream>

namespace {

using Krt::YString;

// A field of the line, in which blanks, tabs, line ends and backslashes may stand as octal numbers.
std::string TakeField(std::string& line)
{
    const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
    const std::string raw = line.substr(0, end);
    line.erase(0, std::min(line.find_first_not_of(" \t", end), line.size()));
    std::string field;
    for (std::size_t at = 0; at < raw.size();) {
        const auto escape = [&](std::string_view text, char meaning) {
            const bool is = raw.compare(at, text.size(), text) == 0;
            if (is) {
                field += meaning;
                at += text.size();
            }
            return is;
        };
        if (!escape("\\040", ' ') && !escape("\\011", '\t') && !escape("\\012", '\n') &&
            !escape("\\134", '\\') && !escape("\\\\", '\\'))
            field += raw[at++];
    }
    return field;
}

bool HasOption(const std::string& options, const std::string& wanted)
{
    std::istringstream input(options);
    for (std::string option; std::getline(input, option, ',');) {
        if (option == wanted || option.starts_with(wanted + '='))
            return true;
    }
    return false;
}

// '#' is escaped, too, but not in directories.
std::string WithHashes(std::string field)
{
    for (std::size_t at = 0; (at = field.find("\\043", at)) != std::string::npos; ++at)
        field.replace(at, 4, "#");
    return field;
}

std::vector<std::array<std::string, 4>> Lines(const std::string& text)
{
    std::vector<std::array<std::string, 4>> lines;
    std::istringstream input(text);
    for (std::string line; std::getline(input, line);) {
        line.erase(0, std::min(line.find_first_not_of(" \t"), line.size()));
        if (line.empty() || line[0] == '#')
            continue;
        std::array<std::string, 4> fields;
        for (std::string& field : fields)
            field = TakeField(line);
        // Such an entry asks not to be listed.
        if (fields[2] == "autofs" && HasOption(fields[3], "ignore"))
            continue;
        // A directory begins with a slash: here the source is missing.
        if (!fields[1].starts_with('/') && fields[0].starts_with('/'))
            fields = {"", fields[0], fields[1], fields[2]};
        fields[0] = WithHashes(fields[0]);
        fields[2] = WithHashes(fields[2]);
        lines.push_back(fields);
    }
    return lines;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Testing::TemporaryDirectory directory;
    const std::string text(data, data + size);
    const std::string file = directory.Write("mounts", text);
    Krt::Volume::SetMountTableForTesting(file.c_str());
    const std::vector<Krt::Volume::MountEntry> entries = Krt::Volume::ListMountEntries();
    if (text.find('\0') != std::string::npos) // ends no name, so what is made of it doesn't matter
        return 0;
    const auto lines = Lines(text);
    Fuzz::Expect(entries.size() == lines.size(), "an entry for each line");
    for (std::size_t i = 0; i < lines.size(); ++i) {
        const auto& [source, place, type, options] = lines[i];
        const Krt::Volume::MountEntry& entry = entries[i];
        Fuzz::Expect(entry.source.Bytes() == source && entry.directory.Bytes() == place &&
                         entry.type.Bytes() == type && entry.readOnly == HasOption(options, "ro"),
                     "an entry as its line has it");
    }
    return 0;
}
