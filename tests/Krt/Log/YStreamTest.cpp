#include "Krt/Log/YStream.h"

#include "Krt/File/YPath.h"
#include "Krt/Match/Descriptor.h"

#include "testing/GroupedDigits.h"

#include <gtest/gtest.h>

#include <functional>

using namespace Krt;

TEST(YStream, EachArgumentTypeIsWritten)
{
    YStream other{"other"};
    const std::vector<YString> strings{"a", "", "b"};
    const YString withNul(std::string_view("a\0b", 3));
    struct
    {
        const char* name;
        std::function<void(YStream&)> write;
        std::string text;
    } const rows[] = {
        {"numbers", [](YStream& s) { s << -7 << " " << 8U << " " << 9UL << " " << ~0ULL; },
         "-7 8 9 18446744073709551615"},
        {"hexadecimal waits for a number", [](YStream& s) { s << Hex::On << "a" << 255 << 255; }, "aff255"},
        {"byte as decimal", [](YStream& s) { s << Hex::On << static_cast<unsigned char>(200) << 20; },
         "20020"},
        {"byte count", [](YStream& s) { s << Modifiers::ByteCount << 1234567UL; }, "1234567"},
        {"NUL inside", [&](YStream& s) { s << withNul.CStr() << withNul; }, std::string("aa\0b", 4)},
        {"strings", [&](YStream& s) { s << strings; }, "ab"},
        {"null text", [](YStream& s) { s << static_cast<const char*>(nullptr) << 'x'; }, "x"},
        {"path", [](YStream& s) { s << File::YPath("/a/b"); }, "/a/b"},
        {"stream", [&](YStream& s) { s << other << other; }, "otherother"},
        {"glob", [](YStream& s) { s << Match::GlobDescriptor("*.o", true); }, "glob \"*.o\""},
        {"exact", [](YStream& s) { s << Match::ExactDescriptor("x", false); }, "exact \"x\" in any case"},
        {"any", [](YStream& s) { s << Match::AnyDescriptor(); }, "any"},
    };
    const Testing::GroupedDigits digits;
    for (const auto& row : rows) {
        YStream stream{YString()};
        row.write(stream);
        EXPECT_EQ(YString(stream).Bytes(), row.text) << row.name;
    }
}

TEST(YStream, FlushPublishesAndKeepsWholeText)
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
