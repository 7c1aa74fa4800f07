// The bytes are a table of mounts.
#include "fuzz/Input.h"

#include "testing/MountTable.h"

#include "Krt/Volume/MountTable.h"

#include <array>
#include <sstream>

namespace {

std::string TakeField(std::string& line)
{
    const std::size_t end = std::min(line.find_first_of(" \t"), line.size());
    const std::string field = line.substr(0, end);
    line.erase(0, std::min(line.find_first_not_of(" \t", end), line.size()));
    return field;
}

// Bytes may be written as octal numbers.
std::string Decoded(const std::string& raw)
{
    std::string field;
    for (std::size_t at = 0; at < raw.size();) {
        unsigned int byte = 0;
        const bool isEscape =
            raw[at] == '\\' && raw.find_first_not_of("01234567", at + 1) >= at + 4 && raw.size() >= at + 4 &&
            (byte = static_cast<unsigned int>(std::stoi(raw.substr(at + 1, 3), nullptr, 8))) <= 0xFF;
        field += isEscape ? static_cast<char>(byte) : raw[at];
        at += isEscape ? 4 : 1;
    }
    return field;
}

bool HasOption(const std::string& options, const std::string& wanted)
{
    std::istringstream input(options);
    for (std::string option; std::getline(input, option, ',');) {
        if (option == wanted)
            return true;
    }
    return false;
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
        // A directory begins with a slash: here the source is missing.
        if (!fields[1].starts_with('/') && fields[0].starts_with('/'))
            fields = {"", fields[0], fields[1], fields[2]};
        // Such an entry asks not to be listed.
        if (fields[2] == "autofs" && HasOption(fields[3], "ignore"))
            continue;
        lines.push_back({Decoded(fields[0]), Decoded(fields[1]), Decoded(fields[2]), fields[3]});
    }
    return lines;
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Testing::MountTable table("");
    const std::string text(data, data + size);
    table.Write(text);
    const std::vector<Krt::Volume::MountEntry> entries = Krt::Volume::ListMountEntries();
    // A name cannot contain a NUL, so any result is accepted.
    if (text.find('\0') != std::string::npos || text.find("\\000") != std::string::npos)
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
