#pragma once

#include "Krt/Export.h"
#include "Krt/String/YString.h"

namespace Krt::JSON {
class YObject;
}

namespace Krt::Match {

/// The kinds of patterns.
enum class MatchType : unsigned int
{
    None = 0,  ///< matches nothing
    Glob = 2,  ///< by the pattern's "*" and "?"
    Exact = 3, ///< the pattern is the name
    Any = 8    ///< matches every name
};

/// A pattern for one name: the last component of a path, or one of its components. Derived classes only
/// choose the match type, so a derived descriptor may be copied to a Descriptor. A plain value without a
/// lock.
class KRT_API Descriptor
{
public:
    /// An empty, case-sensitive pattern of kind None, to be filled by FromJSON.
    Descriptor() = default;
    /// Stores the arguments unchanged. Without `caseSensitive` ASCII letters are compared regardless of
    /// case.
    Descriptor(MatchType type, const YString& pattern, bool caseSensitive);
    Descriptor(const Descriptor&) = default;
    Descriptor& operator=(const Descriptor&) = default;
    virtual ~Descriptor() = default;

    /// The pattern. Valid as long as the descriptor.
    const YString& GetPattern() const { return m_pattern; }
    MatchType GetMatchType() const { return m_matchType; } ///< kind of the pattern
    /// False if the case of ASCII letters is ignored.
    bool IsCaseSensitive() const { return m_caseSensitive; }
    /// Returns true if the kind is Any; false for a Glob "*".
    bool IsAny() const { return m_matchType == MatchType::Any; }

    /// Compares kind, pattern and case rule. Two patterns of kind Any are equal, whatever their texts.
    friend bool operator==(const Descriptor& a, const Descriptor& b) noexcept
    {
        return a.m_matchType == b.m_matchType &&
               (a.IsAny() || (a.m_caseSensitive == b.m_caseSensitive && a.m_pattern == b.m_pattern));
    }

    /// Returns an object with the keys "pattern", "match_type" ("none", "glob", "exact" or "any") and
    /// "case_sensitive".
    JSON::YObject ToJSON() const;
    /// Reads the keys of ToJSON, which are all required. "match_type" may be the number instead of the
    /// word. Raises for other values.
    void FromJSON(const JSON::YObject& json);

private:
    YString m_pattern;
    MatchType m_matchType = MatchType::None;
    bool m_caseSensitive = true;
};

/// A pattern that matches every name.
class KRT_API AnyDescriptor : public Descriptor
{
public:
    AnyDescriptor() : Descriptor(MatchType::Any, YString(), true) {}
};

/// A pattern with wildcards.
class KRT_API GlobDescriptor : public Descriptor
{
public:
    /// The wildcards of `pattern` are those of Check.
    GlobDescriptor(const YString& pattern, bool caseSensitive)
        : Descriptor(MatchType::Glob, pattern, caseSensitive)
    {}
};

/// A pattern that matches one name.
class KRT_API ExactDescriptor : public Descriptor
{
public:
    /// All characters of `name` are literal.
    ExactDescriptor(const YString& name, bool caseSensitive)
        : Descriptor(MatchType::Exact, name, caseSensitive)
    {}
};

/// Returns true if the pattern matches the name. In a Glob, "*" matches any run of characters and "?" one
/// character; other characters are literal. Stateless; any thread.
KRT_API bool Check(const YString& name, const Descriptor& descriptor);

} // namespace Krt::Match
