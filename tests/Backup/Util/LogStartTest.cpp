// The opening of the log with its banner, the configuration that steers it, rotation, and macros in paths.
#include "Backup/Core/YGlobal.h"
#include "Backup/Util/Util.h"

#include "Krt/Log/LogSite.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <regex>
#include <sstream>
#include <thread>

using namespace Krt;
using Backup::Util::ExpandMacros;
using Backup::Util::OpenOrReopenLog;
using Testing::ReadFile;

namespace {

class LogStart : public ::testing::Test
{
protected:
    LogStart()
    {
        Log::InstallGlobalLogger();
        Configure("");
    }
    ~LogStart() override
    {
        unsetenv("KBAGENT_CONFIG");
        Log::GetGlobalRegistrar()->SetEnabledMessages({});
        Log::GetGlobalLogger()->Close();
    }

    void Configure(const std::string& keys) const
    {
        const std::string path = directory.Write("kbagent.conf", "[configuration]\n" + keys);
        setenv("KBAGENT_CONFIG", path.c_str(), 1);
    }
    std::string Text() const { return ReadFile(log); }

    const Testing::TemporaryDirectory directory;
    const std::string log = directory / "log";
};

std::string Replace(const std::string& text, const char* pattern, const char* word)
{
    return std::regex_replace(text, std::regex(pattern), word);
}

// The banner with words in the place of what differs from build to build and from run to run.
std::string WithoutVariables(std::string text)
{
    text = Replace(text, R"((^|\n)\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d )", "$1TIME ");
    text = Replace(text, "0x[0-9a-f]{8} ", "THREAD ");
    text = Replace(text, R"(\d{4}-\d\d-\d\d ([0-9a-f]{12}(-dirty)?|unknown)\))", "DATE REVISION)");
    text = Replace(text, R"(\(C\) \d{4} )", "(C) YEAR ");
    return Replace(text, " " BACKUP_VERSION "-rel", " VERSION-rel");
}

} // namespace

TEST_F(LogStart, BannerIsAsItAlwaysWas)
{
    OpenOrReopenLog(log.c_str(), "General,,FileIo,NoSuchChannel");
    EXPECT_EQ(WithoutVariables(Text()), ReadFile(GOLDEN_DIRECTORY "/log-banner.txt"));
}

TEST_F(LogStart, ConfigurationSteersEachOpening)
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
        {"number", "consoleOutput=1\n", "General", {"General"}, 3, true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        std::filesystem::remove(log);
        Configure(row.keys);
        testing::internal::CaptureStderr();
        OpenOrReopenLog(log.c_str(), row.byDefault);
        const std::string console = testing::internal::GetCapturedStderr();
        EXPECT_EQ(Log::GetGlobalRegistrar()->GetEnabledMessages(), row.channels);
        const std::string text = Text();
        EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), row.bannerLines);
        EXPECT_EQ(console, row.isOnConsole ? text : "");
    }
}

