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

// Removes the first character from the text and returns it. A truncated character ends where its bytes end: a
// name needn't be UTF-8, and a lone lead byte must not include the dot of ".txt".
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

// Removes the first character from both if the pattern's character matches the name's.
bool TakeMatch(std::string_view& name, std::string_view& pattern, bool caseSensitive)
{
    const auto isOneByte = [](std::string_view text) {
        return static_cast<signed char>(text[0]) >= 0;
    };
    std::string_view wanted, found;
    if (isOneByte(name) && isOneByte(pattern)) {
        wanted = pattern.substr(0, 1);
        found = name.substr(0, 1);
        pattern.remove_prefix(1);
        name.remove_prefix(1);
    } else {
        wanted = TakeCharacter(pattern);
        found = TakeCharacter(name);
    }
    return wanted == "?" || String::Equals(wanted, found, caseSensitive);
}

// Returns true if the pattern begins with a byte that matches only itself, and at which a character begins in
// any name.
bool BeginsWithLiteral(std::string_view pattern, bool caseSensitive)
{
    const char first = pattern.front();
    return caseSensitive && first != '*' && first != '?' &&
           (static_cast<unsigned char>(first) & 0xC0) != 0x80;
}

bool HasWildcard(std::string_view pattern)
{
    return std::any_of(pattern.begin(), pattern.end(), [](char c) { return c == '*' || c == '?'; });
}

// Only the last star can have matched too little, so backtracking to that one is enough. The time is at most
// proportional to the product of the two lengths.
bool MatchesGlob(std::string_view name, std::string_view pattern, bool caseSensitive)
{
    bool starred = false;
    std::string_view retryName;
    std::string_view retryPattern;
    const auto retry = [&] {
        if (BeginsWithLiteral(retryPattern, caseSensitive))
            retryName.remove_prefix(std::min(retryName.find(retryPattern.front()), retryName.size()));
        name = retryName;
        pattern = retryPattern;
    };
    while (!name.empty() || !pattern.empty()) {
        if (pattern.starts_with('*')) {
            pattern.remove_prefix(1);
            if (pattern.empty())
                return true;
            if (BeginsWithLiteral(pattern, caseSensitive) && !HasWildcard(pattern))
                return name.ends_with(pattern);
            starred = true;
            retryName = name;
            retryPattern = pattern;
            retry();
            continue;
        }
        if (!pattern.empty() && !name.empty() && TakeMatch(name, pattern, caseSensitive))
            continue;
        if (!starred || retryName.empty())
            return false;
        TakeCharacter(retryName);
        retry();
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
    json.Put("case_sensitive", JSON::YValue::Create<bool>(m_caseSensitive));
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
