#include "Backup/File/Unix/File.h"
#include "Backup/File/Unix/YFile.h"

#include "Krt/File/YDirectory.h"

#include "testing/CallHook.h"
#include "testing/LogCapture.h"
#include "testing/OrdinaryUser.h"
#include "testing/Raises.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <vector>

namespace {

using namespace Backup::File;
using Krt::ErrorCode;
using Krt::MessageType;
using Testing::CallHook;
using Testing::HookedCall;

YPath At(const std::string& path)
{
    return YPath(path.c_str());
}

struct TransferRow
{
    const char* name;
    int errnoBefore;
    std::vector<std::pair<long, int>> script; // results, and errors that are not 0
    std::vector<std::size_t> counts;          // asked for, call by call
    int raised;                               // 0: none
    unsigned int read;                        // what Read returns if it doesn't raise
};

// Runs Write or Read over each row's script.
template <class Call>
void RunTransfers(const std::vector<TransferRow>& rows, const std::string& expected, Call call)
{
    const int fd = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (const TransferRow& row : rows) {
        SCOPED_TRACE(row.name);
        std::vector<std::size_t> counts;
        const CallHook hook([&](const HookedCall& transfer) {
            if (transfer.descriptor != fd || (transfer.function != "read" && transfer.function != "write"))
                return;
            const auto& [transferred, failure] = row.script.at(counts.size());
            counts.push_back(transfer.size);
            CallHook::Return(transferred, failure == 0 ? std::nullopt : std::optional(failure));
        });
        unsigned int result = 0;
        errno = row.errnoBefore;
        const auto error =
            Testing::CatchError([&] { result = call(fd, static_cast<unsigned int>(row.counts[0])); });
        EXPECT_EQ(error ? error->GetOsError() : 0, row.raised);
        EXPECT_EQ(error ? (error->GetFunction() + ": " + error->GetMessage()).Bytes() : expected, expected);
        EXPECT_EQ(counts, row.counts);
        EXPECT_EQ(result, row.read);
    }
    close(fd);
}

unsigned char g_data[16] = {};

TEST(FilePrimitives, ShortWriteContinuesOnlyOnEintr)
{
    const std::vector<TransferRow> rows = {
        {"nothing to do", 0, {{0, 0}}, {0}, 0, 0},
        {"short without an error", ENOSPC, {{3, 0}}, {8}, ENOSPC, 0},
        {"short with an old interruption", EINTR, {{3, 0}, {5, 0}}, {8, 5}, 0, 0},
        {"first call fails", 0, {{-1, EIO}}, {8}, EIO, 0},
        {"first call interrupted", 0, {{-1, EINTR}}, {8}, EINTR, 0},
        {"interrupted after progress", EINTR, {{3, 0}, {-1, EINTR}, {6, 0}}, {8, 5, 6}, 0, 0},
        {"fails after progress", EINTR, {{3, 0}, {-1, ENOSPC}}, {8, 5}, ENOSPC, 0},
    };
    RunTransfers(rows, "Write: Could not write to file", [](int fd, unsigned int count) {
        Write(fd, 0, g_data, count);
        return 0u;
    });
}

TEST(FilePrimitives, ShortReadEndsCall)
{
    const std::vector<TransferRow> rows = {
        {"end of the file", ENOENT, {{3, 0}}, {8}, 0, 3},
        {"short with an old interruption", EINTR, {{3, 0}, {5, 0}}, {8, 5}, 0, 8},
        {"first call fails", 0, {{-1, EIO}}, {8}, EIO, 0},
        {"fails after progress", EINTR, {{3, 0}, {-1, EIO}}, {8, 5}, 0, 2},
    };
    RunTransfers(rows, "Read: Could not read from file",
                 [](int fd, unsigned int count) { return Read(fd, 0, g_data, count); });
}

TEST(FilePrimitives, TransfersBeginAtOffset)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    EXPECT_RAISES_OS(Write(ends[1], 0, g_data, 1), MessageType::General, ESPIPE, "Write",
                     "Could not seek in file");
    EXPECT_RAISES_OS(Read(ends[0], 0, g_data, 1), MessageType::General, ESPIPE, "Read",
                     "Could not seek in file");
    Close(ends[0]);
    Close(ends[1]);
    EXPECT_RAISES_OS(Close(-1), MessageType::FileClose, EBADF, "Close", "");

