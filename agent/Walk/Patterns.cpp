#include "agent/Walk/Patterns.h"

#include "agent/Repository/Utf8.h"

#include "Krt/Exception/Raise.h"

#include <clocale>
#include <cstdlib>
#include <cwctype>
#include <span>

namespace Agent {

namespace {

using Path = std::vector<std::string_view>;

constexpr std::string_view AnyNames = "**";
constexpr std::string_view Parent = "..";

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

// The names are parts of the path.
Path NamesOf(std::string_view path)
{
    Path names;
    for (std::size_t begin = 0; begin <= path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string_view name = path.substr(begin, end - begin);
        if (!name.empty() && name != ".")
            names.push_back(name);
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

} // namespace

// After a character that does not fit, the last "*" takes one more.
bool MatchesNamePattern(std::string_view pattern, std::string_view name)
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

bool IsNamePattern(std::string_view pattern)
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

namespace {

bool MatchesFrom(std::span<const std::string> pattern, std::span<const std::string_view> path)
{
    while (!pattern.empty() && pattern.front() != AnyNames) {
        if (path.empty() || !MatchesNamePattern(pattern.front(), path.front()))
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

bool Matches(std::span<const std::string> pattern, bool isFromRoot, std::span<const std::string_view> path)
{
    if (MatchesFrom(pattern, path))
        return true;
    for (std::size_t start = 1; !isFromRoot && start < path.size(); ++start) {
        if (MatchesFrom(pattern, path.subspan(start)))
            return true;
    }
    return false;
}

bool MayMatchBelow(std::span<const std::string> pattern, bool isFromRoot,
                   std::span<const std::string_view> path)
{
    if (!isFromRoot)
        return true;
    for (std::size_t i = 0; i < pattern.size() && i < path.size() && pattern[i] != AnyNames; ++i) {
        if (!MatchesNamePattern(pattern[i], path[i]))
            return false;
    }
    return true;
}

// The name of a variable at the beginning of what follows a dollar sign, and the bytes to replace. As in
// restic, a special variable of the shell is one byte, and what is not well-formed is replaced by nothing.
struct Variable
{
    std::string_view name;
    std::size_t size = 0;
};

Variable VariableIn(std::string_view text)
{
    constexpr std::string_view SpecialBytes = "*#$@!?-0123456789";
    constexpr std::string_view NameBytes = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_";
    if (text.starts_with('{')) {
        const std::size_t end = text.find('}');
        return end == text.npos ? Variable{{}, 1} : Variable{text.substr(1, end - 1), end + 1};
    }
    if (!text.empty() && SpecialBytes.find(text.front()) != text.npos)
        return {text.substr(0, 1), 1};
    const std::size_t size = std::min(text.find_first_not_of(NameBytes), text.size());
    return {text.substr(0, size), size};
}

// Replaces variables of the environment. A dollar sign that no name follows stays.
std::string WithVariables(std::string_view text)
{
    std::string out;
    for (;;) {
        const std::size_t dollar = text.find('$');
        out += text.substr(0, dollar);
        if (dollar == text.npos)
            return out;
        text.remove_prefix(dollar + 1);
        const Variable variable = VariableIn(text);
        text.remove_prefix(variable.size);
        if (variable.size == 0 || variable.name == "$")
            out += '$';
        else if (const char* const value = std::getenv(std::string(variable.name).c_str()))
            out += value;
    }
}

} // namespace

void VisitPatternLines(std::string_view text,
                       const std::function<void(std::size_t line, const std::string& pattern)>& visit)
{
    constexpr std::string_view White = " \t\r\v\f";
    for (std::size_t number = 1; !text.empty(); ++number) {
        const std::size_t end = std::min(text.find('\n'), text.size());
        std::string_view line = text.substr(0, end);
        text.remove_prefix(std::min(end + 1, text.size()));
        line.remove_prefix(std::min(line.find_first_not_of(White), line.size()));
        line = line.substr(0, line.find_last_not_of(White) + 1);
        if (!line.empty() && !line.starts_with('#'))
            visit(number, WithVariables(line));
    }
}

void Patterns::AddLines(std::string_view text, bool ignoresCase)
{
    VisitPatternLines(text, [&](std::size_t, const std::string& pattern) { Add(pattern, ignoresCase); });
}

Pattern Pattern::Parse(const std::string& text)
{
    std::string_view rest = text;
    Pattern parsed;
    if (rest.starts_with('!')) {
        parsed.isNegated = true;
        rest.remove_prefix(1);
    }
    parsed.isFromRoot = rest.starts_with('/');
    bool isWellFormed = true;
    for (const std::string_view name : NamesOf(rest)) {
        const bool hasName = !parsed.names.empty() && parsed.names.back() != Parent;
        if (name == Parent && hasName)
            parsed.names.pop_back();
        else if (name != Parent || !parsed.isFromRoot)
            parsed.names.emplace_back(name);
    }
    for (const std::string& name : parsed.names)
        isWellFormed = isWellFormed && IsNamePattern(name);
    KRT_RAISE_UNLESS(isWellFormed && (parsed.isFromRoot || !parsed.names.empty()),
                     Krt::ErrorCode::InvalidArgument, "Not a pattern: '" << text.c_str() << "'");
    return parsed;
}

void Patterns::Add(const std::string& pattern, bool ignoresCase)
{
    (ignoresCase ? m_anyCase : m_exact).push_back(Pattern::Parse(ignoresCase ? LowerCase(pattern) : pattern));
}

bool Patterns::AreOfNames() const
{
    const auto isOfName = [](const Pattern& pattern) {
        return !pattern.isNegated && !pattern.isFromRoot && pattern.names.size() == 1 &&
               pattern.names.front() != "**";
    };
    return std::all_of(m_exact.begin(), m_exact.end(), isOfName) &&
           std::all_of(m_anyCase.begin(), m_anyCase.end(), isOfName);
}

Patterns::Result Patterns::Match(const std::string& path) const
{
    Result result = MatchList(m_exact, NamesOf(path));
    if (!m_anyCase.empty()) {
        const std::string lower = LowerCase(path);
        const Result other = MatchList(m_anyCase, NamesOf(lower));
        result.matches = result.matches || other.matches;
        result.mayMatchBelow = result.mayMatchBelow || other.mayMatchBelow;
    }
    return result;
}

Patterns::Result Patterns::MatchList(const std::vector<Pattern>& patterns, const Path& path)
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
