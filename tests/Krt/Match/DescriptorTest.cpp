#include "Krt/Match/Descriptor.h"

#include "Krt/JSON/YValue.h"
#include "testing/Raises.h"

using namespace Krt::Match;
using Krt::ErrorCode;
using Krt::YString;

// Exact names and patterns are compared with a plain model in fuzz/.
TEST(Descriptor, MatchesNamesOfItsKind)
{
    EXPECT_FALSE(Check("a", Descriptor(MatchType::None, "a", true)));
    EXPECT_TRUE(Check("a", Descriptor(MatchType::Any, "b", true)));
}

TEST(Descriptor, ManyStarsTakeLinearTime)
{
    std::string pattern;
    for (int i = 0; i < 60; ++i)
        pattern += "*a";
    EXPECT_FALSE(Check(YString(std::string(2000, 'a')), GlobDescriptor(YString(pattern + "b"), true)));
}

TEST(Descriptor, JsonKeepsEveryField)
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
