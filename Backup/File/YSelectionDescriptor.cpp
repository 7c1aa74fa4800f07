#include "Backup/File/YSelectionDescriptor.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"

#include <tuple>

namespace Backup::File {

using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Krt::Match::Descriptor;
using Krt::Match::MatchType;

YSelectionDescriptor::YSelectionDescriptor(const Descriptor& descriptor, RecursionType recursionType,
                                           SelectionType selectionType, bool reportExclude)
    : m_descriptor(descriptor), m_recursionType(recursionType), m_selectionType(selectionType),
      m_reportExclude(reportExclude)
{
    KRT_RAISE_UNLESS(selectionType >= SelectionType::Include, ErrorCode::InvalidArgument,
                     "YSelectionDescriptor may not be constructed with selection type NotSelected");
}

bool YSelectionDescriptor::CoversAllNames() const
{
    return m_descriptor.GetMatchType() == MatchType::Any ||
           (m_descriptor.GetMatchType() == MatchType::Glob && m_descriptor.GetPattern() == "*");
}

void YSelectionDescriptor::SetExplicitSelection(bool value)
{
    const bool isExactHere =
        m_recursionType == RecursionType::NonRecursive && m_descriptor.GetMatchType() == MatchType::Exact;
    const bool allowed = isExactHere || (IsRecursive() && CoversAllNames());
    KRT_RAISE_UNLESS(!value || allowed, ErrorCode::NotImplemented,
                     "Explicit selection flag may only be set to true on nonrecursive exact descriptors, "
                     "recursive glob * descriptors or recursive any descriptors.");
    m_explicitSelection = value;
}

YString YSelectionDescriptor::SelectionTypeAsString(SelectionType type)
{
    switch (type) {
    case SelectionType::NotSelectedDoNotRecurse:
        return "not_selected_do_not_recurse";
    case SelectionType::NotSelectedDoRecurse:
        return "not_selected_do_recurse";
    case SelectionType::Include:
        return "include";
    case SelectionType::Exclude:
        return "exclude";
    }
    KRT_RAISE(ErrorCode::InvalidState, "bad selectionType value: " << static_cast<unsigned int>(type));
}

YString YSelectionDescriptor::RecursionTypeAsString(RecursionType type)
{
    switch (type) {
    case RecursionType::NonRecursive:
        return "nonrecursive";
    case RecursionType::Recursive:
        return "recursive";
    }
    KRT_RAISE(ErrorCode::InvalidState, "bad recursive type value: " << static_cast<unsigned int>(type));
}

YSelectionDescriptor::SelectionType YSelectionDescriptor::SelectionTypeAsEnum(const YString& text)
{
    if (text == "include")
        return SelectionType::Include;
    if (text == "exclude")
        return SelectionType::Exclude;
    KRT_RAISE(ErrorCode::InvalidState, "bad selection type value: " << text);
}

YSelectionDescriptor::RecursionType YSelectionDescriptor::RecursionTypeAsEnum(const YString& text)
{
    if (text == "recursive")
        return RecursionType::Recursive;
    if (text == "nonrecursive")
        return RecursionType::NonRecursive;
    KRT_RAISE(ErrorCode::InvalidState, "bad recursive type value: " << text);
}

YObject YSelectionDescriptor::ToJSON() const
{
    YObject json;
    json.Set<YObject>("descriptor", m_descriptor.ToJSON());
    json.Set<YString>("selection_type", SelectionTypeAsString(m_selectionType));
    json.Set<YString>("recursion_type", RecursionTypeAsString(m_recursionType));
    json.Put("report_exclude", YValue::Create<bool>(m_reportExclude));
    json.Put("explicit_selection", YValue::Create<bool>(m_explicitSelection));
    return json;
}

void YSelectionDescriptor::FromJSON(const YObject& json)
{
    m_descriptor.FromJSON(json.Get<YObject>("descriptor", MessageType::Runtime));
    m_selectionType = SelectionTypeAsEnum(json.Get<YString>("selection_type", MessageType::Runtime));
    m_recursionType = RecursionTypeAsEnum(json.Get<YString>("recursion_type", MessageType::Runtime));
    m_reportExclude = json.Get<bool>("report_exclude", MessageType::Runtime);
    m_explicitSelection = json.Get<bool>("explicit_selection", MessageType::Runtime);
}

bool YSelectionDescriptor::CanPrune(const YSelectionDescriptor& other) const
{
    // The constructor accepts a type above Exclude. Such a rule is never pruned.
    if (!other.IsInclude() && !other.IsExclude())
        return false;
    if ((IsInclude() && other.IsExclude()) || (IsExclude() && other.IsInclude()))
        return false;
    // A rule can't replace one that reaches further.
    if (m_recursionType == RecursionType::NonRecursive && other.IsRecursive())
        return false;
    if (m_descriptor == other.m_descriptor)
        return true;
    // An explicit include is only replaced by a rule with its own pattern.
    if (other.IsInclude() && other.m_explicitSelection)
        return false;
    if (m_descriptor.IsAny())
        return true;
    return m_descriptor.GetMatchType() == MatchType::Glob &&
           other.m_descriptor.GetMatchType() == MatchType::Exact &&
           Krt::Match::Check(other.m_descriptor.GetPattern(), m_descriptor);
}

bool YSelectionDescriptor::operator==(const YSelectionDescriptor& other) const
{
    return m_recursionType == other.m_recursionType && m_selectionType == other.m_selectionType &&
           m_reportExclude == other.m_reportExclude && m_explicitSelection == other.m_explicitSelection &&
           m_descriptor == other.m_descriptor;
}

bool YSelectionDescriptor::operator<(const YSelectionDescriptor& other) const
{
    const auto flags = [](const YSelectionDescriptor& rule) {
        return std::make_tuple(rule.m_selectionType, rule.m_recursionType, rule.m_reportExclude,
                               rule.m_descriptor.GetMatchType(), rule.m_descriptor.IsCaseSensitive());
    };
    const auto order = flags(*this) <=> flags(other);
    return order != 0 ? order < 0 : m_descriptor.GetPattern() < other.m_descriptor.GetPattern();
}

Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionDescriptor& rule)
{
    return stream << "descriptor: " << rule.GetDescriptor() << ", m_recursionType: "
                  << YSelectionDescriptor::RecursionTypeAsString(rule.GetRecursionType())
                  << ", m_selectionType: "
                  << YSelectionDescriptor::SelectionTypeAsString(rule.GetSelectionType())
                  << ", m_reportExclude: " << rule.GetReportExclude()
                  << ", m_explicitSelection: " << rule.GetExplicitSelection();
}

} // namespace Backup::File