TEST_F(LogStart, FailureLeavesTheLogClosedAndWithoutBanner)
{
    const struct
    {
        const char* name;
        const char* keys;
        const char* configuration; // instead of the one with these keys
        const char* path;
        const char* function;
        bool isMade;
    } rows[] = {
        {"no bool", "consoleOutput=maybe\n", "", "log", "StringToNumber", false},
        {"damaged", "a line without a value\n", "", "log", "OpenSystem", false},
        {"missing parent", "", "", "missing/log", "Open", false},
        // There is no such file until the log's own makes a directory of its path impossible.
        {"readable once", "", "log/conf", "log", "OpenSystem", true},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Configure("");
        OpenOrReopenLog((directory / "earlier").c_str(), "General");
        Configure(row.keys);
        if (*row.configuration != '\0')
            setenv("KBAGENT_CONFIG", (directory / row.configuration).c_str(), 1);
        const std::string path = directory / row.path;
        const auto error = Testing::CatchError([&] { OpenOrReopenLog(path.c_str(), "General"); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->GetFunction().Bytes(), row.function);
        EXPECT_FALSE(Log::GetGlobalLogger()->IsOpen());
        EXPECT_EQ(std::filesystem::exists(path), row.isMade);
        EXPECT_TRUE(!row.isMade || Text().empty());
    }
}

// Four threads log without a pause while the file is moved away and the log opened again, three times.
TEST_F(LogStart, RotationAmongThreadsLosesAndDoublesNoLine)
{
    constexpr std::size_t threads = 4;
    constexpr int rotations = 3;
    const unsigned long long droppedBefore = Log::GetGlobalLogger()->GetDroppedCount();
    OpenOrReopenLog(log.c_str(), "General");
    std::atomic<bool> isOver{false};
    std::array<std::atomic<int>, threads> said{};
    std::vector<std::thread> speakers;
    for (std::size_t i = 0; i < threads; ++i) {
        speakers.emplace_back([&, i] {
            while (!isOver) {
                KRT_LOG_FREE(MessageType::General, "thread " << static_cast<int>(i) << " says " << said[i]);
                ++said[i];
            }
        });
    }
    const auto waitForAll = [&] {
        for (std::atomic<int>& count : said) {
            for (const int before = count; count < before + 25;)
                std::this_thread::yield();
        }
    };
    for (int rotation = 0; rotation < rotations; ++rotation) {
        waitForAll();
        std::filesystem::rename(log, log + "." + std::to_string(rotation));
        waitForAll();
        OpenOrReopenLog(log.c_str(), "General");
    }
    waitForAll();
    isOver = true;
    for (std::thread& speaker : speakers)
        speaker.join();

    std::map<std::string, int> found;
    for (const char* const file : {".0", ".1", ".2", ""}) {
        std::istringstream lines(ReadFile(log + file));
        for (std::string line; std::getline(lines, line);)
            ++found[line.substr(line.rfind(": ") + 2)];
    }
    EXPECT_EQ(found["General"], 1 + rotations) << "the banner's flags";
    std::size_t whole = 0;
    std::size_t missing = 0;
    for (std::size_t i = 0; i < threads; ++i) {
        for (int message = 0; message < said[i]; ++message) {
            const auto line = found.find("thread " + std::to_string(i) + " says " + std::to_string(message));
            ASSERT_TRUE(line == found.end() || line->second == 1) << line->first;
            ++(line == found.end() ? missing : whole);
        }
    }
    EXPECT_EQ(missing, Log::GetGlobalLogger()->GetDroppedCount() - droppedBefore);
    EXPECT_EQ(found.size(), whole + 3) << "beside the banner there are only whole lines";
}

TEST(ExpandMacrosTest, OfTheGlobalTableAndNormalised)
{
    Backup::DestroyGlobal();
    EXPECT_EQ(ExpandMacros("/var/${serviceName}/log"), "/var/${serviceName}/log");
    Backup::GetGlobal()->Initialize();
    const struct
    {
        const char* path;
        const char* expanded;
    } rows[] = {
        {"/var/log/plain", "/var/log/plain"},
        {"/var/${serviceName}/${mfgShort}.log/", "/var/kbagent/Kestrelon.log"},
        {"/${unknown}/${product}", "/${unknown}/Kestrelon Backup Agent"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(ExpandMacros(row.path).Bytes(), row.expanded);
    Backup::DestroyGlobal();
}

// An unpacked archive has no revision; a file that would come out the same is left alone.
TEST(BuildInfoTest, HonoursTheGivenDateAndWritesOnlyChanges)
{
    const Testing::TemporaryDirectory directory;
    std::filesystem::create_directories(directory / "Backup/Util");
    std::filesystem::copy(SOURCE_DIRECTORY "/Backup/Util/BuildInfo.cpp.in", directory / "Backup/Util");
    const std::string output = directory / "BuildInfo.cpp";
    const auto make = [&](const std::string& seconds) {
        const std::string command =
            "SOURCE_DATE_EPOCH=" + seconds + " '" CMAKE_PROGRAM "' -D VERSION=1.2.3 " + "-D SOURCE='" +
            directory.Path() + "' -D OUTPUT='" + output + "' -P '" SOURCE_DIRECTORY "/cmake/BuildInfo.cmake'";
        EXPECT_EQ(std::system(command.c_str()), 0) << command;
        return std::filesystem::last_write_time(output);
    };
    make("86400");
    const std::string text = ReadFile(output);
    for (const char* const piece : {"\"1.2.3\"", "\"1970-01-02\"", "\"unknown\"", "(C) 1970 "})
        EXPECT_NE(text.find(piece), std::string::npos) << piece;
    const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
    std::filesystem::last_write_time(output, old);
    EXPECT_EQ(make("86401"), old);
    EXPECT_NE(make("172800"), old);
}
