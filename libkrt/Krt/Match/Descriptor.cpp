#include "Krt/Match/Descriptor.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"
#include "Krt/String/Ascii.h"

#include <algorithm>
#include <iterator>

namespace Krt::Match {

namespace {

constexpr struct
{
    MatchType type;
    const char* word;
} Words[] = {{MatchType::None, "none"},
             {MatchType::Glob, "glob"},
             {MatchType::Exact, "exact"},
             {MatchType::Any, "any"}};

MatchType ReadMatchType(const JSON::YValue& value)
{
    const auto* const entry = std::find_if(std::begin(Words), std::end(Words), [&](const auto& candidate) {
        return value.IsNumber() ? value.AsNumber() == static_cast<unsigned int>(candidate.type)
                                : value.AsString() == candidate.word;
    });
    if (entry == std::end(Words))
        KRT_RAISE_AS("FromJSON", MessageType::General, ErrorCode::InvalidArgument,
                     "Unknown match type " << value.Stringify(true));
    return entry->type;
}

// Moves the first character of the text out of it. One that is cut short ends where its bytes do: a name
// needn't be UTF-8, and a lone lead byte must not take the dot of ".txt" along.
std::string_view TakeCharacter(std::string_view& text)
{
    const std::size_t announced = std::min<std::size_t>(String::GetChrSize(text.data()), text.size());
    std::size_t size = 1;
    while (size < announced && (static_cast<unsigned char>(text[size]) & 0xC0) == 0x80)
        ++size;
    const std::string_view character = text.substr(0, size);
    text.remove_prefix(character.size());
    return character;
}

// Whether the pattern has no wildcard and can't begin within a character of the name. Behind a star, the
// last bytes alone decide then.
bool IsPlainFromCharacterOn(std::string_view pattern)
{
    return (static_cast<unsigned char>(pattern.front()) & 0xC0) != 0x80 &&
           std::none_of(pattern.begin(), pattern.end(), [](char c) { return c == '*' || c == '?'; });
}

// Only the last star passed can have taken too little, so going back there alone is enough, and the time is
// at worst the product of the two lengths.
bool MatchesGlob(std::string_view name, std::string_view pattern, bool caseSensitive)
{
    bool starred = false;
    std::string_view retryName;
    std::string_view retryPattern;
    while (!name.empty() || !pattern.empty()) {
        if (pattern.starts_with('*')) {
            pattern.remove_prefix(1);
            if (pattern.empty())
                return true;
            if (caseSensitive && IsPlainFromCharacterOn(pattern))
                return name.ends_with(pattern);
            starred = true;
            retryName = name;
            retryPattern = pattern;
            continue;
        }
        if (!pattern.empty() && !name.empty()) {
            const std::string_view wanted = TakeCharacter(pattern);
            const std::string_view found = TakeCharacter(name);
            if (wanted == "?" || String::Equals(wanted, found, caseSensitive))
                continue;
        }
        if (!starred || retryName.empty())
            return false;
        TakeCharacter(retryName);
        name = retryName;
        pattern = retryPattern;
    }
    return true;
}

} // namespace

Descriptor::Descriptor(MatchType type, const YString& pattern, bool caseSensitive)
    : m_pattern(pattern), m_matchType(type), m_caseSensitive(caseSensitive)
{}

JSON::YObject Descriptor::ToJSON() const
{
    const auto* const entry = std::find_if(std::begin(Words), std::end(Words), [&](const auto& candidate) {
        return candidate.type == m_matchType;
    });
    KRT_RAISE_UNLESS(entry != std::end(Words), ErrorCode::InvalidState,
                     "Unknown match type " << static_cast<unsigned int>(m_matchType));
    JSON::YObject json;
    json.Set<YString>("pattern", m_pattern);
    json.Set<YString>("match_type", entry->word);
    json.Put("case_sensitive", boost::make_shared<JSON::YValue>(JSON::YValue::FromBool(m_caseSensitive)));
    return json;
}

void Descriptor::FromJSON(const JSON::YObject& json)
{
    const YString& pattern = json.Get<YString>("pattern", MessageType::Runtime);
    const MatchType matchType = ReadMatchType(*json.Find("match_type", MessageType::Runtime));
    m_caseSensitive = json.Get<bool>("case_sensitive", MessageType::Runtime);
    m_pattern = pattern;
    m_matchType = matchType;
}

bool Check(const YString& name, const Descriptor& descriptor)
{
    switch (descriptor.GetMatchType()) {
    case MatchType::Any:
        return true;
    case MatchType::Exact:
        return String::Equals(name.Bytes(), descriptor.GetPattern().Bytes(), descriptor.IsCaseSensitive());
    case MatchType::Glob:
        return MatchesGlob(name.Bytes(), descriptor.GetPattern().Bytes(), descriptor.IsCaseSensitive());
    case MatchType::None:
        break;
    }
    return false;
}

} // namespace Krt::Match
