#include "Krt/Log/YLog.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Thread/Thread.h"
#include "Krt/Util/Numbers.h"
#include "testing/FileSizeLimit.h"
#include "testing/LogCapture.h"
#include "testing/Raises.h"

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <regex>
#include <sstream>
#include <thread>

using namespace Krt;
using Log::YLog;
using namespace std::string_view_literals;

namespace {

class Speaker
{
public:
    virtual ~Speaker() = default;
    void Say(const char* text) const { KRT_LOG(MessageType::FileIo, text); }
};
class LoudSpeaker : public Speaker
{};
template <class T>
class Box
{};

class YLogTest : public testing::Test
{
protected:
    static YLog::Param At(const std::string& path) { return YLog::Param(File::YPath(path.c_str())); }
    void Say(const YString& text) { log.GetThreadSpecificContext() << text << Modifiers::EndLine; }

    const Testing::TemporaryDirectory directory;
    const std::string path = directory / "log";
    YLog log;
};

} // namespace

// ctest runs it in a process of its own, in which the logger has not been installed; after other tests, its
// first part is left out.
TEST(LogSite, DisabledMessageIsNotEvaluated)
{
    int evaluated = 0;
    const auto count = [&] {
        return ++evaluated;
    };
    if (Log::GetGlobalLogger() == nullptr) {
        Log::GetGlobalRegistrar()->SetEnabledMessages({"General"});
        KRT_LOG_FREE(MessageType::General, "no logger " << count());
    }
    const Testing::LogCapture log({"General", "NoSuchChannel"});
    KRT_LOG_FREE(MessageType::FileIo, "not enabled " << count());
    KRT_LOG_FREE(4711, "unknown channel " << count());
    EXPECT_EQ(evaluated, 0);
    KRT_LOG_FREE(MessageType::General, "enabled " << count());
    EXPECT_EQ(log.Texts(), std::vector<std::string>{"General: enabled 1"});
}

TEST(LogSite, LineContainsThreadAndDynamicClass)
{
    const Testing::LogCapture log({"FileIo", "Volume"});
    LoudSpeaker().Say("hello");
    KRT_LOG_FREE(MessageType::Volume, "there");
    const std::string id =
        Util::NumberToString<unsigned int>(static_cast<unsigned int>(Thread::GetThreadId()), true).Bytes();
    EXPECT_EQ(log.Lines(), (std::vector<std::string>{id + " LoudSpeaker: hello", id + " Volume: there"}));
}

TEST(LogSite, FailedAndNestedMessagesDoNotMix)
{
    const Testing::LogCapture log({"FileIo", "General"});
    const auto raises = []() -> YString {
        KRT_RAISE(ErrorCode::InvalidState, "no");
    };
    const auto logs = []() -> YString {
        KRT_LOG_FREE(MessageType::General, "inner");
        return "outer";
    };
    EXPECT_RAISES(KRT_LOG_FREE(MessageType::General, "lost " << raises()), ErrorCode::InvalidState,
                  "operator()", "no");
    KRT_LOG_FREE(MessageType::FileIo, "says " << logs() << " end");
    EXPECT_EQ(log.Texts(), (std::vector<std::string>{"General: inner", "FileIo: says outer end"}));
}

TEST(LogPrefix, ClassNamesLoseNamespaces)
{
    EXPECT_EQ(Util::GetClassNameFromTypeInfo(typeid(Box<Krt::YString>)).Bytes(), "Box<Krt::YString>");
    EXPECT_EQ(Util::GetClassNameFromTypeInfo(typeid(File::YPath)).Bytes(), "YPath");
    struct Local
    {};
    EXPECT_EQ(Util::GetClassNameFromTypeInfo(typeid(Local)).Bytes(), "Local");
    EXPECT_EQ(Util::Camelify("FileIo").Bytes(), "FileIo");
    EXPECT_EQ(Util::Camelify(" file i/o, \xC3\xA4rger").Bytes(), "FileIO\xC3\xA4rger");
}

TEST(YRegistrar, SetReplacesAndKeepsUnknownNames)
{
    Log::YRegistrar registrar;
    EXPECT_FALSE(registrar.IsMessageEnabled(MessageType::General));
    registrar.SetEnabledMessages({"FileIo", " General", "Nonsense"});
    EXPECT_TRUE(registrar.IsMessageEnabled(MessageType::General));
    EXPECT_TRUE(registrar.IsMessageEnabled(MessageType::FileIo));
    EXPECT_FALSE(registrar.IsMessageEnabled(MessageType::FileInfo));
    EXPECT_EQ(registrar.GetEnabledMessages(), (std::vector<YString>{"FileIo", " General", "Nonsense"}));
    registrar.SetEnabledMessages({"SelectionQuery"});
    EXPECT_FALSE(registrar.IsMessageEnabled(MessageType::General));
    EXPECT_TRUE(registrar.IsMessageEnabled(MessageType::SelectionQuery));
    EXPECT_EQ(registrar.TypeToString(4711).Bytes(), "4711");
}

