// The opening of the log with its banner, the configuration that steers it, and rotation.
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
        const char* configuration;
        const char* path;
        const char* function;
    } rows[] = {
        {"no bool", "consoleOutput=maybe\n", "kbagent.conf", "log", "StringToNumber"},
        {"missing parent", "", "kbagent.conf", "missing/log", "Open"},
        // There is no such file until the log's own makes a directory of its path impossible.
        {"readable once", "", "log/conf", "log", "OpenSystem"},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.name);
        Configure("");
        OpenOrReopenLog((directory / "earlier").c_str(), "General");
        Configure(row.keys);
        setenv("KBAGENT_CONFIG", (directory / row.configuration).c_str(), 1);
        const std::string path = directory / row.path;
        const auto error = Testing::CatchError([&] { OpenOrReopenLog(path.c_str(), "General"); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->GetFunction().Bytes(), row.function);
        EXPECT_FALSE(Log::GetGlobalLogger()->IsOpen());
        EXPECT_TRUE(!std::filesystem::exists(path) || Text().empty());
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

// An unpacked archive has no revision.
TEST(BuildInfoTest, HonoursTheGivenDate)
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
