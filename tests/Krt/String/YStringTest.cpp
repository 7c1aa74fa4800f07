#include "Krt/String/YString.h"

#include "testing/Raises.h"

using Krt::ErrorCode;
using Krt::YString;

namespace {

constexpr unsigned int End = YString::NotFound;

} // namespace

// What takes strings apart and changes them is compared with a plain model in fuzz/; here stands the rest.
TEST(YStringTest, CountsWhatLeadBytesAnnounce)
{
    const struct
    {
        const char* name;
        std::string_view bytes;
        unsigned int length;
    } cases[] = {
        {"trailing NUL bytes go", std::string_view("ab\0\0", 4), 2},
        {"a NUL inside ends the count", std::string_view("ab\0c", 4), 2},
        {"two to four bytes", "\u00e9\u20ac\U0001F600", 3},
        {"stray and meaningless bytes", "\x80\xBF\xFE\xFF", 4},
        {"malformed tail steps over the end", "a\xE2", 2},
    };
    for (const auto& [name, bytes, length] : cases)
        EXPECT_EQ(YString(bytes).Length(), length) << name;
    EXPECT_EQ(YString(std::string_view("a\0b\0", 4)).Bytes().size(), 3U);
}

TEST(YStringTest, SplitsAtDelimiters)
{
    const YString list("a,b,");
    unsigned int next = 0;
    EXPECT_EQ(list.Section(",", 0, &next, true), "a");
    EXPECT_EQ(next, 2U);
    EXPECT_EQ(list.Section(",", 2, &next, true), "b");
    EXPECT_EQ(next, End);
    // The delimiter's length counts in bytes, so a character behind each multi-byte delimiter is lost.
    EXPECT_EQ(YString("a\u00e9bb\u00e9c").SectionVector("\u00e9", true, false),
              (std::vector<YString>{"a", "b"}));
    EXPECT_EQ(YString("").SectionVector(',', true, false), std::vector<YString>{""});
    EXPECT_EQ(YString::VectorSection(',', {"", "", "a", "", "b"}), "a,,b");
    EXPECT_EQ(YString("k\u00e9=v=w").Split("=", true), (std::pair<YString, YString>("k\u00e9", "v=w")));
    EXPECT_EQ(YString("a=b\\=c").Split('=', true, true), (std::pair<YString, YString>("a=b", "c")));
}

TEST(YStringTest, ReplacesAndTellsHowOften)
{
    const struct
    {
        const char* name;
        const char* text;
        const char *from, *to;
        unsigned int maxCount;
        const char* result;
        unsigned int count;
    } cases[] = {
        {"all", "aXbX", "X", "YY", 0, "aYYbYY", 2},
        {"first only", "XX", "X", "", 1, "X", 1},
        {"nothing to look for", "ab", "", "x", 0, "ab", 0},
    };
    for (const auto& row : cases) {
        YString text(row.text);
        EXPECT_EQ(text.Replace(row.from, row.to, 0, row.maxCount, true), row.count) << row.name;
        EXPECT_EQ(text, row.result) << row.name;
    }
    YString text("abc");
    EXPECT_RAISES(text.Replace("a", "b", 3, 0, true), ErrorCode::InvalidArgument, "Replace", "");
    EXPECT_EQ(text.Replace(text.CStr(), text.CStr() + 1, 0, 0, true), 1U); // arguments inside the text itself
    EXPECT_EQ(text, "bc");
    EXPECT_RAISES(text.At(2), ErrorCode::InvalidArgument, "At", "");
    EXPECT_RAISES(YString("\xF0zz").At(1), ErrorCode::InvalidArgument, "At", ""); // steps over the end
}

TEST(YStringTest, MutatorsForgetTheCachedCountAndTheWideCopy)
{
    YString text("\u00e9\u00e8x");
    const auto check = [&](const char* bytes, unsigned int length, std::wstring_view wide) {
        EXPECT_EQ(text, bytes);
        EXPECT_EQ(text.Length(), length);
        EXPECT_EQ(text.AsWide(), wide);
    };
    check("\u00e9\u00e8x", 3, L"\u00e9\u00e8x");
    text.TrimLeft(1);
    check("\u00e8x", 2, L"\u00e8x");
    text.Truncate(1);
    check("\u00e8", 1, L"\u00e8");
    text += " \n";
    check("\u00e8 \n", 3, L"\u00e8 \n");
    text.TrimWhiteSpacesRight();
    check("\u00e8", 1, L"\u00e8");
    EXPECT_EQ(text.Copy("a\u20acb", 2), 2U);
    check("a\u20ac", 2, L"a\u20ac");
    EXPECT_EQ(text.Copy("a\xE2", 9), 2U); // a cut character doesn't lead past the end
    EXPECT_EQ(text.Copy("", 9), 0U);
    text = YString("\r\n \tx");
    text.TrimWhiteSpacesLeft();
    check("\tx", 2, L"\tx");
    const YString moved = std::move(text);
    check("", 0, L"");
    EXPECT_EQ('/' + moved + "y", "/\txy");
}
