// The system calls that each entry of a walk costs. A call more on the path of every file is a tenth of its
// time, and is seen here whatever the machine does besides.
#include "testing/Capture.h"
#include "testing/SystemCalls.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <sys/xattr.h>

namespace {

namespace fs = std::filesystem;

constexpr unsigned long More = 300;

struct Kind
{
    const char* label;
    double calls;
    bool (*make)(const std::string& path);
};

bool MakeFile(const std::string& path)
{
    return static_cast<bool>(std::ofstream(path) << "text");
}

// Status, open, configuration, extended attributes, close. A directory: status, two looks for a mount,
// configuration, extended attributes; open, two reads of its names, close. A link: its target takes one.
const Kind Kinds[] = {
    {"regular file", 5, &MakeFile},
    {"with an extended attribute", 6,
     [](const std::string& path) {
         return MakeFile(path) && setxattr(path.c_str(), "user.name", "value", 5, 0) == 0;
     }},
    {"directory", 9,
     [](const std::string& path) {
         return fs::create_directory(path);
     }},
    {"link", 4,
     [](const std::string& path) {
         fs::create_symlink("target", path);
         return true;
     }},
};

TEST(CaptureCallsTest, EachEntryCostsTheCallsItNeeds)
{
    for (const Kind& kind : Kinds) {
        const Testing::TemporaryDirectory directory;
        const auto add = [&](const std::string& prefix) {
            for (unsigned long i = 0; i < More; ++i) {
                if (!kind.make(directory / (prefix + std::to_string(i))))
                    return false;
            }
            return true;
        };
        const auto count = [&] {
            return Testing::CountSystemCalls([&] { Testing::Capture().Run(directory.Path()); });
        };
        if (!add("few")) {
            std::printf("%s: this file system has none\n", kind.label);
            continue;
        }
        const auto few = count();
        if (!few)
            GTEST_SKIP() << "this machine lets no process trace another";
        ASSERT_TRUE(add("more"));
        const auto many = count();
        ASSERT_TRUE(many);
        // The rest is what memory and reading the names of the directory above take.
        const double calls = static_cast<double>(*many - *few) / More;
        EXPECT_LT(calls, kind.calls + 0.3) << kind.label;
        EXPECT_GE(calls, kind.calls) << kind.label << ": fewer calls are fine, and the table should tell so";
    }
}

} // namespace
