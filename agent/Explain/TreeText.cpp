#include "agent/Explain/ExplanationJson.h"
#include "agent/Explain/SelectionTree.h"

#include "agent/Run/Text.h"
#include "agent/Walk/RuleText.h"

#include "Krt/JSON/YValue.h"

#include <algorithm>

namespace Agent {

using Backup::File::YSelectionExplanation;
using Backup::File::YSelectionPathDescriptor;
using Krt::YString;
using Krt::JSON::YArray;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

constexpr unsigned int WidestNames = 48; // of a column that makes room for what follows

std::string AmountText(const TreeAmount& amount)
{
    const std::string entries = CountText(amount.entries, "entry", "entries");
    return amount.bytes == 0 ? entries : entries + ", " + ShortSize(amount.bytes);
}

std::string LeftAmount(const TreeNode& node)
{
    return AmountText(node.left) + (node.isCounted ? "" : " or more");
}

// The usage of the file system below a mount point that is not entered.
std::string UsageText(const MountUsage& usage)
{
    return "; its file system has " + (usage.inodes ? std::to_string(*usage.inodes) + " inodes, " : "") +
           ShortSize(usage.bytes) + " in use";
}

// What is left out below a node; "" if nothing is.
std::string LeftText(const TreeNode& node)
{
    if (node.left.entries == 0)
        return node.isCounted ? "" : "a part was not counted";
    return "left out: " + LeftAmount(node);
}

// Returns the rule that decides about an entry that is left out.
std::optional<YSelectionPathDescriptor> RuleOf(const TreeNode& node, const Job& job)
{
    if (node.outcome.isSelected || node.path == "/")
        return std::nullopt;
    const YSelectionExplanation explanation = job.rules.Explain(node.path);
    for (const YSelectionExplanation::Rule& rule : explanation.rules) {
        // An exclude may also prevent an include whose path is the entry.
        const bool isCutAtPath = node.outcome.isExcluded &&
                                 explanation.reason == YSelectionExplanation::Reason::EntriesMayBeIncluded &&
                                 rule.effect == YSelectionExplanation::Effect::Excludes;
        if (isCutAtPath || (rule.decides && rule.effect != YSelectionExplanation::Effect::ReachesBelow))
            return rule.rule;
    }
    return std::nullopt;
}

class TreeWriter
{
public:
    TreeWriter(const Job& job, RuleSources& sources, const TextStyle& style)
        : m_job(job), m_sources(sources), m_style(style)
    {}

    std::string Write(const TreeNode& top)
    {
        m_width = std::min(WidestWith(top, 0), WidestNames);
        Append(top, "", "", "");
        return std::move(m_text);
    }

private:
    struct Detail
    {
        Tone tone;
        std::string text;
    };

    static std::string LabelOf(const TreeNode& node)
    {
        const bool isNamed = node.kind == EntryKind::Directory && !node.name.ends_with('/');
        return Printable(node.name) + (isNamed ? "/" : "");
    }
    static unsigned int LengthOf(const std::string& text) { return YString(std::string_view(text)).Length(); }
    static unsigned int WidestWith(const TreeNode& node, unsigned int indent)
    {
        unsigned int widest = indent + LengthOf(LabelOf(node));
        for (const TreeNode& entry : node.entries)
            widest = std::max(widest, WidestWith(entry, indent + 4));
        return widest;
    }

    Detail DetailOf(const TreeNode& node)
    {
        const WalkOutcome& outcome = node.outcome;
        const bool isDirectory = node.kind == EntryKind::Directory;
        if (outcome.failure)
            return {Tone::Left, "fails: " + Printable(*outcome.failure)};
        if (outcome.isRepository)
            return {Tone::Left, "left out, " + LeftAmount(node) + ": it is the repository"};
        if (outcome.isMountCut)
            return {Tone::Partly,
                    std::string(outcome.isSelected ? "" : "not backed up, ") +
                        "not entered: " + MountPhrase(node.mount) +
                        (node.usage ? UsageText(*node.usage) : "; its contents are not counted")};
        if (outcome.isSelected && node.kind == EntryKind::Socket)
            return {Tone::Left, "left out: sockets are not stored"};
        const std::string left = LeftText(node);
        if (outcome.isSelected && !isDirectory)
            return {Tone::Stored,
                    node.kind == EntryKind::File ? ShortSize(node.stored.bytes) : KindWord(node.kind)};
        if (outcome.isSelected)
            return {left.empty() ? Tone::Stored : Tone::Partly,
                    AmountText(node.stored) + (left.empty() ? "" : "; " + left)};
        if (outcome.isEntered || !node.entries.empty() || node.stored.entries != 0) {
            const bool isEmpty = node.stored.entries == 0;
            return {
                isEmpty ? Tone::Left : Tone::Partly,
                (isEmpty ? "nothing in it is stored" : "only as the parent of " + AmountText(node.stored)) +
                    (left.empty() ? "" : "; " + left)};
        }
        return {Tone::Left, CutText(node)};
    }

