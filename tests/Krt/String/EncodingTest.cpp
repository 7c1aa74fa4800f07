#include "Krt/String/Encoding.h"

#include "Krt/String/YString.h"
#include "testing/Raises.h"

using Krt::ErrorCode;
using Krt::YString;
using Krt::String::Convert;

TEST(Encoding, InvalidInputRaisesItsPlace)
{
    const wchar_t loneTrail[] = {L'a', 0xDC00, 0};
    const wchar_t loneLead[] = {0xD800, 0};
    const wchar_t badPair[] = {0xD800, L'x', 0};
    EXPECT_RAISES(YString{loneTrail}, ErrorCode::InvalidUtf16, "Convert", "Invalid UTF-16 Sequence 56320");
    EXPECT_RAISES(YString{loneLead}, ErrorCode::InvalidUtf16, "Convert", "Invalid UTF-16 Sequence 55296");
    EXPECT_RAISES(YString{badPair}, ErrorCode::InvalidUtf16, "Convert", "Invalid UTF-16 Sequence 120");
    EXPECT_RAISES((Convert<char, wchar_t>("a\xFFz")), ErrorCode::InvalidUtf8, "Convert",
                  "Invalid UTF-8 Sequence 255");
    EXPECT_TRUE(Testing::CatchError([] { Convert<char, wchar_t>("a\xE2"); })) << "cut";
}
