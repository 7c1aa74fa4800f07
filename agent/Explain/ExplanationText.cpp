#include "agent/Explain/ExplanationText.h"

#include "agent/Run/Text.h"
#include "agent/Walk/RuleText.h"

#include <algorithm>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionExplanation;
using Backup::File::YSelectionPathDescriptor;
using Krt::YString;
using Krt::File::YPath;
using Effect = YSelectionExplanation::Effect;
using Reason = YSelectionExplanation::Reason;

namespace {

constexpr std::size_t MostSourceLines = 12;
constexpr const char* Indent = "  ";

// The path of the first components, up to that of the index.
std::string PathUpTo(const YPath& path, std::size_t component)
{
    std::string text;
    const auto& components = path.PopulateComponents();
    for (std::size_t i = 0; i <= component && i < components.size(); ++i)
        text += "/" + components[i].Bytes();
    return text.empty() ? "/" : Printable(text);
}

std::string Quoted(const YString& name)
{
    return "'" + Printable(name) + "'";
}

bool IsSameRule(const YSelectionPathDescriptor& a, const YSelectionPathDescriptor& b)
{
    const YSelectionDescriptor& descriptor = a;
    return descriptor == b && a.GetPath() == b.GetPath();
}

bool MayBeDirectory(EntryKind kind)
{
    return kind == EntryKind::Directory || kind == EntryKind::Missing || kind == EntryKind::Unknown;
}

// Writes one explanation.
class Writer
{
public:
    Writer(const PathExplanation& explanation, RuleSources& sources, const TextStyle& style)
        : m_explanation(explanation), m_sources(sources), m_style(style)
    {}

    std::string Write()
    {
        Headline();
        if (m_explanation.path.Bytes() != m_explanation.asked)
            Line("Its full path is " + Printable(m_explanation.path) + ".");
        if (m_explanation.obstacle != Obstacle::None)
            WriteObstacle();
        else
            WriteOutcome();
        if (m_explanation.rules)
            WriteRules();
        WriteStart();
        return std::move(m_text);
    }

private:
    void Line(const std::string& text) { m_text += Indent + text + "\n"; }
    void Break() { m_text += "\n"; }
    // Whether rules for entries below the path are of no use.
    bool HasNoEntries(const YPath& path) const
    {
        return path == m_explanation.path && !MayBeDirectory(m_explanation.kind);
    }
    bool IsDirectory() const { return m_explanation.kind == EntryKind::Directory; }

    void Headline();
    void WriteObstacle();
    void WriteOutcome();
    void WriteRules();
    void WriteOwnInclude();
    void WriteDecision(const YSelectionExplanation& rules, const YPath& path);
    void WriteSource(const YSelectionPathDescriptor& rule);
    void WriteFurther(const YSelectionExplanation& rules, const YPath& path);
    void WriteMisses();
    void WriteStart();
    void WriteListed(const YSelectionPathDescriptor& rule, const std::string& fate);
    std::string FateOf(const YSelectionExplanation::Rule& rule, Reason reason, const YPath& path) const;