TEST_F(YLogTest, LineIsPrefixedAndControlCharactersAreEscaped)
{
    log.Open(At(path));
    Say(YString("a\nb\r\t\x1b[2J\x7f\0|\\n \xC3\xA4 \xC2\x85 \xFF \u2028."sv));
    log.Write(MessageType::FileIo, "trace");
    log.Close();
    const std::string text = Testing::ReadFile(path);
    const std::regex shape(
        R"(\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d\d:\d\d INFO ([^\n]*)\n\S+ TRACE trace\n)");
    std::smatch match;
    ASSERT_TRUE(std::regex_match(text, match, shape)) << text;
    EXPECT_EQ(match[1].str(), "a\\nb\\r\\t\\x1b[2J\\x7f\\x00|\\\\n \xC3\xA4 \\u0085 \\xff \\u2028.");
}

TEST_F(YLogTest, OpenOfLinkFifoOrDirectoryIsRefused)
{
    const std::string target = directory.Write("target", "kept\n");
    ASSERT_EQ(symlink(target.c_str(), (directory / "link").c_str()), 0);
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    const std::pair<std::string, int> rows[] = {
        {"link", ELOOP}, {"missing/log", ENOENT}, {".", EISDIR}, {"fifo", ENXIO}};
    for (const auto& [name, error] : rows) {
        log.Open(At(target));
        EXPECT_EQ(Testing::OsErrorOf([&, file = name] { log.Open(At(directory / file)); }), error) << name;
        EXPECT_FALSE(log.IsOpen()) << name;
    }
    Say("dropped");
    EXPECT_EQ(log.GetDroppedCount(), 1U);
    EXPECT_EQ(Testing::ReadFile(target), "kept\n");
}

TEST_F(YLogTest, OpenedFileIsPrivate)
{
    const mode_t mask = umask(0);
    log.Open(At(path));
    umask(mask);
    EXPECT_EQ(Testing::StatusOf(path).st_mode & 0777U, 0640U);
}

// A log that is reopened without being closed first loses nothing; lines written while it is closed are
// counted.
TEST_F(YLogTest, ConcurrentRotationKeepsOrCountsEveryLine)
{
    constexpr int Threads = 4, Lines = 500;
    Log::InstallGlobalLogger();
    YLog& global = *Log::GetGlobalLogger();
    for (const bool closesFirst : {false, true}) {
        global.Open(At(path));
        Log::GetGlobalRegistrar()->SetEnabledMessages({"General"});
        const unsigned long long droppedBefore = global.GetDroppedCount();
        std::atomic<int> running = Threads;
        std::vector<std::thread> threads;
        for (int thread = 0; thread < Threads; ++thread)
            threads.emplace_back([&, thread] {
                for (int line = 0; line < Lines; ++line)
                    KRT_LOG_FREE(MessageType::General,
                                 thread << "," << line << std::string(line % 300, 'x').c_str() << ";");
                --running;
            });
        std::string text;
        const auto rotate = [&] {
            ASSERT_EQ(rename(path.c_str(), (directory / "old").c_str()), 0);
            if (closesFirst) {
                global.Close();
                std::this_thread::yield();
            }
            global.Open(At(path));
            Log::GetGlobalRegistrar()->SetEnabledMessages({"FileIo", "General"});
            text += Testing::ReadFile(directory / "old");
        };
        do
            rotate();
        while (running != 0);
        for (std::thread& thread : threads)
            thread.join();
        rotate();

        const unsigned long long dropped = global.GetDroppedCount() - droppedBefore;
        EXPECT_TRUE(closesFirst || dropped == 0);
        std::size_t written = 0;
        int next[Threads] = {};
        const std::regex shape(R"(\S+ INFO \w+ General: (\d),(\d+)x*;)");
        std::istringstream lines(text);
        for (std::string line; std::getline(lines, line); ++written) {
            std::smatch match;
            ASSERT_TRUE(std::regex_match(line, match, shape)) << line;
            int& least = next[std::stoi(match[1])];
            EXPECT_LE(least, std::stoi(match[2])) << "in the order of its thread";
            least = std::stoi(match[2]) + 1;
        }
        EXPECT_EQ(written + dropped, std::size_t{Threads * Lines});
    }
    Log::GetGlobalRegistrar()->SetEnabledMessages({});
    global.Close();
}

// A limit on the size of files cuts a write short, as a full disk does.
TEST_F(YLogTest, ShortWriteIsUndoneAndCounted)
{
    YLog::Param param = At(path);
    param.wholeLines = true;
    log.Open(param);
    Say("first");
    const std::string before = Testing::ReadFile(path);

    {
        const Testing::FileSizeLimit limit(before.size() + 10);
        Say("doesn't fit");
    }
    EXPECT_EQ(Testing::ReadFile(path), before);
    EXPECT_EQ(log.GetDroppedCount(), 1U);
    Say("third");
    EXPECT_NE(Testing::ReadFile(path).find(" third\n"), std::string::npos);
}
