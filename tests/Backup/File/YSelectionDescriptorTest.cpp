#include "testing/Raises.h"
#include "testing/SelectionText.h"

#include "Krt/JSON/YValue.h"

#include <set>
#include <tuple>

namespace {

using Backup::File::YSelectionDescriptor;
using Backup::File::YSelectionPathDescriptor;
using Krt::ErrorCode;
using Krt::YString;
using Krt::JSON::YObject;
using Testing::Rule;
using RecursionType = YSelectionDescriptor::RecursionType;
using SelectionType = YSelectionDescriptor::SelectionType;

TEST(YSelectionDescriptor, InvalidTypesRaise)
{
    const Krt::Match::AnyDescriptor any;
    for (SelectionType type : {SelectionType::NotSelectedDoNotRecurse, SelectionType::NotSelectedDoRecurse}) {
        EXPECT_RAISES(YSelectionPathDescriptor("/a", any, RecursionType::Recursive, type, true),
                      ErrorCode::InvalidArgument, "YSelectionDescriptor",
                      "YSelectionDescriptor may not be constructed with selection type NotSelected");
        const YString text = YSelectionDescriptor::SelectionTypeAsString(type);
        EXPECT_RAISES(YSelectionDescriptor::SelectionTypeAsEnum(text), ErrorCode::InvalidState,
                      "SelectionTypeAsEnum", "bad selection type value: " + text.Bytes());
    }
    EXPECT_RAISES(YSelectionDescriptor::RecursionTypeAsEnum("Recursive"), ErrorCode::InvalidState,
                  "RecursionTypeAsEnum", "bad recursive type value: Recursive");
    EXPECT_RAISES(YSelectionDescriptor::SelectionTypeAsString(static_cast<SelectionType>(4)),
                  ErrorCode::InvalidState, "SelectionTypeAsString", "bad selectionType value: 4");
    EXPECT_RAISES(YSelectionDescriptor::RecursionTypeAsString(static_cast<RecursionType>(2)),
                  ErrorCode::InvalidState, "RecursionTypeAsString", "bad recursive type value: 2");
}

TEST(YSelectionDescriptor, ExplicitSelectionRaisesForOtherShapes)
{
    const std::pair<const char*, bool> rows[] = {
        {"include / exact=a", true},
        {"exclude / exact=a", true},
        {"include / recursive glob=*", true},
        {"include / recursive any", true},
        {"include / recursive exact=a", false},
        {"include / recursive glob=a*", false},
        {"include / glob=*", false},
        {"include / any", false},
        {"include / none", false},
    };
    for (const auto& [words, allowed] : rows) {
        YSelectionDescriptor rule = Rule(words);
        rule.SetExplicitSelection(false);
        EXPECT_EQ(Testing::ErrorOf([&] { rule.SetExplicitSelection(true); }),
                  allowed ? ""
                          : "SetExplicitSelection: Explicit selection flag may only be set to true on "
                            "nonrecursive exact descriptors, recursive glob * descriptors or recursive any "
                            "descriptors.")
            << words;
        EXPECT_EQ(rule.GetExplicitSelection(), allowed) << words;
    }
    YSelectionDescriptor unnamed(Krt::Match::ExactDescriptor("a", true), static_cast<RecursionType>(2),
                                 SelectionType::Include, true);
    EXPECT_EQ(Testing::CatchError([&] { unnamed.SetExplicitSelection(true); })->GetCode(),
              ErrorCode::NotImplemented);
}

TEST(YSelectionDescriptor, OnlyCoveredRuleCanBePruned)
{
    const std::tuple<const char*, const char*, const char*, bool> rows[] = {
        {"include and exclude", "include / recursive any", "exclude / any", false},
        {"exclude and include", "exclude / recursive any", "include / any", false},
        {"reaches further", "include / exact=a", "include / recursive exact=a", false},
        {"reaches less far", "include / recursive exact=a", "include / exact=a", true},
        {"reporting doesn't count", "silent / exact=a", "exclude / exact=a", true},
        {"own pattern, explicit", "include / exact=a", "include / exact=a explicit", true},
        {"other case flag", "include / exact=a nocase", "include / exact=a", false},
        {"both any, explicit", "include / recursive any nocase", "include / recursive any explicit", true},
        {"any over all", "include / any", "include / glob=*.o", true},
        {"any over an explicit include", "include / recursive any", "include / exact=a explicit", false},
        {"any over an explicit exclude", "exclude / recursive any", "exclude / exact=a explicit", true},
        {"all names over any", "include / recursive glob=*", "include / recursive any", false},
        {"glob over a name", "include / glob=a*", "include / exact=ab", true},
        {"glob without regard to case", "include / glob=A* nocase", "include / exact=ab", true},
        {"glob over another name", "include / glob=a*", "include / exact=b", false},
        {"glob over an explicit name", "include / glob=a*", "include / exact=ab explicit", false},
        {"glob over a glob", "include / glob=*", "include / glob=a*", false},
        {"the pattern of a name is text", "include / glob=?", "include / exact=*", true},
    };
    for (const auto& [name, rule, other, prunes] : rows)
        EXPECT_EQ(Rule(rule).CanPrune(Rule(other)), prunes) << name;

    // A type that the constructor does not refuse.
    const YSelectionDescriptor unnamed(Krt::Match::AnyDescriptor(), RecursionType::Recursive,
                                       static_cast<SelectionType>(4), true);
    EXPECT_FALSE(unnamed.CanPrune(unnamed));
    EXPECT_FALSE(Rule("exclude / recursive any").CanPrune(unnamed));
    EXPECT_TRUE(unnamed.CanPrune(Rule("exclude / any")));
}

TEST(YSelectionDescriptor, OrderAndEqualityDiffer)
{
    const std::vector<std::string> ascending = {
        "include / any",          "include / recursive exact=a",
        "silent / glob=z",        "exclude / glob=a nocase",
        "exclude / glob=a",       "exclude / glob=ab",
        "exclude / glob=b",       "exclude / glob=\xC3\xA9",
        "exclude / exact=a",      "exclude / any",
        "silent / recursive any", "exclude / recursive any",
        "exclude /0 any",
    };
    for (std::size_t i = 0; i < ascending.size(); ++i) {
        for (std::size_t j = 0; j < ascending.size(); ++j)
            EXPECT_EQ(Rule(ascending[i]) < Rule(ascending[j]), i < j) << ascending[i] << ", " << ascending[j];
    }
    for (const char* other : {"exclude / exact=a", "include / recursive exact=a", "silent / exact=a",
                              "include / exact=a explicit", "include / exact=a nocase", "include / exact=b"})
        EXPECT_FALSE(Rule("include / exact=a") == Rule(other)) << other;
    // Equal but different elements of a set, and one element of a set but not equal.
    const YSelectionDescriptor any(Krt::Match::AnyDescriptor(), RecursionType::Recursive,
                                   SelectionType::Include, true);
    const YSelectionDescriptor named(Krt::Match::Descriptor(Krt::Match::MatchType::Any, "x", false),
                                     RecursionType::Recursive, SelectionType::Include, true);
    const YSelectionDescriptor isExplicit = Rule("include / recursive any explicit");
    EXPECT_TRUE(any == named);
    EXPECT_EQ((std::set<YSelectionDescriptor>{any, named}.size()), 2U);
    EXPECT_FALSE(any == isExplicit);
    EXPECT_EQ((std::set<YSelectionDescriptor>{any, isExplicit}.size()), 1U);
}

TEST(YSelectionDescriptor, DocumentKeepsEveryField)
{
    for (const char* words : {"include /a/b recursive any", "silent - glob=*.o nocase", "exclude / exact=a",
                              "include /x any explicit"}) {
        YSelectionPathDescriptor read = Rule("exclude /other exact=z");
        read.FromJSON(Rule(words).ToJSON());
        EXPECT_EQ(Testing::Words(read.GetPath(), read), words);
    }
    YObject json = Rule("include /a any").ToJSON();
    std::string keys;
    for (const auto& [key, value] : json.Entries())
        keys += key.Bytes() + " ";
    EXPECT_EQ(keys, "descriptor selection_type recursion_type report_exclude explicit_selection path ");

    json.Set<YString>("path", "/a//");
    json.Set<YString>("recursion_type", "deep");
    YSelectionPathDescriptor rule = Rule("exclude /b exact=z");
    EXPECT_RAISES(rule.FromJSON(json), ErrorCode::InvalidState, "RecursionTypeAsEnum",
                  "bad recursive type value: deep");
    EXPECT_EQ(Testing::Words(rule.GetPath(), rule), "include /b any") << "what was read so far stays";
    json.Set<YString>("recursion_type", "recursive");
    rule.FromJSON(json);
    EXPECT_EQ(Testing::Words(rule.GetPath(), rule), "include /a recursive any");
}

} // namespace