    const PathExplanation& m_explanation;
    RuleSources& m_sources;
    const TextStyle& m_style;
    std::string m_text;
};

void Writer::Headline()
{
    const WalkOutcome& outcome = m_explanation.outcome;
    const char* answer = "not backed up";
    Tone tone = Tone::Left;
    if (m_explanation.IsStored() && (!IsDirectory() || outcome.isEntered)) {
        answer = "backed up";
        tone = Tone::Stored;
    } else if (m_explanation.IsStored()) {
        answer = "backed up without its contents";
        tone = Tone::Partly;
    } else if (m_explanation.IsParentOnly()) {
        answer = "backed up only if an entry in it is";
        tone = Tone::Partly;
    } else if (m_explanation.kind == EntryKind::Missing) {
        answer = "not backed up: it does not exist";
    } else if (m_explanation.kind == EntryKind::Unknown) {
        answer = "not backed up: it can't be examined";
    }
    m_text += Printable(m_explanation.asked) + ": " + Coloured(answer, tone, m_style) + "\n";
}

void Writer::WriteObstacle()
{
    const std::string at = Printable(m_explanation.obstacleAt);
    switch (m_explanation.obstacle) {
    case Obstacle::None:
        break;
    case Obstacle::NoStart:
        Line("No walk of the backup starts there or above.");
        break;
    case Obstacle::Rules:
        Line("The walk does not get there, since the rules keep it out of " + at + ".");
        WriteDecision(*m_explanation.obstacleRules, m_explanation.obstacleAt);
        break;
    case Obstacle::Mount:
        Line("The walk does not get there: " + at + " is " + MountPhrase(m_explanation.mount) +
             ", which it does not enter.");
        Line("To back it up, name it as a PATH of the backup, or list " + at + " in IncludedMountpoints.");
        break;
    case Obstacle::Repository:
        Line("The walk does not get there: " + at + " is the repository, or in it.");
        break;
    case Obstacle::Failure:
        Line("The walk does not get there, since it fails at " + at + ":");
        Line(Printable(*m_explanation.failure));
        break;
    case Obstacle::NoDirectory:
        Line("The walk does not get there, since " + at + " is not a directory.");
        break;
    case Obstacle::Missing:
        if (m_explanation.obstacleAt != m_explanation.path)
            Line("There is no " + at + ".");
        break;
    }
}

void Writer::WriteOutcome()
{
    const WalkOutcome& outcome = m_explanation.outcome;
    if (outcome.failure) {
        Line("The walk fails there: " + Printable(*outcome.failure) + ".");
    } else if (outcome.isRepository) {
        Line("It is the repository, or in it, and a backup leaves its repository out.");
    } else if (outcome.isMountCut) {
        Line("The walk does not enter it: it is " + MountPhrase(m_explanation.mount) + ".");
        Line("To back up what is in it, name it as a PATH of the backup, or list it in IncludedMountpoints.");
    } else if (outcome.isMountEntered) {
        Line("It is " + MountPhrase(m_explanation.mount) + ", and entered since the walk starts there.");
    } else if (outcome.isEntered) {
        Line("The walk enters it.");
    } else if (IsDirectory()) {
        Line("The walk does not enter it.");
    }
    if (outcome.isSelected && m_explanation.kind == EntryKind::Socket)
        Line("The rules include it, but it is a socket, and sockets are not stored.");
    if (outcome.isLinkTaken || (outcome.isSelected && m_explanation.kind == EntryKind::Symlink))
        Line("It is a symlink, which is stored itself and not followed.");
}

// What the rules say about the path itself. If the walk does not get there, that is not what decides.
void Writer::WriteRules()
{
    const YSelectionExplanation& rules = *m_explanation.rules;
    switch (m_explanation.obstacle) {
    case Obstacle::Rules:
        return; // the rules that matter are those about the directory above
    case Obstacle::None:
        if (m_explanation.ownInclude) {
            WriteOwnInclude();
            return;
        }
        break;
    case Obstacle::NoStart:
        break;
    default:
        if (m_explanation.obstacleAt == m_explanation.path && m_explanation.kind == EntryKind::Unknown)
            return; // it is named, but no start
        Break();
        Line("What the rules say about the path itself:");
    }
    WriteDecision(rules, m_explanation.path);
    WriteMisses();
}

// An include whose path is the entry decides, or an exclude that prevents it.
void Writer::WriteOwnInclude()
{
    const YSelectionExplanation& rules = *m_explanation.rules;
    const auto exclude = std::find_if(rules.rules.begin(), rules.rules.end(),
                                      [](const auto& rule) { return rule.effect == Effect::Excludes; });
    const bool isExcluded = !m_explanation.outcome.isSelected && exclude != rules.rules.end();
    Line(isExcluded
             ? "An include for all names belongs to it, but an exclude matches it:"
             : "An include for all names belongs to it. It is not a directory, so it is included itself:");
    Break();
    WriteSource(isExcluded ? exclude->rule : *m_explanation.ownInclude);
    if (!isExcluded)
        return;
    Break();
    Line("Also considered:");
    WriteListed(*m_explanation.ownInclude, "would include it, but excludes take precedence");
}

void Writer::WriteDecision(const YSelectionExplanation& rules, const YPath& path)
{
    const auto decider = std::find_if(rules.rules.begin(), rules.rules.end(),
                                      [](const YSelectionExplanation::Rule& rule) { return rule.decides; });
    const std::size_t last = path.PopulateComponents().size() - 1;
    const bool isEmpty = rules.reason == Reason::EntriesMayBeIncluded && HasNoEntries(path);
    switch (isEmpty ? Reason::NothingIncludes : rules.reason) {
    case Reason::Included:
        Line("An include matches it, and no exclude applies:");
        break;
    case Reason::Excluded:
    case Reason::ExcludedSilently:
        if (decider->component == last)
            Line("An exclude matches it:");
        else
            Line("An exclude matches " + PathUpTo(path, decider->component) +
                 ", and with it all that is in it:");
        break;
    case Reason::EntriesExcluded:
        Line("No include matches it, and everything in it is excluded silently:");
        break;
    case Reason::EntriesMayBeIncluded:
        if (decider != rules.rules.end() &&
            decider->rule.GetDescriptor().GetMatchType() == Krt::Match::MatchType::None)
            Line("No include matches it. One is for entries below it, but matches no name:");
        else
            Line("No include matches it. One applies to entries below it:");
        break;
    case Reason::NothingIncludes:
        Line("No include matches it.");
        break;
    }
    if (decider != rules.rules.end() && !isEmpty) {
        Break();
        WriteSource(decider->rule);
    }
    WriteFurther(rules, path);
}

// The rule in words, and as the job file has it.
void Writer::WriteSource(const YSelectionPathDescriptor& rule)
{
    Line(OriginOf(rule, m_sources) + ": " + Printable(RulePhrase(rule)));
    const RuleSource* const source = m_sources.Find(rule);
    if (source == nullptr)
        return;
    std::vector<std::string_view> lines = m_sources.LinesOf(*source);
    const std::size_t omitted = lines.size() > MostSourceLines ? lines.size() - MostSourceLines : 0;
    lines.resize(lines.size() - omitted);
    std::size_t number = source->line;
    const std::size_t digits = std::to_string(number + lines.size()).size();
    for (const std::string_view line : lines) {
        const std::string shown = std::to_string(number++);
        std::string text = Indent + std::string(Indent) + std::string(digits - shown.size(), ' ') + shown +
                           " | " + PrintableJson(line);
        if (m_style.width != 0 && YString(std::string_view(text)).Length() > m_style.width)
            text = YString(std::string_view(text)).Left(m_style.width - 1).Bytes() + "\u2026";
        m_text += Coloured(text, Tone::Quiet, m_style) + "\n";
    }
    if (omitted != 0)
        Line(std::string(Indent) + "(" + std::to_string(omitted) + " more lines)");
}

void Writer::WriteFurther(const YSelectionExplanation& rules, const YPath& path)
{
    // A rule may match several names of the path in the same way.
    const auto isRepeated = [&](const YSelectionExplanation::Rule& rule) {
        return std::any_of(rules.rules.begin(), rules.rules.end(), [&](const auto& other) {
            return &other != &rule && (other.decides || &other < &rule) && other.effect == rule.effect &&
                   IsSameRule(other.rule, rule.rule);
        });
    };
    bool isFirst = true;
    for (const YSelectionExplanation::Rule& rule : rules.rules) {
        if (rule.decides || isRepeated(rule))
            continue;
        if (isFirst) {
            Break();
            Line("Also considered:");
        }
        isFirst = false;
        WriteListed(rule.rule, FateOf(rule, rules.reason, path));
    }
}

void Writer::WriteListed(const YSelectionPathDescriptor& rule, const std::string& fate)
{
    Line(Indent + OriginOf(rule, m_sources) + ": " + Printable(RulePhrase(rule)));
    Line(std::string(Indent) + Indent + fate);
}

// What a rule that does not decide would do, and why it does not.
std::string Writer::FateOf(const YSelectionExplanation::Rule& rule, Reason reason, const YPath& path) const
{
    const std::string matched = Quoted(path.PopulateComponents().at(rule.component));
    const bool isExcluded = reason == Reason::Excluded || reason == Reason::ExcludedSilently;
    switch (rule.effect) {
    case Effect::Includes:
        return isExcluded ? "would include it, but excludes take precedence" : "would include it, too";
    case Effect::Excludes:
        if (!isExcluded)
            return "matches " + matched + ", but nothing includes the path, so there is nothing to exclude";
        if (reason == Reason::Excluded && !rule.isFurther && !rule.rule.GetReportExclude())
            return "matches " + matched + ", too, but a reported exclude of the same directory decides";
        return "would exclude it, too: it matches " + matched;
    case Effect::IsOverridden:
        return "matches " + matched + ", but an explicit include overrides it";
    case Effect::Overrides:
        return "selects " + PathUpTo(path, rule.component) +
               (rule.rule.IsRecursive() ? " with all that is in it" : "") +
               " explicitly, which overrides excludes set above";
    case Effect::ExcludesEntries:
        return "excludes all entries in it silently, too";
    case Effect::ReachesBelow:
        break;
    }
    return "applies to entries below it";
}

std::string CauseText(NearMiss::Cause cause, const PathExplanation& explanation)
{
    const std::string name = Quoted(YPath::GetFileFromPath(explanation.path, "/"));
    switch (cause) {
    case NearMiss::Cause::OtherNames:
        return "does not match the name " + name;
    case NearMiss::Cause::OtherCase:
        return "does not match " + name + ": upper and lower case differ in this rule";
    case NearMiss::Cause::NotSoDeep:
        return "matches the name " + name + ", but is not recursive, and the path is further down";
    case NearMiss::Cause::OnlyEntries:
        break;
    }
    return MayBeDirectory(explanation.kind)
               ? "applies to the entries in the directory, not to the directory itself"
               : "applies to the entries of a directory, and the path is not a directory";
}

// Leaves out the rule that decides, which was shown.
void Writer::WriteMisses()
{
    const NearMisses& misses = m_explanation.misses;
    const auto isShown = [this](const NearMiss& miss) {
        const auto& rules = m_explanation.rules->rules;
        return !HasNoEntries(m_explanation.path) &&
               std::any_of(rules.begin(), rules.end(), [&](const auto& each) {
                   return each.decides && IsSameRule(each.rule, miss.rule);
               });
    };
    bool isFirst = true;
    for (const NearMiss& miss : misses.shown) {
        if (isShown(miss))
            continue;
        if (isFirst) {
            Break();
            Line("Includes that come close:");
        }
        isFirst = false;
        WriteListed(miss.rule, CauseText(miss.cause, m_explanation));
    }
    if (misses.more != 0)
        Line(Indent + std::string("and ") + std::to_string(misses.more) + " more");
}

void Writer::WriteStart()
{
    const bool showsBelow = m_explanation.startBelow && !m_explanation.outcome.isEntered;
    if (m_explanation.start || showsBelow)
        Break();
    if (m_explanation.start)
        Line(Coloured("The walk starts at " + Printable(*m_explanation.start) + ".", Tone::Quiet, m_style));
    if (showsBelow)
        Line(Coloured("A walk starts below, at " + Printable(*m_explanation.startBelow) + ".", Tone::Quiet,
                      m_style));
}

} // namespace

