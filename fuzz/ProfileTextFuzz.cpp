// The bytes are a configuration file.
#include "fuzz/Input.h"

#include "testing/TemporaryDirectory.h"

#include "Krt/Profile/YProfile.h"

#include <map>
#include <set>
#include <sstream>

namespace {

using Krt::YString;
using Krt::Profile::YProfile;

// What a file says, line by line.
struct Model
{
    bool damaged = false;
    unsigned int lines = 0; // the number of the last line, or of the damaged one
    std::map<std::pair<YString, YString>, YString> values;

    explicit Model(const std::string& text);

private:
    bool TakeLine(const std::string& line);

    std::string m_section;
    bool m_isInSection = false;
    std::set<std::string> m_topNames; // of sections that have keys, and of keys in front of the first section
    std::set<std::string> m_keys;     // of the section
};

std::string Trimmed(const std::string& text)
{
    constexpr const char* Blanks = " \t\n\v\f\r";
    const std::size_t begin = text.find_first_not_of(Blanks);
    return begin == std::string::npos ? std::string()
                                      : text.substr(begin, text.find_last_not_of(Blanks) - begin + 1);
}

bool Model::TakeLine(const std::string& line)
{
    if (line.empty() || line[0] == ';' || line[0] == '#')
        return true;
    if (line[0] == '[') {
        const std::size_t end = line.find(']');
        m_section = Trimmed(line.substr(1, end - 1));
        m_isInSection = true;
        m_keys.clear();
        return end != std::string::npos && !m_topNames.contains(m_section);
    }
    const std::size_t equals = line.find('=');
    if (equals == std::string::npos || equals == 0)
        return false;
    const std::string key = Trimmed(line.substr(0, equals));
    const YString value{std::string_view(Trimmed(line.substr(equals + 1)))};
    values[{YString(std::string_view(m_section)), YString(std::string_view(key))}] = value;
    if (m_isInSection)
        m_topNames.insert(m_section);
    return (m_isInSection ? m_keys : m_topNames).insert(key).second;
}

Model::Model(const std::string& text)
{
    std::istringstream input(text);
    for (std::string line; !damaged && std::getline(input, line); ++lines)
        damaged = !TakeLine(Trimmed(line));
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const Testing::TemporaryDirectory directory;
    const std::string text(data, data + size);
    setenv("KBAGENT_CONFIG", directory.Write("kbagent.conf", text).c_str(), 1);
    const Model model(text);
    try {
        const auto profile = Krt::Profile::OpenSystem();
        Fuzz::Expect(!model.damaged, "damage is refused");
        for (const auto& [place, value] : model.values) {
            const YString &section = place.first, &key = place.second;
            Fuzz::Expect(profile->GetKeyValue(section, key, "none") == value, "the value of a key");
            const bool isBool = !value.IsEmpty() && std::string("tTyY1fFnN0").find(*value.CStr()) < 10;
            Fuzz::Expect(Fuzz::Raises([&] { profile->Get<bool>(section, key, true); }) != isBool,
                         "a bool by its first letter");
        }
    } catch (const Krt::Exception::YError& error) {
        Fuzz::Expect(model.damaged, "what is whole is read");
        const std::string place = "line " + std::to_string(model.lines) + ":";
        Fuzz::Expect(error.GetMessage().Bytes().find(place) != std::string::npos, "the error names the line");
    }
    return 0;
}
