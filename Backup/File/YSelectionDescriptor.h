#pragma once

#include "Backup/Export.h"

#include "Krt/JSON/IJSON.h"
#include "Krt/Match/Descriptor.h"

namespace Krt {
class YStream;
}

namespace Backup::File {

/// One rule of a backup job without its directory: the names that it matches, its recursion, and whether it
/// includes or excludes. A rule applies to the entries inside its directory, never to that directory
/// itself. A plain value without a lock.
class BACKUP_API YSelectionDescriptor : public Krt::JSON::IJSON
{
public:
    /// The type of a rule (Include or Exclude), or the answer to a query about a path.
    enum SelectionType : unsigned int
    {
        NotSelectedDoNotRecurse = 0, ///< not selected, nor is anything below it
        NotSelectedDoRecurse = 1,    ///< not selected, but something below it may be
        Include = 2,                 ///< selected
        Exclude = 3                  ///< excluded, and to be reported as such
    };

    /// The levels to which a rule applies.
    enum RecursionType : unsigned int
    {
        NonRecursive = 0, ///< the entries directly inside the directory
        Recursive = 1     ///< every level below it
    };

    /// An empty pattern, NonRecursive, Include, reported, not explicit; to be filled by FromJSON.
    YSelectionDescriptor() = default;
    /// Raises InvalidArgument for a type below Include. A type above Exclude is accepted: a tree does not
    /// store such a rule, but drops the rules that it covers.
    YSelectionDescriptor(const Krt::Match::Descriptor& descriptor, RecursionType recursionType,
                         SelectionType selectionType, bool reportExclude);

    /// The pattern of the names. Valid as long as the rule.
    const Krt::Match::Descriptor& GetDescriptor() const { return m_descriptor; }
    RecursionType GetRecursionType() const { return m_recursionType; } ///< levels to which the rule applies
    SelectionType GetSelectionType() const { return m_selectionType; } ///< Include or Exclude
    /// Returns true if entries that an exclude matches are reported; otherwise they are omitted silently.
    bool GetReportExclude() const { return m_reportExclude; }
    /// Returns true if wider rules do not remove this rule and, as an include, it overrides excludes above
    /// it.
    bool GetExplicitSelection() const { return m_explicitSelection; }
    /// Sets the explicit flag. True raises NotImplemented, and changes nothing, except for NonRecursive
    /// Exact rules, Recursive Glob "*" rules and Recursive Any rules.
    void SetExplicitSelection(bool value);

    /// True if the recursion type is Recursive.
    bool IsRecursive() const { return m_recursionType == RecursionType::Recursive; }
    /// True if the type is Include.
    bool IsInclude() const { return m_selectionType == SelectionType::Include; }
    /// True if the type is Exclude.
    bool IsExclude() const { return m_selectionType == SelectionType::Exclude; }
    /// Returns true if the pattern matches all names: it is of kind Any, or the Glob "*".
    bool CoversAllNames() const;

    /// Returns "include", "exclude", "not_selected_do_recurse" or "not_selected_do_not_recurse". Raises
    /// InvalidState for other values.
    static YString SelectionTypeAsString(SelectionType type);
    /// Returns "recursive" or "nonrecursive". Raises InvalidState for other values.
    static YString RecursionTypeAsString(RecursionType type);
    /// Converts "include" or "exclude". Raises InvalidState for other texts; case matters.
    static SelectionType SelectionTypeAsEnum(const YString& text);
    /// Converts "recursive" or "nonrecursive". Raises InvalidState for other texts; case matters.
    static RecursionType RecursionTypeAsEnum(const YString& text);

    /// Returns an object with the keys "descriptor", "selection_type", "recursion_type", "report_exclude"
    /// and "explicit_selection".
    Krt::JSON::YObject ToJSON() const override;
    /// Requires all keys. Accepts the explicit flag for a rule of any shape.
    void FromJSON(const Krt::JSON::YObject& json) override;

    /// Returns true if `other` has no effect at the same directory as this rule or below it.
    bool CanPrune(const YSelectionDescriptor& other) const;

    /// Compares all fields. Two patterns of kind Any are equal, whatever their texts.
    bool operator==(const YSelectionDescriptor& other) const;
    /// The order of the rule sets: field by field, patterns by bytes. It ignores the explicit flag.
    bool operator<(const YSelectionDescriptor& other) const;

private:
    Krt::Match::Descriptor m_descriptor;
    RecursionType m_recursionType = RecursionType::NonRecursive;
    SelectionType m_selectionType = SelectionType::Include;
    bool m_reportExclude = true;
    bool m_explicitSelection = false;
};

/// Writes the fields of the rule, for logs.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionDescriptor& rule);

} // namespace Backup::File