std::string Coloured(const std::string& text, Tone tone, const TextStyle& style)
{
    if (!style.isColoured)
        return text;
    constexpr const char* Codes[] = {"32", "33", "31", "2"}; // green, yellow, red, faint
    return std::string("\033[") + Codes[static_cast<std::size_t>(tone)] + "m" + text + "\033[0m";
}

std::string OriginOf(const YSelectionPathDescriptor& rule, RuleSources& sources)
{
    if (const RuleSource* const source = sources.Find(rule))
        return Printable(sources.FileName()) + ":" + std::to_string(source->line);
    // A start adds its name in its parent directory, and everything in it.
    const bool isName = !rule.IsRecursive();
    const YPath start = isName ? rule.GetPath().Append(rule.GetDescriptor().GetPattern()) : rule.GetPath();
    return "the start " + (start.IsEmpty() ? "/" : Printable(start));
}

std::string MountPhrase(const std::optional<MountFacts>& mount)
{
    if (!mount)
        return "a mount point of unknown source";
    return "a mount point of class " + mount->driveClass + " (" +
           (mount->type.empty() ? "" : Printable(mount->type) + ", ") + Printable(mount->source) + ")";
}

std::string ExplanationText(const PathExplanation& explanation, RuleSources& sources, const TextStyle& style)
{
    return Writer(explanation, sources, style).Write();
}

} // namespace Agent
