#include "Krt/String/YString.h"

#include "testing/Raises.h"

using Krt::ErrorCode;
using Krt::YString;

namespace {

constexpr unsigned int End = YString::NotFound;

std::vector<std::string> Texts(const std::vector<YString>& strings)
{
    std::vector<std::string> texts;
    for (const YString& string : strings)
        texts.push_back(string.Bytes());
    return texts;
}

} // namespace

TEST(YStringTest, CountsWhatLeadBytesAnnounce)
{
    const struct
    {
        const char* name;
        std::string_view bytes;
        unsigned int length;
    } cases[] = {
        {"empty", "", 0},
        {"trailing NUL bytes go", std::string_view("ab\0\0", 4), 2},
        {"a NUL inside ends the count", std::string_view("ab\0c", 4), 2},
        {"two to four bytes", "\u00e9\u20ac\U0001F600", 3},
        {"outdated five and six bytes", "\xF8\x80\x80\x80\x80\xFC\x80\x80\x80\x80\x80", 2},
        {"stray continuation bytes", "\x80\xBF", 2},
        {"0xFE and 0xFF stand alone", "\xFE\xFF", 2},
        {"malformed tail steps over the end", "a\xE2", 2},
    };
    for (const auto& [name, bytes, length] : cases)
        EXPECT_EQ(YString(bytes).Length(), length) << name;
    EXPECT_EQ(YString(std::string_view("a\0b\0", 4)).Bytes().size(), 3U);
}

TEST(YStringTest, FindsAtCharacterBoundaries)
{
    const struct
    {
        const char* name;
        const char* text;
        const char* needle;
        unsigned int start;
        bool caseSensitive;
        unsigned int found;
    } cases[] = {
        {"counts characters", "a\u00e9b", "b", 0, true, 2},
        {"not inside a character", "\u00e9b", "\xA9", 0, true, End},
        {"folds ASCII", "xAbC", "aBc", 0, false, 1},
        {"folds nothing else", "\u00c9", "\u00e9", 0, false, End},
        {"respects the start", "abab", "ab", 1, true, 2},
        {"start past the end", "ab", "b", 2, true, End},
        {"empty needle", "ab", "", 1, true, 1},
        {"empty needle behind the last", "a\u00e9", "", 2, true, End},
        {"needle longer than the rest", "ab", "bc", 0, true, End},
    };
    for (const auto& row : cases) {
        const YString text(row.text);
        EXPECT_EQ(text.Find(row.needle, row.start, row.caseSensitive), row.found) << row.name;
        (void)text.Length(); // with the count known the search takes a shorter way
        EXPECT_EQ(text.Find(row.needle, row.start, row.caseSensitive), row.found) << row.name << ", counted";
    }
    EXPECT_EQ(YString(std::string_view("a\0b", 3)).Find("b", 0, true), End);
}

TEST(YStringTest, SectionsAdvanceBehindTheDelimiter)
{
    const YString list("a,b,");
    unsigned int next = 0;
    EXPECT_EQ(list.Section(",", 0, &next, true), "a");
    EXPECT_EQ(next, 2U);
    EXPECT_EQ(list.Section(",", 2, &next, true), "b");
    EXPECT_EQ(next, End);

    // The delimiter's length counts in bytes, so a character behind each multi-byte delimiter is lost.
    EXPECT_EQ(Texts(YString("a\u00e9bb\u00e9c").SectionVector("\u00e9", true, false)),
              (std::vector<std::string>{"a", "b"}));

    const struct
    {
        const char* text;
        bool skipEmpty;
        std::vector<std::string> fields;
    } cases[] = {
        {",a", false, {"", "a"}},
        {"a,", false, {"a"}},
        {"a,,b", false, {"a", "", "b"}},
        {"", false, {""}},
        {"", true, {}},
        {",a,,b,", true, {"a", "b"}},
        {"a", true, {"a"}},
        {"\u00e9,\u00e8,", true, {"\u00e9", "\u00e8"}},
    };
    for (const auto& [text, skipEmpty, fields] : cases)
        EXPECT_EQ(Texts(YString(text).SectionVector(',', true, skipEmpty)), fields) << text;
    EXPECT_EQ(Texts(YString("ab").SectionVector("", true, false)), std::vector<std::string>{"ab"});

    EXPECT_EQ(YString::VectorSection(',', {"", "", "a", "", "b"}), "a,,b");
}

