#include "Krt/JSON/YValue.h"
#include "testing/Raises.h"

using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::JSON::YArray;
using Krt::JSON::YValue;

namespace {

// The text as one JSON string, and read back.
std::string Quoted(std::string_view bytes)
{
    return YValue::Create<YString>(YString(bytes))->Stringify(true).Bytes();
}

std::string ThereAndBack(std::string_view bytes)
{
    return YValue::Parse(Quoted(bytes))->AsString().Bytes();
}

const std::string Deepest(64, '[');

TEST(JsonText, RoundTripKeepsText)
{
    const struct
    {
        const char* name;
        std::string text, compact;
    } rows[] = {
        {"number", " 18446744073709551615\n", "18446744073709551615"},
        {"empty containers", R"({"a": {}, "b": [], "c": [[0], true]})", R"({"a":{},"b":[],"c":[[0],true]})"},
        {"order", R"({"b":1,"a":2})", R"({"b":1,"a":2})"},
        {"last duplicate in the first place", R"({"a":1,"b":2,"a":"x"})", R"({"a":"x","b":2})"},
        {"null member", R"({"a":null,"b":1})", R"({"b":1})"},
        {"null takes a member back", R"({"a":1,"b":2,"a":null})", R"({"b":2})"},
        {"null taken back", R"({"a":null,"b":2,"a":1})", R"({"a":1,"b":2})"},
        {"letters of escape", R"("\"\\\/\b\f\n\r\t")", R"("\"\\/\b\f\n\r\t")"},
        {"control characters", R"("\u0001\u000b\u001f\u007f")", "\"\\u0001\\u000b\\u001f\x7f\""},
        {"NUL inside", R"("a\u0000b")", R"("a\u0000b")"},
        {"NUL at the end", R"("a\u0000")", R"("a")"},
        {"escaped characters", R"("\u00e9\u20AC\ud83d\ude00")", "\"\u00e9\u20ac\U0001f600\""},
        {"escaped key", R"({"\u0061\"":1})", R"({"a\"":1})"},
        {"byte in a key", "{\"\uEFFF\":1}", "{\"\uEFFF\":1}"},
        {"deepest", Deepest + std::string(64, ']'), Deepest + std::string(64, ']')},
    };
    for (const auto& row : rows)
        EXPECT_EQ(YValue::Parse(row.text)->Stringify(true).Bytes(), row.compact) << row.name;
    // Missing values, which no text results in.
    EXPECT_EQ(YValue::FromArray(Krt::JSON::YArray(2)).Stringify(true).Bytes(), "[null,null]");
}

TEST(JsonText, IndentationIsTwoSpaces)
{
    const char* const text = "{\n  \"a\": [\n    1,\n    {\n      \"b\": \"x\"\n    }\n  ],\n  \"c\": {}\n}";
    EXPECT_EQ(YValue::Parse(text)->Stringify(false).Bytes(), text);
}

TEST(JsonText, DuplicateKeyIsRefusedOnRequest)
{
    constexpr auto refuse = YValue::DuplicateKeys::Refuse;
    for (const char* text : {R"({"a":1,"b":2,"a":1})", R"([{"b":{"a":null,"\u0061":1}}])"})
        EXPECT_TRUE(Testing::ErrorOf([&] {
                        YValue::Parse(text, refuse);
                    }).starts_with("Parse: Invalid JSON text: duplicate key 'a' at offset "));
    const char* const right = R"({"a":{"a":1},"b":[{"a":1},{"a":1}]})";
    EXPECT_EQ(YValue::Parse(right, refuse)->Stringify(true).Bytes(), right);
}

