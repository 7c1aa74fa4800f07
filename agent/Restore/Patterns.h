// Patterns: restic's patterns for the paths of entries. A pattern consists of names that are separated by
// "/":
//   - "*" matches any characters of a name, "?" for one, "[a-z]" and "[^a-z]" for one of a set; a
//     backslash takes the character after it as it is
//   - a name "**" matches any number of names, also none
//   - a pattern that begins with "/" matches from the root, another one from any name of the path
//   - what is below an entry that matches, matches, too
//   - "!" at the beginning takes back what earlier patterns of the list matched
#pragma once

#include <string>
#include <vector>

namespace Agent {

class Patterns
{
public:
    struct Result
    {
        bool matches = false;
        bool mayMatchBelow = false; ///< an entry below this one may match
    };

    /// Adds a pattern. Raises InvalidArgument for an empty one and for a set that is not closed.
    void Add(const std::string& pattern, bool ignoresCase);
    /// Adds the patterns of a file, one on each line. White space around a line, empty lines and lines that
    /// begin with "#" are ignored. $NAME and ${NAME} are replaced by a variable of the environment, $$ by a
    /// dollar sign. Raises what Add and ReadTextFile raise.
    void AddFile(const std::string& path, bool ignoresCase);
    bool IsEmpty() const { return m_exact.empty() && m_anyCase.empty(); }
    /// For a path that begins with "/".
    Result Match(const std::string& path) const;

private:
    struct Pattern
    {
        std::vector<std::string> names;
        bool isFromRoot = false;
        bool isNegated = false;
    };
    using Names = std::vector<std::string>;

    static Result MatchList(const std::vector<Pattern>& patterns, const Names& path);

    std::vector<Pattern> m_exact;
    std::vector<Pattern> m_anyCase; // in lower case
};

} // namespace Agent
