// A pattern for one name: the last component of a path, or one component of its list. What it does is decided
// by the match type alone, so a derived descriptor may be copied into a plain one.
#pragma once

#include "Krt/Export.h"
#include "Krt/String/YString.h"

namespace Krt::JSON {
class YObject;
}

namespace Krt::Match {

/// How a name is compared.
enum class MatchType : unsigned int
{
    None = 0,  ///< matches nothing
    Glob = 2,  ///< by the pattern's "*" and "?"
    Exact = 3, ///< the pattern is the name
    Any = 8    ///< matches every name
};

class KRT_API Descriptor
{
public:
    /// Empty pattern, no kind, case-sensitive: the target of FromJSON.
    Descriptor() = default;
    /// Takes all three as they are; case is that of the letters of ASCII.
    Descriptor(MatchType type, const YString& pattern, bool caseSensitive);
    Descriptor(const Descriptor&) = default;
    Descriptor& operator=(const Descriptor&) = default;
    virtual ~Descriptor() = default;

    /// The fields. The reference lives as long as the descriptor.
    const YString& GetPattern() const { return m_pattern; }
    MatchType GetMatchType() const { return m_matchType; }
    bool IsCaseSensitive() const { return m_caseSensitive; }
    /// Whether the kind is Any; a Glob "*" is not.
    bool IsAny() const { return m_matchType == MatchType::Any; }

    /// Keys "pattern", "match_type" ("none", "glob", "exact", "any") and "case_sensitive".
    JSON::YObject ToJSON() const;
    /// Reads the same keys, all required; "match_type" may be the number too. Raises on others.
    void FromJSON(const JSON::YObject& json);

private:
    YString m_pattern;
    MatchType m_matchType = MatchType::None;
    bool m_caseSensitive = true;
};

/// Every name.
class KRT_API AnyDescriptor : public Descriptor
{
public:
    AnyDescriptor() : Descriptor(MatchType::Any, YString(), true) {}
};

/// The names that a pattern matches.
class KRT_API GlobDescriptor : public Descriptor
{
public:
    /// As Check reads it.
    GlobDescriptor(const YString& pattern, bool caseSensitive)
        : Descriptor(MatchType::Glob, pattern, caseSensitive)
    {}
};

/// One name.
class KRT_API ExactDescriptor : public Descriptor
{
public:
    /// The name, whatever characters it has.
    ExactDescriptor(const YString& name, bool caseSensitive)
        : Descriptor(MatchType::Exact, name, caseSensitive)
    {}
};

/// Whether the name matches. In a Glob, "*" is any run of characters and "?" one character; all else is
/// literal. Any thread, no state.
KRT_API bool Check(const YString& name, const Descriptor& descriptor);

} // namespace Krt::Match