TEST(YStringTest, SplitsAtTheFirstMatch)
{
    const auto check = [](const std::pair<YString, YString>& parts, const char* first, const char* second) {
        EXPECT_EQ(parts.first, first);
        EXPECT_EQ(parts.second, second);
    };
    check(YString("k\u00e9=v=w").Split("=", true), "k\u00e9", "v=w");
    check(YString("aXbxc").Split("x", false), "a", "bxc");
    check(YString("ab").Split("=", true), "ab", "");
    check(YString("").Split("", true), "", "");
    check(YString("a=b\\=c").Split('=', true, true), "a=b", "c");
    check(YString("a\u20acb").Split("\u20ac", true), "a", "b");
}

TEST(YStringTest, TakesPartsByCharacters)
{
    const YString text("a\u00e9b\u20ac");
    const struct
    {
        unsigned int start, count;
        const char* part;
    } cases[] = {{0, 2, "a\u00e9"},       {1, 1, "\u00e9"}, {2, End, "b\u20ac"},
                 {3, 9, "\u20ac"},        {4, 1, ""},       {99, End, ""},
                 {2, End - 1, "b\u20ac"}, {1, 0, ""},       {1, 2, "\u00e9b"}};
    for (const auto& [start, count, part] : cases)
        EXPECT_EQ(text.Mid(start, count), part) << start << ", " << count;
    EXPECT_EQ(text.Left(9), text);
    EXPECT_EQ(text.Right(2), "b\u20ac");
    EXPECT_EQ(text.Right(0), "");
    EXPECT_EQ(text.Right(9), text);
    EXPECT_EQ(YString(std::string_view("ab\0c", 4)).Mid(1, End), "b");

    EXPECT_EQ(text.At(1), '\xC3');
    EXPECT_RAISES(YString("abc").At(3), ErrorCode::InvalidArgument, "At", "");
    EXPECT_RAISES(YString("").At(0), ErrorCode::InvalidArgument, "At", "");
    EXPECT_RAISES(YString("\xF0zz").At(1), ErrorCode::InvalidArgument, "At", ""); // steps over the end
    EXPECT_RAISES(YString("\u00e9").At(1), ErrorCode::InvalidArgument, "At", "");

    EXPECT_TRUE(text.EndsWith("B\u20ac", false));
    EXPECT_TRUE(text.EndsWith("", true));
    EXPECT_FALSE(text.EndsWith("B\u20ac", true));
    EXPECT_FALSE(text.EndsWith("\xAC", true)); // the last byte, yet not the last character
    EXPECT_FALSE(YString("b").EndsWith("ab", true));
}

TEST(YStringTest, ReplacesWithoutRescanning)
{
    const struct
    {
        const char* name;
        const char* text;
        const char *from, *to;
        unsigned int start, maxCount;
        bool caseSensitive;
        const char* result;
        unsigned int count;
    } cases[] = {
        {"all", "aXbX", "X", "YY", 0, 0, true, "aYYbYY", 2},
        {"first only", "XX", "X", "", 0, 1, true, "X", 1},
        {"inserted text stays", "aa", "a", "aa", 0, 0, true, "aaaa", 2},
        {"from the start on", "xx", "x", "y", 1, 0, true, "xy", 1},
        {"any case", "C:\\c:\\", "c:\\", "", 0, 0, false, "", 2},
        {"nothing to look for", "ab", "", "x", 9, 0, true, "ab", 0},
        {"nothing to look in", "", "a", "x", 9, 0, true, "", 0},
        {"not inside a character", "\u00e9", "\xA9", "x", 0, 0, true, "\u00e9", 0},
    };
    for (const auto& row : cases) {
        YString text(row.text);
        EXPECT_EQ(text.Replace(row.from, row.to, row.start, row.maxCount, row.caseSensitive), row.count)
            << row.name;
        EXPECT_EQ(text, row.result) << row.name;
        EXPECT_EQ(text.Length(), YString(row.result).Length()) << row.name;
    }
    YString text("abc");
    EXPECT_RAISES(text.Replace("a", "b", 3, 0, true), ErrorCode::InvalidArgument, "Replace", "");
    EXPECT_RAISES(YString("\u00e9").Replace("a", "b", 1, 0, true), ErrorCode::InvalidArgument, "Replace", "");
    EXPECT_EQ(text.Replace(text.CStr(), text.CStr() + 1, 0, 0, true), 1U); // arguments inside the text itself
    EXPECT_EQ(text, "bc");
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
    YString moved = std::move(text);
    check("", 0, L"");
    EXPECT_EQ('/' + moved + "y", "/\txy");
    moved.TrimLeft(99);
    EXPECT_TRUE(moved.IsEmpty());
}
