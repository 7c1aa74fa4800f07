// Patterns: restic's patterns for the paths of entries. A pattern consists of names that are separated by
// "/":
//   - "*" matches any characters of a name, "?" for one, "[a-z]" and "[^a-z]" for one of a set; a
//     backslash takes the character after it as it is
//   - a name "**" matches any number of names, also none
//   - a pattern that begins with "/" matches from the root, another one from any name of the path
//   - what is below an entry that matches, matches, too
//   - "a/../b" is "b"; ".." at the beginning matches nothing, and is left out after a leading "/"
//   - "!" at the beginning takes back what earlier patterns of the list matched
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Agent {

/// One pattern, in parts.
struct Pattern
{
    std::vector<std::string> names; ///< patterns of one name each, or "**"
    bool isFromRoot = false;
    bool isNegated = false;

    /// Raises InvalidArgument for an empty one and for a set that is not closed.
    static Pattern Parse(const std::string& text);
};

/// Returns true if the name matches a pattern of one name, in which "**" is as "*". The pattern is
/// well-formed.
bool MatchesNamePattern(std::string_view pattern, std::string_view name);
/// Returns true if all sets of a pattern of one name are closed, and it does not end with a backslash.
bool IsNamePattern(std::string_view pattern);

/// Calls `visit` with each pattern in the text of a file, which has one on each line, and the line's number
/// from 1. White space around a line, empty lines and lines that begin with "#" are ignored. $NAME and
/// ${NAME} are replaced by a variable of the environment, which is empty if it is not set; $$ by a dollar
/// sign.
void VisitPatternLines(std::string_view text,
                       const std::function<void(std::size_t line, const std::string& pattern)>& visit);

class Patterns
{
public:
    struct Result
    {
        bool matches = false;
        bool mayMatchBelow = false; ///< an entry below this one may match
    };

    /// Adds a pattern. Raises what Pattern::Parse raises.
    void Add(const std::string& pattern, bool ignoresCase);
    /// Adds the patterns in the text of a file, see VisitPatternLines. Raises what Add raises.
    void AddLines(std::string_view text, bool ignoresCase);
    bool IsEmpty() const { return m_exact.empty() && m_anyCase.empty(); }
    /// Returns true if each pattern is of one name anywhere, and none is negated. Then, as long as none of
    /// the directories above an entry matches, whether it does depends on its name alone.
    bool AreOfNames() const;
    /// For a path that begins with "/".
    Result Match(const std::string& path) const;

private:
    static Result MatchList(const std::vector<Pattern>& patterns, const std::vector<std::string_view>& path);

    std::vector<Pattern> m_exact;
    std::vector<Pattern> m_anyCase; // in lower case
};

} // namespace Agent