    const Testing::TemporaryDirectory directory;
    const YPath path = At(directory / "file");
    const int fd = OpenForBackupWrite(path);
    Write(fd, 3, reinterpret_cast<const unsigned char*>("abc"), 3);
    unsigned char back[8];
    EXPECT_EQ(Read(fd, 4, back, sizeof(back)), 2u);
    EXPECT_EQ(back[0], 'b');
    EXPECT_EQ(Read(fd, 100, back, sizeof(back)), 0u);
    Close(fd);
    EXPECT_EQ(Testing::ReadFile(directory / "file"), std::string("\0\0\0abc", 6));
    EXPECT_EQ(GetModeFlags(path) & 077u, 0u);
    Close(OpenForBackupWrite(path));
    EXPECT_EQ(GetFileSize(path), 0u) << "opening for write empties";
}

TEST(FilePrimitives, StatusIsThatOfEntryItself)
{
    const Testing::TemporaryDirectory directory;
    const YPath file = At(directory.Write("file", "x"));
    const YPath link = At(directory / "link");
    CreateSymbolicLink(link, "nowhere");
    struct stat status;
    StatFile(link, &status);
    EXPECT_TRUE(S_ISLNK(status.st_mode));
    status = Testing::StatusOf(file.Bytes());
    unsigned long long allocated = 1;
    EXPECT_EQ(GetFileInode(file, &allocated), status.st_ino);
    EXPECT_EQ(allocated, static_cast<unsigned long long>(status.st_blocks) * 512);
    EXPECT_EQ(GetFileInode(file, nullptr), status.st_ino);
    EXPECT_FALSE(DoesDirExist(file));
    EXPECT_TRUE(DoesDirExist(At(directory.Path())));
    EXPECT_FALSE(DoesDirExist(At(directory / "missing")));
    EXPECT_RAISES_OS(StatFile(At(directory / "missing"), &status), MessageType::FileStat, ENOENT, "StatFile",
                     "Failed to stat file: " + directory / "missing");
    const auto silent = Testing::CatchError([&] {
        const CallHook hook([](const HookedCall& call) {
            if (call.function == "lstat")
                CallHook::Fail(0);
        });
        StatFile(file, &status);
    });
    ASSERT_TRUE(silent.has_value()) << "a failure without a number is one";
    EXPECT_EQ(silent->GetOsError(), 0);
    const Testing::LogCapture log({"FileInfo"});
    EXPECT_EQ(GetFileSize(At(directory / "missing")), 0u);
    EXPECT_TRUE(
        log.Text().starts_with("FileInfo: Failed to get file size for file " + directory / "missing" + " "))
        << log.Text();
}

TEST(FilePrimitives, SpecialFilesAreRecognized)
{
    const Testing::TemporaryDirectory directory;
    ASSERT_EQ(mkfifo((directory / "fifo").c_str(), 0600), 0);
    ASSERT_EQ(mknod((directory / "socket").c_str(), S_IFSOCK | 0600, 0), 0);
    CreateSymbolicLink(At(directory / "link"), At(directory / "fifo"));
    for (const std::string& path : {directory / "fifo", directory / "socket", std::string("/dev/null")})
        EXPECT_TRUE(IsSpecialFile(At(path))) << path;
    for (const std::string& path : {directory / "link", directory.Write("file", "x"), directory.Path()})
        EXPECT_FALSE(IsSpecialFile(At(path))) << path;
    EXPECT_EQ(Testing::OsErrorOf([&] { IsSpecialFile(At(directory / "missing")); }), ENOENT);
    ASSERT_EQ(chmod(directory.MakeDirectory("locked").c_str(), 0), 0);
    EXPECT_TRUE(Testing::HoldsAsOrdinaryUser([&] { return IsSpecialFile(At(directory / "locked/x")); }));
}

