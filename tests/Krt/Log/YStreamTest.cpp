#include "Krt/Log/YStream.h"

#include "Krt/File/YPath.h"
#include "Krt/Match/Descriptor.h"

#include <gtest/gtest.h>

#include <functional>
#include <locale>

using namespace Krt;

namespace {

class GroupedDigits : public std::numpunct<char>
{
    char do_thousands_sep() const override { return '.'; }
    std::string do_grouping() const override { return "\3"; }
};

} // namespace

TEST(YStreamTest, WritesEachKindOfArgument)
{
    YStream other{"other"};
    struct
    {
        const char* name;
        std::function<void(YStream&)> write;
        std::string text;
    } const rows[] = {
        {"numbers", [](YStream& s) { s << -7 << " " << 8U << " " << 9UL << " " << ~0ULL; },
         "-7 8 9 18446744073709551615"},
        {"hexadecimal once", [](YStream& s) { s << "0x" << Hex::On << 0xABCU << " " << 10; }, "0xabc 10"},
        {"hexadecimal waits for a number", [](YStream& s) { s << Hex::On << "a" << 255 << 255; }, "aff255"},
        {"byte as decimal", [](YStream& s) { s << Hex::On << static_cast<unsigned char>(200) << 20; },
         "20020"},
        {"byte count", [](YStream& s) { s << Modifiers::ByteCount << 1234567UL; }, "1234567"},
        {"cut at NUL only as a C string",
         [](YStream& s) {
             s << YString(std::string_view("a\0b", 3)).CStr() << YString(std::string_view("c\0d", 3));
         },
         std::string("ac\0d", 4)},
        {"null text", [](YStream& s) { s << static_cast<const char*>(nullptr) << 'x'; }, "x"},
        {"path", [](YStream& s) { s << File::YPath("/a/b"); }, "/a/b"},
        {"strings",
         [](YStream& s) {
             s << std::vector<YString>{"a", "", "b"};
         },
         "ab"},
        {"stream", [&](YStream& s) { s << other << other; }, "otherother"},
        {"glob", [](YStream& s) { s << Match::GlobDescriptor("*.o", true); }, "glob \"*.o\""},
        {"exact", [](YStream& s) { s << Match::ExactDescriptor("x", false); }, "exact \"x\" in any case"},
        {"any", [](YStream& s) { s << Match::AnyDescriptor(); }, "any"},
    };
    const std::locale before = std::locale::global(std::locale(std::locale::classic(), new GroupedDigits));
    for (const auto& row : rows) {
        YStream stream{YString()};
        row.write(stream);
        EXPECT_EQ(YString(stream).Bytes(), row.text) << row.name;
    }
    std::locale::global(before);
}

TEST(YStreamTest, EachFlushPublishesTheWholeTextAndKeepsIt)
{
    YStream stream{"begin "};
    std::vector<std::string> published;
    const auto slot =
        stream.GetSignal().Connect([&](const YString& text) { published.push_back(text.Bytes()); });
    stream << 1 << Modifiers::EndLine;
    stream << 2 << Modifiers::EndLine << "rest";
    EXPECT_EQ(published, (std::vector<std::string>{"begin 1\n", "begin 1\n2\n"}));
    EXPECT_EQ(YString(stream).Bytes(), "begin 1\n2\nrest");
}
