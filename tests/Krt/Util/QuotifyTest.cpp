#include "Krt/Util/Quotify.h"

#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>

using Krt::Util::QuotifyEx;

// The shell itself decides whether a text is quoted correctly.
TEST(Quotify, ShellReturnsEachText)
{
    const Testing::TemporaryDirectory directory;
    const std::pair<const char*, const char*> rows[] = {
        {"empty", ""},
        {"marks at both ends", "'\"a\"'"},
        {"commands", "$(touch x) `touch x` ; touch x & | > x"},
        {"backslashes", "\\\\\" \\$HOME \\' \\n \\"},
        {"patterns and home", "~ * ? [a-z] {a,b} !1 #"},
        {"lines", "a\nb\r\n\tc\n"},
        {"option and no letters", "--\xFF\xC3\xA4"},
    };
    for (const auto& [name, text] : rows) {
        for (const char quote : {'"', '\''}) {
            const std::string output = directory / "output";
            const std::string command = "printf %s " + QuotifyEx(text, quote).Bytes() + " >'" + output + "'";
            ASSERT_EQ(std::system(command.c_str()), 0) << name << quote;
            EXPECT_EQ(Testing::ReadFile(output), text) << name << quote;
        }
    }
    EXPECT_EQ(QuotifyEx("a|\\\"$`", '|').Bytes(), "|a\\|\\\\\"$`|") << "for readers other than shells";
}
