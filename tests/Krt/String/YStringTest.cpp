#include "Krt/String/YString.h"

#include "testing/Raises.h"

using Krt::ErrorCode;
using Krt::YString;

namespace {

constexpr unsigned int End = YString::NotFound;

} // namespace

// fuzz/ compares the operations that split and change strings with a plain model; these are the others.
TEST(YString, SplitsAtDelimiters)
{
    const YString list("a,b,");
    unsigned int next = 0;
    EXPECT_EQ(list.Section(",", 0, &next, true), "a");
    EXPECT_EQ(next, 2U);
    EXPECT_EQ(list.Section(",", 2, &next, true), "b");
    EXPECT_EQ(next, End);
    EXPECT_EQ(YString("").SectionVector(',', true, false), std::vector<YString>{""});
    EXPECT_EQ(YString::VectorSection(',', {"", "", "a", "", "b"}), "a,,b");
    EXPECT_EQ(YString("a=b\\=c").Split('=', true, true), (std::pair<YString, YString>("a=b", "c")));
}

TEST(YString, PositionsBeyondEndAreChecked)
{
    YString text("abc");
    EXPECT_RAISES(text.Replace("a", "b", 3, 0, true), ErrorCode::InvalidArgument, "Replace", "");
    EXPECT_EQ(text.Replace(text.CStr(), text.CStr() + 1, 0, 0, true), 1U); // arguments inside the text itself
    EXPECT_EQ(text, "bc");
    EXPECT_RAISES(text.At(2), ErrorCode::InvalidArgument, "At", "");
    EXPECT_RAISES(YString("\xF0zz").At(1), ErrorCode::InvalidArgument, "At", ""); // steps over the end
}

TEST(YString, MovedFromIsEmpty)
{
    YString text("\tx");
    EXPECT_EQ(text.AsWide(), std::wstring_view(L"\tx"));
    const YString moved = std::move(text);
    EXPECT_EQ(text, "");
    EXPECT_EQ(text.Length(), 0U);
    EXPECT_EQ(text.AsWide(), std::wstring_view());
    EXPECT_EQ('/' + moved + "y", "/\txy");
    EXPECT_EQ(YString(std::string_view("a\0b\0", 4)).Bytes().size(), 3U) << "NUL bytes at the end go";
}

TEST(YString, PositionsFollowChanges)
{
    const auto expectCharacters = [](const YString& text, unsigned int count) {
        ASSERT_EQ(text.Length(), count);
        for (unsigned int i = count; i-- > 0;)
            EXPECT_EQ(text.At(i), i % 2 == 0 ? 'a' : '\xC3') << i;
    };
    std::string bytes;
    for (int i = 0; i < 100; ++i)
        bytes += "a\xC3\xA9";
    YString text{std::string_view(bytes)};
    expectCharacters(text, 200);
    expectCharacters(YString(text), 200);
    text.TrimLeft(2);
    expectCharacters(text, 198);
    text.AsWide();
    expectCharacters(text, 198);
    text.Truncate(100);
    expectCharacters(text, 100);
    EXPECT_EQ(text.Find("\xC3\xA9", 98, true), 99U);
    EXPECT_EQ(YString("\xC3\xA9xx\xA9xx").Find("\xA9", 0, true), 3U) << "not inside of a character";
}
