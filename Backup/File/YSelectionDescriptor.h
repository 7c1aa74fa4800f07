// One rule of a backup job without its place: which names it is about, how far it reaches, and whether it
// includes or excludes. A rule speaks about the entries inside the directory at which it stands, never about
// that directory. No lock of its own.
#pragma once

#include "Backup/Export.h"

#include "Krt/JSON/IJSON.h"
#include "Krt/Match/Descriptor.h"

namespace Krt {
class YStream;
}

namespace Backup::File {

class BACKUP_API YSelectionDescriptor : public Krt::JSON::IJSON
{
public:
    /// The kind of a rule, which is one of the last two, and the answer about a path.
    enum SelectionType : unsigned int
    {
        NotSelectedDoNotRecurse = 0, ///< not selected, and nothing below can be
        NotSelectedDoRecurse = 1,    ///< not selected, but something below may be
        Include = 2,
        Exclude = 3 ///< excluded, and to be reported as such
    };

    /// How far a rule reaches.
    enum RecursionType : unsigned int
    {
        NonRecursive = 0, ///< the entries directly inside the directory
        Recursive = 1     ///< every level below it
    };

    /// The target of FromJSON: no pattern, NonRecursive, Include, reporting, not explicit.
    YSelectionDescriptor() = default;
    /// Raises InvalidArgument for a type below Include. A type above Exclude is accepted: a tree stores no
    /// such rule, but drops what the rule can prune.
    YSelectionDescriptor(const Krt::Match::Descriptor& descriptor, RecursionType recursionType,
                         SelectionType selectionType, bool reportExclude);

    /// The fields. The reference lives as long as the rule.
    const Krt::Match::Descriptor& GetDescriptor() const { return m_descriptor; }
    RecursionType GetRecursionType() const { return m_recursionType; }
    SelectionType GetSelectionType() const { return m_selectionType; }
    /// Whether what an exclude matches is reported; otherwise it is left out silently.
    bool GetReportExclude() const { return m_reportExclude; }
    /// Whether the rule survives wider rules and, as an include, overrides excludes above it.
    bool GetExplicitSelection() const { return m_explicitSelection; }
    /// True raises NotImplemented, and changes nothing, but for NonRecursive Exact rules, Recursive Glob "*"
    /// rules and Recursive Any rules.
    void SetExplicitSelection(bool value);

    /// The fields as questions.
    bool IsRecursive() const { return m_recursionType == RecursionType::Recursive; }
    bool IsInclude() const { return m_selectionType == SelectionType::Include; }
    bool IsExclude() const { return m_selectionType == SelectionType::Exclude; }
    /// Whether the pattern is about all names: of kind Any, or the Glob "*".
    bool CoversAllNames() const;

    /// Raise InvalidState on other values.
    static YString SelectionTypeAsString(SelectionType type);
    static YString RecursionTypeAsString(RecursionType type);
    /// Know "include" and "exclude", since no rule has another type, and "recursive" and "nonrecursive";
    /// raise InvalidState on anything else. Case counts.
    static SelectionType SelectionTypeAsEnum(const YString& text);
    static RecursionType RecursionTypeAsEnum(const YString& text);

    /// Keys "descriptor", "selection_type", "recursion_type", "report_exclude", "explicit_selection".
    Krt::JSON::YObject ToJSON() const override;
    /// All keys are required; an explicit flag is taken on a rule of any shape.
    void FromJSON(const Krt::JSON::YObject& json) override;

    /// Whether `other`, standing beside this rule or below it, would change nothing.
    bool CanPrune(const YSelectionDescriptor& other) const;

    /// All fields; two patterns of kind Any are equal whatever they hold.
    bool operator==(const YSelectionDescriptor& other) const;
    /// The order of the rule sets: fields one by one, patterns by bytes. The explicit flag has no part in it.
    bool operator<(const YSelectionDescriptor& other) const;

private:
    Krt::Match::Descriptor m_descriptor;
    RecursionType m_recursionType = RecursionType::NonRecursive;
    SelectionType m_selectionType = SelectionType::Include;
    bool m_reportExclude = true;
    bool m_explicitSelection = false;
};

/// The fields of the rule, for logs.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionDescriptor& rule);

} // namespace Backup::File
