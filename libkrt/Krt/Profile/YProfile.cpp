#include "Krt/Profile/YProfile.h"

#include "Krt/Util/Numbers.h"

namespace Krt::Profile {

YProfile::YProfile(Sections sections) : m_sections(std::move(sections)) {}

YString YProfile::GetKeyValue(const YString& section, const YString& key, const YString& defaultValue) const
{
    const auto keys = m_sections.find(section);
    if (keys == m_sections.end())
        return defaultValue;
    const auto value = keys->second.find(key);
    return value == keys->second.end() ? defaultValue : value->second;
}

template <>
YString YProfile::Get<YString>(const YString& section, const YString& key, const YString& defaultValue) const
{
    return GetKeyValue(section, key, defaultValue);
}

template <>
bool YProfile::Get<bool>(const YString& section, const YString& key, const bool& defaultValue) const
{
    const YString text = GetKeyValue(section, key, defaultValue ? "true" : "false");
    return Util::StringToNumber<bool>(text, false, false);
}

} // namespace Krt::Profile
