#include "Krt/Match/Descriptor.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"
#include "Krt/String/Ascii.h"

#include <boost/container/small_vector.hpp>

#include <algorithm>
#include <cstring>
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
bool TakeMatch(std::string_view& name, std::string_view& pattern)
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
    return wanted == "?" || wanted == found;
}

bool Continues(char byte)
{
    return (static_cast<unsigned char>(byte) & 0xC0) == 0x80;
}

// Returns the text before the first wildcard.
std::string_view LiteralOf(std::string_view pattern)
{
    const auto* const end =
        std::find_if(pattern.begin(), pattern.end(), [](char c) { return c == '*' || c == '?'; });
    return pattern.substr(0, static_cast<std::size_t>(end - pattern.begin()));
}

// Returns true if the characters of a name that equal those of the literal are found by their bytes: a
// character begins at the first byte in any name, and another one after the last byte.
bool IsFoundByBytes(std::string_view literal)
{
    if (literal.empty() || Continues(literal.front()))
        return false;
    std::size_t last = literal.size() - 1;
    while (Continues(literal[last]))
        --last;
    return String::GetChrSize(literal.data() + last) <= literal.size() - last;
}

std::size_t FindBytes(std::string_view text, std::string_view bytes)
{
    // memmem prepares tables, which a short text doesn't repay.
    constexpr std::size_t Short = 64;
    if (text.size() < Short)
        return text.find(bytes);
    const void* const found = memmem(text.data(), text.size(), bytes.data(), bytes.size());
    return found == nullptr ? text.npos
                            : static_cast<std::size_t>(static_cast<const char*>(found) - text.data());
}

// Only the last star can have matched too little, so backtracking to that one is enough. The text between two
// stars is searched for as bytes, if it can be, in linear time. Otherwise the time is at most proportional to
// the product of the two lengths.
bool MatchesGlob(std::string_view name, std::string_view pattern)
{
    bool starred = false;
    std::string_view retryName;
    std::string_view retryPattern; // after the last star
    std::string_view retryLiteral; // its beginning, if that is searched for as bytes
    const auto retry = [&] {
        const std::size_t found = retryLiteral.empty() ? 0 : FindBytes(retryName, retryLiteral);
        if (found == retryName.npos)
            return false;
        retryName.remove_prefix(found);
        name = retryName.substr(retryLiteral.size());
        pattern = retryPattern.substr(retryLiteral.size());
        return true;
    };
    while (!name.empty() || !pattern.empty()) {
        if (pattern.starts_with('*')) {
            pattern.remove_prefix(1);
            if (pattern.empty())
                return true;
            const std::string_view literal = LiteralOf(pattern);
            if (literal.size() == pattern.size() && !Continues(literal.front()))
                return name.ends_with(literal);
            starred = true;
            retryName = name;
            retryPattern = pattern;
            retryLiteral = IsFoundByBytes(literal) ? literal : std::string_view();
            if (!retry())
                return false;
            continue;
        }
        if (!pattern.empty() && !name.empty() && TakeMatch(name, pattern))
            continue;
        if (!starred || retryName.empty())
            return false;
        TakeCharacter(retryName);
        if (!retry())
            return false;
    }
    return true;
}

// The letter case of ASCII has no effect on where characters begin.
bool MatchesGlobInAnyCase(std::string_view name, std::string_view pattern)
{
    boost::container::small_vector<char, 512> lower(name.size() + pattern.size(),
                                                    boost::container::default_init);
    auto* const middle = std::transform(name.begin(), name.end(), lower.data(), String::ToLower);
    std::transform(pattern.begin(), pattern.end(), middle, String::ToLower);
    return MatchesGlob({lower.data(), name.size()}, {middle, pattern.size()});
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
        return descriptor.IsCaseSensitive()
                   ? MatchesGlob(name.Bytes(), descriptor.GetPattern().Bytes())
                   : MatchesGlobInAnyCase(name.Bytes(), descriptor.GetPattern().Bytes());
    case MatchType::None:
        break;
    }
    return false;
}

} // namespace Krt::Match
