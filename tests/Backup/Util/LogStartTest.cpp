// The opening of the log with its banner, and the configuration that steers it.
#include "Backup/Util/Util.h"

#include "Krt/Log/LogSite.h"
#include "testing/Configuration.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <regex>

using namespace Krt;
using Backup::Util::OpenOrReopenLog;
using Testing::ReadFile;

namespace {

class LogStart : public ::testing::Test
{
protected:
    LogStart() { Log::InstallGlobalLogger(); }
    ~LogStart() override
    {
        Log::GetGlobalRegistrar()->SetEnabledMessages({});
        Log::GetGlobalLogger()->Close();
    }

    std::string Text() const { return ReadFile(log); }

    const Testing::TemporaryDirectory directory;
    const Testing::Configuration configuration;
    const std::string log = directory / "log";
};

// The banner with words in the place of what differs from build to build and from run to run.
std::string WithoutVariables(std::string text)
{
    const std::pair<const char*, const char*> variables[] = {
        {R"((^|\n)\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d )", "$1TIME "},
        {"0x[0-9a-f]{8} ", "THREAD "},
        {R"(\d{4}-\d\d-\d\d ([0-9a-f]{12}(-dirty)?|unknown)\))", "DATE REVISION)"},
        {R"(\(C\) \d{4} )", "(C) YEAR "},
        {" " BACKUP_VERSION "-rel", " VERSION-rel"}};
    for (const auto& [pattern, word] : variables)
        text = std::regex_replace(text, std::regex(pattern), word);
    return text;
}

} // namespace

TEST_F(LogStart, BannerMatchesGolden)
{
    OpenOrReopenLog(log.c_str(), "General,,FileIo,NoSuchChannel");
    EXPECT_EQ(WithoutVariables(Text()), ReadFile(GOLDEN_DIRECTORY "/log-banner.txt"));
}

TEST_F(LogStart, EachOpeningReadsConfiguration)
{
    const struct
    {
        const char* name;
        const char* keys;
        const char* byDefault;
        std::vector<YString> channels;
        std::size_t bannerLines;
        bool isOnConsole;
    } rows[] = {
        {"nothing", "", "", {}, 0, false},
        {"empty key", "debugOutput=\n", "General", {}, 0, false},
        {"default", "consoleOutput=no\n", "Volume,General", {"Volume", "General"}, 3, false},
        {"unknown channels", "debugOutput=a,,b\nconsoleOutput=yes\n", "General", {"a", "b"}, 0, true},
        {"key wins", "debugOutput=General\nconsoleOutput=true\n", "FileIo", {"General"}, 3, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(log);
        configuration.Set(row.keys);
        testing::internal::CaptureStderr();
        OpenOrReopenLog(log.c_str(), row.byDefault);
        const std::string console = testing::internal::GetCapturedStderr();
        EXPECT_EQ(Log::GetGlobalRegistrar()->GetEnabledMessages(), row.channels);
        const std::string text = Text();
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), row.bannerLines);
        EXPECT_EQ(console, row.isOnConsole ? text : "");
    }
}

TEST_F(LogStart, FailureLeavesLogClosedWithoutBanner)
{
    const struct
    {
        const char* name;
        const char* keys; // null: of a file below the log's own path
        const char* path;
        const char* function;
    } rows[] = {
        {"no bool", "consoleOutput=maybe\n", "log", "StringToNumber"},
        {"missing parent", "", "missing/log", "Open"},
        // The log's own file is where the configuration's directory would be, once the log is created.
        {"readable once", nullptr, "log", "OpenSystem"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        configuration.Set("");
        OpenOrReopenLog((directory / "earlier").c_str(), "General");
        row.keys != nullptr ? configuration.Set(row.keys) : configuration.Use(log + "/conf");
        const std::string path = directory / row.path;
        const auto error = Testing::CatchError([&] { OpenOrReopenLog(path.c_str(), "General"); });
        EXPECT_EQ(error.value().GetFunction().Bytes(), row.function);
        EXPECT_FALSE(Log::GetGlobalLogger()->IsOpen());
        EXPECT_TRUE(!std::filesystem::exists(path) || Text().empty());
    }
}

// An unpacked archive has no revision.
TEST(BuildInfoTest, SourceDateEpochIsUsed)
{
    const Testing::TemporaryDirectory directory;
    std::filesystem::create_directories(directory / "Backup/Util");
    std::filesystem::copy(SOURCE_DIRECTORY "/Backup/Util/BuildInfo.cpp.in", directory / "Backup/Util");
    const std::string output = directory / "BuildInfo.cpp";
    const std::string command = "SOURCE_DATE_EPOCH=86400 '" CMAKE_PROGRAM "' -D VERSION=1.2.3 -D SOURCE='" +
                                directory.Path() + "' -D OUTPUT='" + output +
                                "' -P '" SOURCE_DIRECTORY "/cmake/BuildInfo.cmake'";
    ASSERT_EQ(std::system(command.c_str()), 0) << command;
    const std::string text = ReadFile(output);
    for (const char* const piece : {"\"1.2.3\"", "\"1970-01-02\"", "\"unknown\"", "(C) 1970 "})
        EXPECT_NE(text.find(piece), std::string::npos) << piece;
}