    std::string CutText(const TreeNode& node)
    {
        const auto rule = RuleOf(node, m_job);
        const std::string amount = node.kind == EntryKind::Directory ? LeftAmount(node)
                                   : node.kind == EntryKind::File    ? ShortSize(node.left.bytes)
                                                                     : KindWord(node.kind);
        if (!rule)
            return "left out, " + amount + ": no include matches";
        return "excluded, " + amount + ": " + Printable(RulePhrase(*rule)) + " (" +
               OriginOf(*rule, m_sources) + ")";
    }

    void Append(const TreeNode& node, const std::string& indent, const std::string& branch,
                const std::string& continuation)
    {
        const std::string label = LabelOf(node);
        const Detail detail = DetailOf(node);
        const unsigned int used = LengthOf(indent + branch + label);
        m_text += Coloured(indent + branch, Tone::Quiet, m_style) + Coloured(label, detail.tone, m_style) +
                  std::string(used < m_width ? m_width - used : 0, ' ') + "  " + detail.text + "\n";
        for (std::size_t i = 0; i < node.entries.size(); ++i) {
            const bool isLast = i + 1 == node.entries.size();
            Append(node.entries[i], indent + continuation,
                   isLast ? "\u2514\u2500\u2500 " : "\u251c\u2500\u2500 ", isLast ? "    " : "\u2502   ");
        }
    }

    const Job& m_job;
    RuleSources& m_sources;
    const TextStyle& m_style;
    unsigned int m_width = 0;
    std::string m_text;
};

YObject AmountObject(const TreeAmount& amount)
{
    YObject object;
    object.Put("entries", YValue::Create<unsigned long long>(amount.entries));
    object.Put("bytes", YValue::Create<unsigned long long>(amount.bytes));
    return object;
}

YObject TreeMountObject(const TreeNode& node)
{
    YObject object = MountObject(*node.mount);
    if (node.usage && node.usage->inodes)
        object.Put("inodes", YValue::Create<unsigned long long>(*node.usage->inodes));
    if (node.usage)
        object.Put("bytes", YValue::Create<unsigned long long>(node.usage->bytes));
    return object;
}

} // namespace

std::string TreeText(const TreeNode& tree, const Job& job, RuleSources& sources, const TextStyle& style)
{
    return TreeWriter(job, sources, style).Write(tree);
}

YObject TreeObject(const TreeNode& tree, const Job& job, RuleSources& sources)
{
    YObject object;
    object.Set<YString>("name", YString(std::string_view(tree.name)));
    object.Set<YString>("type", KindWord(tree.kind));
    if (tree.path != "/")
        object.Set<YString>("answer", AnswerWord(job.rules.GetPathSelectionType(tree.path)));
    object.Put("backed_up", YValue::Create<bool>(tree.outcome.isSelected && !tree.outcome.failure &&
                                                 tree.kind != EntryKind::Socket));
    object.Put("entered", YValue::Create<bool>(tree.outcome.isEntered));
    object.Set<YObject>("stored", AmountObject(tree.stored));
    object.Set<YObject>("left_out", AmountObject(tree.left));
    object.Put("counted", YValue::Create<bool>(tree.isCounted));
    object.Put("repository", YValue::Create<bool>(tree.outcome.isRepository));
    if (tree.mount)
        object.Set<YObject>("mount", TreeMountObject(tree));
    if (const auto rule = RuleOf(tree, job))
        object.Set<YObject>("rule", RuleObject(*rule, sources));
    if (tree.outcome.failure)
        object.Set<YString>("error", *tree.outcome.failure);
    YArray entries;
    for (const TreeNode& entry : tree.entries)
        entries.push_back(YValue::Create<YObject>(TreeObject(entry, job, sources)));
    if (!entries.empty())
        object.Set<YArray>("entries", std::move(entries));
    return object;
}

} // namespace Agent