TEST(JsonText, InvalidTextRaisesOffset)
{
    const struct
    {
        const char* name;
        std::string text, reason;
        unsigned int offset;
    } rows[] = {
        {"nothing", "", "incomplete JSON", 0},
        {"open array", "[1", "incomplete JSON", 2},
        {"second value", "1 2", "extra data", 2},
        {"NUL after the value", std::string("1\0", 2), "extra data", 1},
        {"byte order mark", "\xEF\xBB\xBF{}", "syntax error", 0},
        {"comma at the end", "[1,]", "syntax error", 3},
        {"comment", "[/**/]", "syntax error", 1},
        {"line feed in a string", "\"a\nb\"", "syntax error", 2},
        {"lone first half", R"("\ud800 and more of it")", "syntax error", 7},
        {"overlong slash", "\"\xC0\xAF and more\"", "syntax error", 1},
        {"negative zero", "[1, -0]", "negative number", 4},
        {"negative fraction", "{\"a\":-0.5}", "negative number", 5},
        {"smallest", "-9223372036854775808", "negative number", 0},
        {"exponent", "[7, 1e+400]", "number with a fraction or an exponent", 4},
        {"65 bits", "[18446744073709551616]", "number above 64 bits", 1},
        {"many digits", "[" + std::string(400, '9') + "]", "number above 64 bits", 1},
        {"null alone", "null", "null that is not a member of an object", 0},
        {"null element", "[1, null, 2]", "null that is not a member of an object", 4},
        {"too deep", Deepest + "{", "too deep", 64},
        {"far too deep", "{\"a\":" + std::string(1000000, '['), "too deep", 5 + 63},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        EXPECT_RAISES_ON(YValue::Parse(row.text), MessageType::Runtime, ErrorCode::InvalidArgument, "Parse",
                         "Invalid JSON text: " + row.reason + " at offset " + std::to_string(row.offset));
    }
}

TEST(JsonText, InvalidUtf8IsKept)
{
    const struct
    {
        const char* name;
        std::string bytes, text;
    } rows[] = {
        {"lone bytes", "a\x80z\xFF", "\"a\uEF80z\uEFFF\""},
        {"cut sequence", "\xE2\x82", "\"\uEFE2\uEF82\""},
        {"first of the range", "\uEF80", "\"\uEFEE\uEFBE\uEF80\""},
        {"last of the range", "\uEFFF", "\"\uEFEE\uEFBF\uEFBF\""},
        {"below the range", "\uEF7F", "\"\uEF7F\""},
        {"above the range", "\uF000", "\"\uF000\""},
        {"edges of validity", "\u0080\u0800\uD7FF\uE000\U00010000\U0010FFFF",
         "\"\u0080\u0800\uD7FF\uE000\U00010000\U0010FFFF\""},
        {"after eight clean bytes",
         "01234567\xFE"
         "01234567\"",
         "\"01234567\uEFFE"
         "01234567\\\"\""},
    };
    for (const auto& row : rows) {
        EXPECT_EQ(Quoted(row.bytes), row.text) << row.name;
        EXPECT_EQ(ThereAndBack(row.bytes), row.bytes) << row.name;
    }
    EXPECT_EQ(YValue::Parse(R"("\uef80\uEFFF")")->AsString(), "\x80\xFF"); // escaped by another writer
}

TEST(JsonText, EveryByteStringComesBack)
{
    // Each pair of bytes on its own, then an incomplete character after an escape, up to where the parser's
    // buffer ends.
    for (int first = 0; first < 256; ++first) {
        for (int second = 0; second < 256; ++second) {
            const YString bytes(std::string{static_cast<char>(first), static_cast<char>(second)});
            ASSERT_EQ(ThereAndBack(bytes.Bytes()), bytes.Bytes()) << first << " " << second;
        }
    }
    // A character that must be escaped, at each position of the words in which text is copied.
    for (std::size_t length = 1; length < 20; ++length) {
        for (std::size_t at = 0; at < length; ++at) {
            for (const char byte : {'"', '\\', '\x1f', '\x80'}) {
                std::string bytes(length, 'x');
                bytes[at] = byte;
                ASSERT_EQ(ThereAndBack(bytes), bytes) << length << " " << at;
            }
        }
    }
    for (std::size_t length = 4080; length < 4100; ++length) {
        for (const char* tail :
             {"\xFF\xFE", "\uEF80", "\U0001f600\n", "\xF0\x9F\x98", "\xF0(\x98\x80", "\xF0\x9F(\x80",
              "\xF0\x9F\x98(", "\x01\x02", "\xE0\x9F\xBF", "\xF0\x8F\xBF\xBF", "\xED\xA0\x80",
              "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80"}) {
            const std::string bytes = "\n" + std::string(length, 'x') + tail + "end";
            ASSERT_EQ(ThereAndBack(bytes), bytes) << length << " " << tail;
        }
    }
}

} // namespace
