#include "Krt/String/Encoding.h"

#include "Krt/String/YString.h"
#include "testing/Raises.h"

using Krt::ErrorCode;
using Krt::YString;
using Krt::String::Convert;

TEST(EncodingTest, ConvertsBothWays)
{
    // Surrogate pairs stand for themselves, a unit in each wchar_t.
    const wchar_t units[] = {L'a', 0xE9, 0x20AC, 0xD83D, 0xDE00, 0};
    Krt::Memory::YHeap<char> narrow = Convert<wchar_t, char>(units);
    EXPECT_STREQ(narrow, "a\u00e9\u20ac\U0001F600");
    EXPECT_EQ(narrow.Size(), 6 * 16U);

    Krt::Memory::YHeap<wchar_t> wide = Convert<char, wchar_t>(narrow);
    EXPECT_EQ(std::wstring_view(wide), std::wstring_view(units));
    EXPECT_EQ(wide.Size(), sizeof(units));
    EXPECT_EQ(YString(units), "a\u00e9\u20ac\U0001F600");
    EXPECT_EQ(YString(L""), "");
}

TEST(EncodingTest, NamesWhatItCannotConvert)
{
    const wchar_t loneTrail[] = {L'a', 0xDC00, 0};
    const wchar_t loneLead[] = {0xD800, 0};
    const wchar_t badPair[] = {0xD800, L'x', 0};
    EXPECT_RAISES(YString{loneTrail}, ErrorCode::InvalidUtf16, "Convert", "Invalid UTF-16 Sequence 56320");
    EXPECT_RAISES(YString{loneLead}, ErrorCode::InvalidUtf16, "Convert", "Invalid UTF-16 Sequence 55296");
    EXPECT_RAISES(YString{badPair}, ErrorCode::InvalidUtf16, "Convert", "Invalid UTF-16 Sequence 120");
    EXPECT_RAISES((Convert<char, wchar_t>("a\xFFz")), ErrorCode::InvalidUtf8, "Convert",
                  "Invalid UTF-8 Sequence 255");

    const auto cut = Testing::CatchError([] { Convert<char, wchar_t>("a\xE2"); });
    ASSERT_TRUE(cut.has_value());
    EXPECT_EQ(cut->GetFile(), "Krt/String/Encoding");
    EXPECT_EQ(cut->GetFunction(), "Convert");
}
