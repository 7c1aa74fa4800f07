#include "agent/Explain/ExplanationJson.h"

#include "Krt/JSON/YValue.h"

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionExplanation;
using Backup::File::YSelectionPathDescriptor;
using Krt::YString;
using Krt::File::YPath;
using Krt::JSON::YArray;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

void PutBool(YObject& object, const char* key, bool value)
{
    object.Put(key, YValue::Create<bool>(value));
}

void PutNumber(YObject& object, const char* key, std::size_t value)
{
    object.Put(key, YValue::Create<unsigned long long>(value));
}

const char* ReasonWord(YSelectionExplanation::Reason reason)
{
    constexpr const char* Words[] = {"included",         "excluded",      "excluded_silently",
                                     "entries_excluded", "entries_below", "nothing_includes"};
    return Words[static_cast<std::size_t>(reason)];
}

const char* EffectWord(YSelectionExplanation::Effect effect)
{
    constexpr const char* Words[] = {"includes",  "excludes",         "overridden",
                                     "overrides", "excludes_entries", "reaches_below"};
    return Words[static_cast<std::size_t>(effect)];
}

const char* CauseWord(NearMiss::Cause cause)
{
    constexpr const char* Words[] = {"other_names", "other_case", "not_recursive", "only_entries"};
    return Words[static_cast<std::size_t>(cause)];
}

YObject DecisionObject(const YSelectionExplanation& decision, const YPath& path, RuleSources& sources)
{
    YArray rules;
    for (const YSelectionExplanation::Rule& each : decision.rules) {
        YObject rule = RuleObject(each.rule, sources);
        rule.Set<YString>("effect", EffectWord(each.effect));
        PutBool(rule, "decides", each.decides);
        PutBool(rule, "further", each.isFurther);
        PutNumber(rule, "component", each.component);
        rule.Set<YString>("component_name", path.PopulateComponents().at(each.component));
        rules.push_back(YValue::Create<YObject>(std::move(rule)));
    }
    YObject object;
    object.Set<YString>("answer", AnswerWord(decision.answer));
    object.Set<YString>("reason", ReasonWord(decision.reason));
    object.Set<YArray>("rules", std::move(rules));
    return object;
}

YObject ObstacleObject(const PathExplanation& explanation, RuleSources& sources)
{
    YObject object;
    object.Set<YString>("kind", ObstacleWord(explanation.obstacle));
    if (explanation.obstacle != Obstacle::NoStart)
        object.Set<YString>("path", explanation.obstacleAt);
    if (explanation.obstacle == Obstacle::Rules)
        object.Set<YObject>("decision",
                            DecisionObject(*explanation.obstacleRules, explanation.obstacleAt, sources));
    if (explanation.failure)
        object.Set<YString>("error", *explanation.failure);
    return object;
}

} // namespace

YObject MountObject(const MountFacts& mount)
{
    YObject object;
    object.Set<YString>("class", YString(std::string_view(mount.driveClass)));
    object.Set<YString>("file_system", YString(std::string_view(mount.type)));
    object.Set<YString>("source", YString(std::string_view(mount.source)));
    return object;
}

const char* AnswerWord(YSelectionDescriptor::SelectionType answer)
{
    switch (answer) {
    case YSelectionDescriptor::Include:
        return "include";
    case YSelectionDescriptor::Exclude:
        return "exclude";
    case YSelectionDescriptor::NotSelectedDoRecurse:
        return "go_on";
    case YSelectionDescriptor::NotSelectedDoNotRecurse:
        break;
    }
    return "stop";
}

YObject RuleObject(const YSelectionPathDescriptor& rule, RuleSources& sources)
{
    YObject object;
    object.Set<YString>("path", rule.GetPath().IsEmpty() ? YString("/") : YString(rule.GetPath()));
    object.Set<YObject>("descriptor", rule.YSelectionDescriptor::ToJSON()); // without the path
    if (const RuleSource* const source = sources.Find(rule)) {
        object.Set<YString>("array", YString(source->array));
        PutNumber(object, "index", source->index);
        PutNumber(object, "line", source->line);
    }
    return object;
}

YObject ExplanationObject(const PathExplanation& explanation, RuleSources& sources)
{
    const WalkOutcome& outcome = explanation.outcome;
    YObject object;
    object.Set<YString>("path", explanation.path);
    object.Set<YString>("asked", YString(std::string_view(explanation.asked)));
    object.Set<YString>("type", KindWord(explanation.kind));
    PutBool(object, "backed_up", explanation.IsStored());
    PutBool(object, "parent_only", explanation.IsParentOnly());
    PutBool(object, "entered", outcome.isEntered);
    if (explanation.start)
        object.Set<YString>("start", *explanation.start);
    if (explanation.startBelow)
        object.Set<YString>("start_below", *explanation.startBelow);
    if (explanation.rules)
        object.Set<YObject>("decision", DecisionObject(*explanation.rules, explanation.path, sources));
    if (explanation.ownInclude)
        object.Set<YObject>("own_include", RuleObject(*explanation.ownInclude, sources));
    if (!explanation.misses.shown.empty()) {
        YArray misses;
        for (const NearMiss& miss : explanation.misses.shown) {
            YObject rule = RuleObject(miss.rule, sources);
            rule.Set<YString>("cause", CauseWord(miss.cause));
            misses.push_back(YValue::Create<YObject>(std::move(rule)));
        }
        object.Set<YArray>("near_misses", std::move(misses));
    }
    if (explanation.obstacle != Obstacle::None)
        object.Set<YObject>("obstacle", ObstacleObject(explanation, sources));
    if (explanation.mount)
        object.Set<YObject>("mount", MountObject(*explanation.mount));
    PutBool(object, "mount_point_not_entered", outcome.isMountCut);
    PutBool(object, "repository", outcome.isRepository);
    if (outcome.failure)
        object.Set<YString>("error", *outcome.failure);
    return object;
}

} // namespace Agent
