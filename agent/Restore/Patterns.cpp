#include "agent/Restore/Patterns.h"

#include "agent/Access/TextFile.h"
#include "agent/Repository/Utf8.h"

#include "Krt/Exception/Raise.h"

#include <clocale>
#include <cstdlib>
#include <cwctype>
#include <span>

namespace Agent {

namespace {

using Names = std::vector<std::string>;

constexpr const char* AnyNames = "**";

// A character, or a byte that is not part of valid UTF-8.
std::size_t CharacterSize(std::string_view text)
{
    const Repo::Utf8Character character = Repo::DecodeUtf8(text);
    return character.size == 0 ? 1 : character.size;
}

std::string LowerCase(std::string_view text)
{
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    std::string lower;
    while (!text.empty()) {
        const Repo::Utf8Character character = Repo::DecodeUtf8(text);
        if (character.size == 0)
            lower += text.front();
        else if (character.code < 0x80)
            lower += static_cast<char>(character.code >= 'A' && character.code <= 'Z' ? character.code + 0x20
                                                                                      : character.code);
        else if (locale == locale_t())
            lower += text.substr(0, character.size);
        else
            Repo::AppendUtf8(static_cast<char32_t>(towlower_l(static_cast<wint_t>(character.code), locale)),
                             lower);
        text.remove_prefix(character.size == 0 ? 1 : character.size);
    }
    return lower;
}

Names NamesOf(std::string_view path)
{
    Names names;
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string_view name = path.substr(begin, end - begin);
        if (!name.empty() && name != ".")
            names.emplace_back(name);
        begin = end + 1;
    }
    return names;
}

// Takes a character of a set from the pattern. Returns false if the pattern ends.
bool TakeOfSet(std::string_view& pattern, std::string_view& character)
{
    if (pattern.starts_with('\\'))
        pattern.remove_prefix(1);
    else if (pattern.starts_with('-') || pattern.starts_with(']'))
        return false;
    if (pattern.empty())
        return false;
    character = pattern.substr(0, CharacterSize(pattern));
    pattern.remove_prefix(character.size());
    return true;
}

// Takes a set, after its "[", from the pattern. Returns false if it is not well-formed. The order of UTF-8
// is that of the characters' numbers.
bool TakeSet(std::string_view& pattern, std::string_view character, bool& contains)
{
    const bool isNegated = pattern.starts_with('^');
    if (isNegated)
        pattern.remove_prefix(1);
    contains = false;
    for (bool isFirst = true; isFirst || !pattern.starts_with(']'); isFirst = false) {
        std::string_view low;
        if (!TakeOfSet(pattern, low))
            return false;
        std::string_view high = low;
        if (pattern.starts_with('-')) {
            pattern.remove_prefix(1);
            if (!TakeOfSet(pattern, high))
                return false;
        }
        contains = contains || (low <= character && character <= high);
    }
    pattern.remove_prefix(1);
    contains = contains != isNegated;
    return true;
}

bool IsWellFormed(std::string_view pattern)
{
    while (!pattern.empty()) {
        const char first = pattern.front();
        pattern.remove_prefix(1);
        bool contains = false;
        if (first == '[' && !TakeSet(pattern, {}, contains))
            return false;
        if (first == '\\') {
            if (pattern.empty())
                return false;
            pattern.remove_prefix(1);
        }
    }
    return true;
}

// Removes what matches one character from both, if it matches.
bool TakeOne(std::string_view& pattern, std::string_view& name)
{
    const std::string_view character = name.substr(0, CharacterSize(name));
    const char first = pattern.front();
    bool fits = true;
    if (first == '?') {
        pattern.remove_prefix(1);
    } else if (first == '[') {
        pattern.remove_prefix(1);
        fits = TakeSet(pattern, character, fits) && fits;
    } else {
        if (first == '\\')
            pattern.remove_prefix(1);
        fits = pattern.starts_with(character);
        pattern.remove_prefix(fits ? character.size() : 0);
    }
    if (fits)
        name.remove_prefix(character.size());
    return fits;
}

// After a character that does not fit, the last "*" takes one more.
bool MatchesName(std::string_view pattern, std::string_view name)
{
    bool hasStar = false;
    std::string_view starPattern, starName;
    for (;;) {
        if (pattern.starts_with('*')) {
            pattern.remove_prefix(1);
            hasStar = true;
            starPattern = pattern;
            starName = name;
            continue;
        }
        if (pattern.empty() && name.empty())
            return true;
        if (!pattern.empty() && !name.empty() && TakeOne(pattern, name))
            continue;
        if (!hasStar || starName.empty())
            return false;
        starName.remove_prefix(CharacterSize(starName));
        pattern = starPattern;
        name = starName;
    }
}

bool MatchesFrom(std::span<const std::string> pattern, std::span<const std::string> path)
{
    while (!pattern.empty() && pattern.front() != AnyNames) {
        if (path.empty() || !MatchesName(pattern.front(), path.front()))
            return false;
        pattern = pattern.subspan(1);
        path = path.subspan(1);
    }
    if (pattern.empty())
        return true;
    while (!pattern.empty() && pattern.front() == AnyNames)
        pattern = pattern.subspan(1);
    for (std::size_t skipped = 0; skipped <= path.size(); ++skipped) {
        if (MatchesFrom(pattern, path.subspan(skipped)))
            return true;
    }
    return false;
}

bool Matches(std::span<const std::string> pattern, bool isFromRoot, std::span<const std::string> path)
{
    if (MatchesFrom(pattern, path))
        return true;
    for (std::size_t start = 1; !isFromRoot && start < path.size(); ++start) {
        if (MatchesFrom(pattern, path.subspan(start)))
            return true;
    }
    return false;
}

bool MayMatchBelow(std::span<const std::string> pattern, bool isFromRoot, std::span<const std::string> path)
{
    if (!isFromRoot)
        return true;
    for (std::size_t i = 0; i < pattern.size() && i < path.size() && pattern[i] != AnyNames; ++i) {
        if (!MatchesName(pattern[i], path[i]))
            return false;
    }
    return true;
}

// Replaces variables of the environment. A dollar sign that no name follows stays.
std::string WithVariables(std::string_view text)
{
    constexpr std::string_view NameBytes = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    std::string out;
    while (!text.empty()) {
        const std::size_t dollar = std::min(text.find('$'), text.size());
        out += text.substr(0, dollar);
        text.remove_prefix(dollar);
        if (text.empty())
            break;
        text.remove_prefix(1);
        const bool hasBraces = text.starts_with('{') && text.find('}') != std::string_view::npos;
        const std::size_t begin = hasBraces ? 1 : 0;
        const std::size_t end =
            hasBraces ? text.find('}') : std::min(text.find_first_not_of(NameBytes), text.size());
        const std::string name(text.substr(begin, end - begin));
        if (text.starts_with('$'))
            text.remove_prefix(1);
        if (name.empty())
            out += '$';
        else if (const char* const value = std::getenv(name.c_str()))
            out += value;
        text.remove_prefix(name.empty() ? 0 : end + begin);
    }
    return out;
}

} // namespace