TEST(FilePrimitives, LinksAreCreatedAndNotFollowed)
{
    const Testing::TemporaryDirectory directory;
    const YPath file = At(directory.Write("file", "x"));
    const YPath link = At(directory / "new/parent/link");
    CreateSymbolicLink(link, "first");
    CreateSymbolicLink(link, "second");
    EXPECT_EQ(GetSymbolicLinkTarget(link), "second");
    CreateSymbolicLink(link, std::string(1500, 'n').c_str());
    EXPECT_EQ(GetSymbolicLinkTarget(link).Bytes(), std::string(1024, 'n')) << "cut";
    EXPECT_RAISES(GetSymbolicLinkTarget(file), ErrorCode::InvalidState, "GetSymbolicLinkTarget", "");
    EXPECT_RAISES_OS(CreateHardlink(file, file), MessageType::General, EEXIST, "CreateHardlink", "");
    CreateHardlink(At(directory / "hard"), file);
    EXPECT_EQ(GetFileInode(At(directory / "hard"), nullptr), GetFileInode(file, nullptr));
    EXPECT_RAISES_OS(OpenForBackupRead(link), MessageType::General, ELOOP, "OpenForBackupRead",
                     "Could not open file for read: " + directory / "new/parent/link");
    EXPECT_RAISES_OS(OpenForBackupWrite(link), MessageType::General, ELOOP, "OpenForBackupWrite",
                     "Could not open file for write: " + directory / "new/parent/link");
    EXPECT_RAISES_OS(CreateSymbolicLink(At(directory / "empty"), ""), MessageType::General, ENOENT,
                     "CreateSymbolicLink", "Failed to create symlink from: " + directory / "empty" + " To: ");
}

TEST(FilePrimitives, FileSystemWithoutAttributesHasNone)
{
    const Testing::TemporaryDirectory directory;
    directory.Write("file", "");
    const Krt::File::YDirectory parent = Krt::File::YDirectory::Open(directory.Path().c_str());
    const Krt::YString name = "file";
    YFile file;
    file.OpenEntry(parent, name, "/file");
    const CallHook hook([](const HookedCall& call) {
        if (call.function.ends_with("listxattr"))
            CallHook::Fail(ENOTSUP);
    });
    EXPECT_TRUE(file.ListExtendedAttributes().empty());
    EXPECT_TRUE(file.GetExtendedAttributeMap().empty());
}

TEST(FilePrimitives, ExistingDirectoryIsKept)
{
    const Testing::TemporaryDirectory directory;
    const mode_t mask = umask(0);
    umask(mask);
    const YPath path = At(directory / "made");
    CreateDirectory(path);
    EXPECT_EQ(GetModeFlags(path), S_IFDIR | (0644u & ~mask));
    CreateDirectory(path, 0700);
    EXPECT_EQ(GetModeFlags(path), S_IFDIR | (0644u & ~mask)) << "what exists stays";
    CreateDirectory(At(directory.Write("file", "x")));
    EXPECT_RAISES_OS(CreateDirectory(At(directory / "missing/below")), MessageType::General, ENOENT,
                     "CreateDirectory", "Failed to create directory: " + directory / "missing/below");
}

TEST(FilePrimitives, ChangesFollowLinksExceptModeOfLink)
{
    const Testing::TemporaryDirectory directory;
    const YPath file = At(directory.Write("file", "x"));
    const YPath link = At(directory / "link");
    const std::string missing = directory / "missing";
    CreateSymbolicLink(link, file);
    SetFileTime(link, 1000, 2000);
    SetModeFlags(link, S_IFREG | 0604);
    const struct stat changed = Testing::StatusOf(file.Bytes());
    EXPECT_EQ(changed.st_atime, 1000);
    EXPECT_EQ(changed.st_mtime, 2000);
    EXPECT_EQ(changed.st_mode, mode_t{S_IFREG | 0604});
    SetModeFlags(At(missing), S_IFLNK | 0777);
    const std::pair<std::function<void()>, const char*> failures[] = {
        {[&] { SetModeFlags(At(missing), 0600); }, "SetModeFlags: Failed to set mode flags on file: "},
        {[&] { SetFileTime(At(missing), 0, 0); }, "SetFileTime: Failed to set file time on file: "},
        {[&] { SetUID(At(missing), 0); }, "SetUID: Failed to set UID on file: "},
        {[&] { SetGID(At(missing), 0); }, "SetGID: Failed to set GID on file: "},
    };
    for (const auto& [call, expected] : failures) {
        EXPECT_EQ(Testing::ErrorOf(call), expected + missing);
        EXPECT_EQ(Testing::OsErrorOf(call), ENOENT) << expected;
    }
    if (geteuid() != 0)
        GTEST_SKIP() << "only the superuser gives files away";
    SetUID(link, 12);
    SetGID(link, 34);
    EXPECT_EQ(Testing::StatusOf(file.Bytes()).st_uid, 12u);
    EXPECT_EQ(Testing::StatusOf(file.Bytes()).st_gid, 34u);
}

} // namespace
