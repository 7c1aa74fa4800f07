#include "Krt/Util/Numbers.h"

#include "Krt/Log/MessageType.h"
#include "testing/GroupedDigits.h"
#include "testing/Raises.h"

#include <climits>

using namespace Krt::Util;
using Krt::ErrorCode;
using Krt::MessageType;

TEST(Numbers, WritesNumbers)
{
    EXPECT_EQ(NumberToString<unsigned int>(0x1234, true), "0x00001234");
    EXPECT_EQ(NumberToString<int>(-1, true), "0xffffffff");
    EXPECT_EQ(NumberToString<int>(INT_MIN, false), "-2147483648");

    const Testing::GroupedDigits digits;
    EXPECT_EQ(NumberToString<unsigned int>(UINT_MAX, false), "4294967295");
    EXPECT_EQ(StringToNumber<unsigned int>("1234567", false, true), 1234567U);
}

TEST(Numbers, ReadsNumbers)
{
    const struct
    {
        const char* name;
        const char* text;
        bool hex, strict;
        std::optional<unsigned int> number;
    } cases[] = {
        {"prefix in either case", "0X10", false, true, 16},
        {"hexadecimal without prefix", "ff", true, true, 255},
        {"trimmed", " \r\n12 \n", false, true, 12},
        {"text after the number, strict", "12a", false, true, {}},
        {"text after the number", "12a", false, false, 12},
        {"a tab is text", "12\t", false, true, {}},
        {"largest", "4294967295", false, true, UINT_MAX},
        {"too large", "4294967296", false, false, {}},
        {"wraps, as streams do", "-1", false, true, UINT_MAX},
        {"prefix alone", "0x", false, false, {}},
        {"empty", "", false, false, {}},
        {"a leading zero is decimal", "010", false, true, 10},
    };
    for (const auto& each : cases) {
        std::optional<unsigned int> read;
        static_cast<void>(Testing::CatchError(
            [&] { read = StringToNumber<unsigned int>(each.text, each.hex, each.strict); }));
        EXPECT_EQ(read, each.number) << each.name;
    }
    EXPECT_EQ(StringToNumber<unsigned long long>("0xFFFFFFFFFFFFFFFF", false, true), ULLONG_MAX);
    EXPECT_RAISES_ON(StringToNumber<unsigned long long>("18446744073709551616", false, false),
                     MessageType::Runtime, ErrorCode::NumberConversion, "StringToNumber", "");
}

TEST(Numbers, ReadsBools)
{
    const struct
    {
        const char* text;
        bool strict;
        std::optional<bool> value;
    } cases[] = {{"T", true, true},         {"f", true, false},   {" 1 ", true, true},  {"0", true, false},
                 {"Yes", true, {}},         {"Yes", false, true}, {"no", false, false}, {"10", false, true},
                 {"terrible", false, true}, {"", false, {}},      {"on", false, {}}};
    for (const auto& each : cases) {
        std::optional<bool> read;
        (void)Testing::CatchError([&] { read = StringToNumber<bool>(each.text, false, each.strict); });
        EXPECT_EQ(read, each.value) << each.text;
    }
    EXPECT_RAISES_ON(StringToNumber<bool>("x", false, false), MessageType::Runtime,
                     ErrorCode::NumberConversion, "StringToNumber", "");
}