void Patterns::AddFile(const std::string& path, bool ignoresCase)
{
    constexpr std::string_view White = " \t\r\v\f";
    constexpr std::size_t Limit = 16 << 20;
    const Repo::Secret file = ReadTextFile(path, Limit);
    std::string_view rest = Repo::AsText(file.View());
    while (!rest.empty()) {
        const std::size_t end = std::min(rest.find('\n'), rest.size());
        std::string_view line = rest.substr(0, end);
        rest.remove_prefix(std::min(end + 1, rest.size()));
        line.remove_prefix(std::min(line.find_first_not_of(White), line.size()));
        line = line.substr(0, line.find_last_not_of(White) + 1);
        if (!line.empty() && !line.starts_with('#'))
            Add(WithVariables(line), ignoresCase);
    }
}

void Patterns::Add(const std::string& pattern, bool ignoresCase)
{
    std::string_view rest = pattern;
    Pattern added;
    if (rest.starts_with('!')) {
        added.isNegated = true;
        rest.remove_prefix(1);
    }
    added.isFromRoot = rest.starts_with('/');
    added.names = NamesOf(ignoresCase ? LowerCase(rest) : std::string(rest));
    bool isWellFormed = added.isFromRoot || !added.names.empty();
    for (const std::string& name : added.names)
        isWellFormed = isWellFormed && IsWellFormed(name);
    KRT_RAISE_UNLESS(isWellFormed, Krt::ErrorCode::InvalidArgument,
                     "Not a pattern: '" << pattern.c_str() << "'");
    (ignoresCase ? m_anyCase : m_exact).push_back(std::move(added));
}

Patterns::Result Patterns::Match(const std::string& path) const
{
    Result result = MatchList(m_exact, NamesOf(path));
    if (!m_anyCase.empty()) {
        const Result other = MatchList(m_anyCase, NamesOf(LowerCase(path)));
        result.matches = result.matches || other.matches;
        result.mayMatchBelow = result.mayMatchBelow || other.mayMatchBelow;
    }
    return result;
}

Patterns::Result Patterns::MatchList(const std::vector<Pattern>& patterns, const Names& path)
{
    Result result;
    for (const Pattern& pattern : patterns) {
        const bool matches = Matches(pattern.names, pattern.isFromRoot, path);
        const bool mayBelow = matches || MayMatchBelow(pattern.names, pattern.isFromRoot, path);
        if (pattern.isNegated) {
            result.matches = result.matches && !matches;
        } else {
            result.matches = result.matches || matches;
            result.mayMatchBelow = result.mayMatchBelow || mayBelow;
        }
    }
    return result;
}

} // namespace Agent
