#include "Krt/Profile/YProfile.h"

#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/File/Unix/Status.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>

using namespace Krt;

namespace {

class YProfileTest : public testing::Test
{
protected:
    YProfileTest() { setenv("KBAGENT_CONFIG", m_path.c_str(), 1); }
    ~YProfileTest() override { unsetenv("KBAGENT_CONFIG"); }

    YString Value(const char* key) const
    {
        return Profile::OpenSystem()->Get<YString>("configuration", key, "default");
    }

    Testing::TemporaryDirectory m_directory;
    const std::string m_path = m_directory / "kbagent.conf";
};

} // namespace

// fuzz/ compares the values of a file with a plain model.
TEST_F(YProfileTest, MissingKeyGivesDefault)
{
    EXPECT_EQ(Value("a"), "default") << "a missing file";
    m_directory.Write("kbagent.conf",
                      "before = 1\r\n[configuration]\r\na.b = with dots \r\nempty=\r\nodd=perhaps\n");
    EXPECT_EQ(Value("a"), "default");
    EXPECT_EQ(Value("a.b"), "with dots");
    EXPECT_EQ(Value("empty"), "");
    const auto profile = Profile::OpenSystem();
    EXPECT_TRUE(profile->Get<bool>("configuration", "missing", true));
    EXPECT_RAISES_ON(profile->Get<bool>("configuration", "odd", true), MessageType::Runtime,
                     ErrorCode::NumberConversion, "StringToNumber", "");
}

TEST_F(YProfileTest, UnusableFileRaisesItsPath)
{
    m_directory.Write("kbagent.conf", "[configuration]\na=1\nno equals sign\n");
    const auto error = Testing::CatchError([] { Profile::OpenSystem(); });
    EXPECT_EQ(error.value().GetCode(), static_cast<unsigned int>(ErrorCode::InvalidArgument));
    const std::string message = Testing::ErrorOf([] { Profile::OpenSystem(); });
    EXPECT_TRUE(message.starts_with("OpenSystem: Damaged configuration " + m_path + ", line 3: ")) << message;
    unlink(m_path.c_str());
    m_directory.MakeDirectory("kbagent.conf");
    EXPECT_RAISES_OS(Profile::OpenSystem(), MessageType::General, EISDIR, "OpenSystem",
                     "Failed to read configuration " + m_path);
    rmdir(m_path.c_str());
    m_directory.Write("kbagent.conf", "");
    ASSERT_EQ(truncate(m_path.c_str(), (16 << 20) + 1), 0);
    EXPECT_RAISES(Profile::OpenSystem(), ErrorCode::InvalidArgument, "OpenSystem",
                  "The configuration " + m_path + " is larger than 16 MiB");
    unlink(m_path.c_str());
    mkfifo(m_path.c_str(), 0600);
    EXPECT_RAISES_ON(Profile::OpenSystem(), MessageType::General, ErrorCode::InvalidArgument, "OpenSystem",
                     "The configuration " + m_path + " is a pipe");
}

TEST_F(YProfileTest, ChangedFileIsParsedAgain)
{
    // The time of the last status change cannot be set, so the first of these parses is too close to it to be
    // kept.
    m_directory.Write("kbagent.conf", "[configuration]\na=1\n");
    const auto young = Profile::OpenSystem();
    EXPECT_NE(Profile::OpenSystem(), young);
    // Same size, and the times of the old content.
    const struct stat status = Testing::StatusOf(m_path);
    m_directory.Write("kbagent.conf", "[configuration]\na=2\n");
    const timespec times[] = {Krt::File::AccessTime(status), Krt::File::WriteTime(status)};
    ASSERT_EQ(utimensat(AT_FDCWD, m_path.c_str(), times, 0), 0);
    EXPECT_EQ(Value("a"), "2");
    EXPECT_EQ(young->Get<YString>("configuration", "a", ""), "1");
}

// The file belongs to the sources, so it does not change.
TEST_F(YProfileTest, OldFileIsParsedOncePerPath)
{
    setenv("KBAGENT_CONFIG", GOLDEN_DIRECTORY "/kbagent.conf", 1);
    const auto profile = Profile::OpenSystem();
    EXPECT_TRUE(profile->Get<bool>("configuration", "consoleOutput", false));
    EXPECT_EQ(Profile::OpenSystem(), profile);
    setenv("KBAGENT_CONFIG", m_path.c_str(), 1);
    EXPECT_EQ(Value("consoleOutput"), "default");
}
