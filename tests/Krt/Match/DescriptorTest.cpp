#include "Krt/Match/Descriptor.h"

#include "Krt/JSON/YValue.h"
#include "testing/Raises.h"

using namespace Krt::Match;
using Krt::ErrorCode;
using Krt::YString;

// Patterns are compared with a plain model in fuzz/; these are the kinds, and what surprises.
TEST(DescriptorTest, ChecksNames)
{
    const struct
    {
        const char* name;
        MatchType type;
        const char* pattern;
        bool caseSensitive;
        const char* text;
        bool matches;
    } cases[] = {
        {"no kind matches nothing", MatchType::None, "a", true, "a", false},
        {"any, whatever the pattern", MatchType::Any, "b", true, "a", true},
        {"exact", MatchType::Exact, "a*", true, "a*", true},
        {"exact, any case", MatchType::Exact, "NaMe", false, "nAmE", true},
        {"exact, ASCII alone folds", MatchType::Exact, "\u00c9", false, "\u00e9", false},
        {"one character", MatchType::Glob, "a?c", true, "a\u20acc", true},
        {"one byte that is no UTF-8", MatchType::Glob, "caf?.o", true, "caf\xE9.o", true},
        {"brackets and backslashes are literal", MatchType::Glob, "[a]\\*", true, "[a]\\b", true},
    };
    for (const auto& row : cases)
        EXPECT_EQ(Check(row.text, Descriptor(row.type, row.pattern, row.caseSensitive)), row.matches)
            << row.name;
}

TEST(DescriptorTest, ManyStarsStayCheap)
{
    std::string pattern;
    for (int i = 0; i < 60; ++i)
        pattern += "*a";
    EXPECT_FALSE(Check(YString(std::string(2000, 'a')), GlobDescriptor(YString(pattern + "b"), true)));
}

TEST(DescriptorTest, TravelsAsJson)
{
    for (const Descriptor& original :
         {Descriptor(), Descriptor(GlobDescriptor("*.o", false)), Descriptor(ExactDescriptor("core", true)),
          Descriptor(AnyDescriptor())}) {
        Descriptor copy(MatchType::Exact, "other", !original.IsCaseSensitive());
        copy.FromJSON(original.ToJSON());
        EXPECT_EQ(copy.GetPattern(), original.GetPattern());
        EXPECT_EQ(copy.GetMatchType(), original.GetMatchType());
        EXPECT_EQ(copy.IsCaseSensitive(), original.IsCaseSensitive());
    }
    const auto read = [](const char* text) {
        Descriptor descriptor;
        descriptor.FromJSON(Krt::JSON::YValue::Parse(text)->AsObject());
        return descriptor.GetMatchType();
    };
    EXPECT_EQ(read(R"({"pattern":"*","match_type":2,"case_sensitive":true})"), MatchType::Glob);
    EXPECT_RAISES(read(R"({"pattern":"*","match_type":"globe","case_sensitive":true})"),
                  ErrorCode::InvalidArgument, "FromJSON", "Unknown match type \"globe\"");
    EXPECT_RAISES(read(R"({"pattern":"*","match_type":1,"case_sensitive":true})"), ErrorCode::InvalidArgument,
                  "FromJSON", "Unknown match type 1");
    for (const char* missing :
         {R"({"match_type":2,"case_sensitive":true})", R"({"pattern":"","match_type":2})",
          R"({"pattern":"","case_sensitive":true})"})
        EXPECT_EQ(Testing::CatchError([&] { read(missing); })->GetCode(), ErrorCode::NotFound) << missing;
}
