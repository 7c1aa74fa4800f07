// Files, log, configuration and volumes while each call and each allocation fails in its turn.
#include "Backup/File/Unix/File.h"
#include "Backup/File/Unix/YFile.h"
#include "Backup/Util/Util.h"
#include "Backup/Volume/Unix/Util.h"
#include "Backup/Volume/Unix/YVolumeManager.h"

#include "testing/Configuration.h"
#include "testing/Faults.h"
#include "testing/MountTable.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/File/YDirectory.h"
#include "Krt/File/YEntry.h"
#include "Krt/File/YFile.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Profile/YProfile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <set>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <tuple>
#include <unistd.h>
#include <utility>

using namespace Testing;
using Backup::File::YFile;
using Krt::MessageType;
using Krt::YString;
using Krt::File::YDirectory;
using Krt::File::YPath;
namespace fs = std::filesystem;

namespace {

class FileFaults : public ::testing::Test
{
protected:
    // Called before each run: a file that is older than two seconds is cached.
    void Configure(const std::string& keys) const
    {
        setenv("KBAGENT_CONFIG", directory.Write("conf", "[configuration]\n" + keys).c_str(), 1);
    }
    YPath Path(const char* name) const { return YPath((directory / name).c_str()); }
    // A directory without entries.
    YPath EmptyDirectory(const char* name) const
    {
        fs::remove_all(directory / name);
        return YPath(directory.MakeDirectory(name).c_str());
    }

    const TemporaryDirectory directory;
    const NoConfiguration configuration;
    const std::string content = std::string(70000, 'a') + std::string(70000, 'b');
};

TEST_F(FileFaults, PathPrimitives)
{
    CheckWithFaults(
        [&](Faults& faults) {
            const YPath root = EmptyDirectory("made");
            const YPath old(directory.Write("made/old", "12345").c_str());
            const YPath made = Path("made/directory"), hard = Path("made/hard"),
                        link = Path("made/below/link");
            const struct stat before = StatusOf(old.Bytes());
            unsigned long long inode = 0, allocated = 0, size = 0;
            unsigned int mode = 0;
            bool isDirectory = true;
            YPath target;
            if (!faults.TryAll([&] {
                    inode = Backup::File::GetFileInode(old, &allocated);
                    mode = Backup::File::GetModeFlags(old);
                    size = Backup::File::GetFileSize(old);
                    Backup::File::IsSpecialFile(old);
                    Backup::File::SetUID(old, geteuid());
                    Backup::File::SetGID(old, getegid());
                    Backup::File::SetModeFlags(old, S_IFREG | 0640);
                    Backup::File::SetFileTime(old, 1, 2);
                    Backup::File::CreateDirectory(made, 0750);
                    isDirectory = Backup::File::DoesDirExist(old);
                    Backup::File::CreateHardlink(hard, old);
                    Backup::File::CreateSymbolicLink(link, old);
                    Backup::File::CreateSymbolicLink(link, made);
                    target = Backup::File::GetSymbolicLinkTarget(link);
                }))
                return;
            EXPECT_EQ(std::tuple(inode, allocated, mode),
                      std::tuple(before.st_ino, before.st_blocks * 512ull, before.st_mode));
            EXPECT_TRUE(size == 5 || size == 0) << "the latter if it could not be read";
            EXPECT_FALSE(isDirectory);
            EXPECT_EQ(target, made);
            EXPECT_TRUE(fs::is_directory(made.CStr()));
            EXPECT_EQ(StatusOf(hard.Bytes()).st_ino, inode);
            EXPECT_EQ(StatusOf(hard.Bytes()).st_mode, static_cast<mode_t>(S_IFREG | 0640));
            EXPECT_EQ(StatusOf(hard.Bytes()).st_mtime, 2);
            EXPECT_EQ(fs::read_symlink(link.CStr()), made.CStr());
        },
        {"readlink"});
}

TEST_F(FileFaults, TransferPrimitives)
{
    const YPath file = Path("file");
    CheckWithFaults(
        [&](Faults& faults) {
            std::string read(content.size() + 10, ' ');
            const auto bytes = reinterpret_cast<const unsigned char*>(content.data());
            int fd = -1;
            unsigned int size = 0;
            errno = 0; // not cleared by the primitives themselves
            const bool isDone = faults.TryAll([&] {
                fd = Backup::File::OpenForBackupWrite(file);
                Backup::File::Write(fd, 0, bytes, static_cast<unsigned int>(content.size()));
                Backup::File::Close(std::exchange(fd, -1));
                fd = Backup::File::OpenForBackupRead(file);
                size = Backup::File::Read(fd, 0, reinterpret_cast<unsigned char*>(read.data()),
                                          static_cast<unsigned int>(read.size()));
                Backup::File::Close(std::exchange(fd, -1));
            });
            if (fd != -1)
                close(fd);
            if (!isDone)
                return;
            EXPECT_EQ(ReadFile(file.CStr()), content);
            // Read returns the size of a short read.
            EXPECT_EQ(read.substr(0, size), content.substr(0, size));
        },
        {"read", "write"});
}

TEST_F(FileFaults, YFileReads)
{
    const YPath file(directory.Write("file", content).c_str());
    fs::create_symlink("target", directory / "link");
    const bool hasAttribute = setxattr(file.CStr(), "user.test", "1", 1, 0) == 0;
    const YString name("file"), nameOfLink("link");
    CheckWithFaults(
        [&](Faults& faults) {
            YFile byPath, byEntry;
            std::string read(content.size() + 10, ' '), readEntry = read;
            std::size_t size = 0, sizeOfEntry = 0, attributes = 0;
            YPath target, targetOfEntry;
            const auto readAll = [&] {
                byPath.Open(YFile::OPEN_MODE_READ, file, YFile::OPT_NONE);
                size = byPath.Read(read.data(), static_cast<unsigned int>(read.size()));
                attributes = byPath.GetExtendedAttributeMap().count("user.test") +
                             byPath.ListExtendedAttributes().size();
                byPath.GetDataPtr()[0] = 1;
                EXPECT_EQ(byPath.LookUpAttributes() & Krt::File::AttributeDirectory, 0u);
                byPath.Close();

                const YDirectory root = YDirectory::Open(YPath(directory.Path().c_str()));
                byEntry.OpenEntry(root, name, Path("file"));
                sizeOfEntry = byEntry.Read(readEntry.data(), static_cast<unsigned int>(readEntry.size()));
                byEntry.GetExtendedAttributeMap();

                YFile link(YFile::OPEN_MODE_READ, Path("link"), YFile::OPT_NONE);
                target = link.GetSymbolicLinkTarget();
                link.OpenEntry(root, nameOfLink, Path("link"));
                link.GetExtendedAttributeMap();
                targetOfEntry = link.GetSymbolicLinkTarget();
            };
            const auto check = [&] {
                EXPECT_EQ(read.substr(0, size), content);
                EXPECT_EQ(readEntry.substr(0, sizeOfEntry), content);
                EXPECT_GE(attributes, hasAttribute ? 2u : 0u);
                EXPECT_EQ(target, "target");
                EXPECT_EQ(targetOfEntry, "target");
            };
            if (faults.TryAll(readAll))
                check();
            readAll();
            check();
            EXPECT_EQ(byEntry.GetInode(), StatusOf(file.Bytes()).st_ino);
        },
        {"readlink"});
}

TEST_F(FileFaults, OpenStaysAboveStandardStreams)
{
    const YPath file(directory.Write("file", content).c_str());
    CheckWithFaults([&](Faults& faults) {
        const int input = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 3);
        close(STDIN_FILENO);
        int lowest = -1;
        if (faults.TryAll([&] {
                const auto handle = Krt::File::Open(file, Krt::File::OpenForReading);
                const auto root = YDirectory::Open(YPath(directory.Path().c_str()));
                const auto entry = root.OpenFile("file");
                lowest = std::min({handle.Get(), root.GetHandle().Get(), entry.Get()});
            })) {
            EXPECT_GT(lowest, STDERR_FILENO);
        }
        EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1) << "something stays open";
        dup2(input, STDIN_FILENO);
        close(input);
    });
}

TEST_F(FileFaults, YFileWrites)
{
    const std::string probe = directory.Write("probe", "");
    const bool hasAttributes = setxattr(probe.c_str(), "user.test", "1", 1, 0) == 0;
    CheckWithFaults([&](Faults& faults) {
        EmptyDirectory("out");
        const YPath file = Path("out/a/file");
        YFile opened, made;
        const auto write = [&] {
            opened.Open(YFile::OPEN_MODE_WRITE, file, YFile::OPT_NONE);
            EXPECT_EQ(opened.Write(content.data(), static_cast<unsigned int>(content.size())),
                      content.size());
            opened.SetTime(1, 2);
            unsigned char value = '1';
            if (hasAttributes)
                opened.AddExtendedAttribute("user.test", &value, 1);
            opened.SetUID(geteuid());
            opened.SetGID(getegid());
            opened.SetModeFlags(S_IFREG | 0640);
            opened.Close();
            made.Open(YFile::OPEN_MODE_WRITE, Path("out/b/directory"), YFile::OPT_DIRECTORY);
        };
        const auto check = [&] {
            EXPECT_EQ(ReadFile(file.CStr()), content);
            EXPECT_EQ(StatusOf(file.Bytes()).st_mtime, 2);
            EXPECT_EQ(StatusOf(file.Bytes()).st_mode, static_cast<mode_t>(S_IFREG | 0640));
            EXPECT_EQ(lgetxattr(file.CStr(), "user.test", nullptr, 0), hasAttributes ? 1 : -1);
            EXPECT_TRUE(fs::is_directory(directory / "out/b/directory"));
        };
        if (faults.TryAll(write))
            check();
        write();
        check();
    });
}

TEST_F(FileFaults, Directories)
{
    const YString contentOfText(content);
    CheckWithFaults([&](Faults& faults) {
        const YPath root = EmptyDirectory("root"), text = Path("root/a/b/text");
        std::set<std::string> names;
        YString target;
        if (!faults.TryAll([&] {
                const YDirectory opened = YDirectory::Open(root);
                opened.MakeDirectory("d", 0700);
                opened.OpenDirectoryToSearch("d").SetMode(0750);
                const YDirectory below = opened.OpenDirectory("d");
                {
                    const Krt::Util::YUnxHandle file = below.CreateFile("new");
                    Krt::File::Write(file, 0, content.size(), content.data());
                    Krt::File::YEntry(file).SetMode(0640);
                    Krt::File::YEntry(file).SetTimes({1, 0}, {2, 0});
                    Krt::File::YEntry(file).SetOwner(geteuid(), getegid());
                    Krt::File::Sync(file);
                }
                below.Rename("new", opened, "file");
                opened.MakeHardLink(opened, "file", "hard");
                opened.MakeSymbolicLink("link", "file");
                opened.MakeFifo("fifo", 0600);
                target = opened.ReadSymbolicLink("link");
                opened.RemoveDirectory("d");
                opened.VisitEntries([&](const Krt::File::DirectoryEntry& entry) {
                    return names.insert(entry.name.Bytes()).second;
                });
                opened.RemoveFile("fifo");
                Krt::File::YEntry(opened, "hard").SetTimes({3, 0}, {4, 0});
                Krt::File::CreatePath(text, false);
                Krt::File::DeleteFile(text);
                Krt::File::YFile written(text, Krt::File::YFile::CreateAndWrite);
                written.Write(contentOfText);
                written.Close();
            }))
            return;
        EXPECT_EQ(ReadFile(text.CStr()), content);
        EXPECT_EQ(names, (std::set<std::string>{"fifo", "file", "hard", "link"}));
        EXPECT_EQ(target, "file");
        EXPECT_EQ(ReadFile(root.CStr() + std::string("/file")), content);
        EXPECT_EQ(StatusOf(Path("root/file").Bytes()).st_mtime, 4);
        EXPECT_FALSE(fs::exists(directory / "root/fifo"));
    });
}

// The lines of a log without their times.
std::multiset<std::string> LinesOf(const YPath& log)
{
    std::multiset<std::string> lines;
    std::istringstream text(ReadFile(log.CStr()));
    for (std::string line; std::getline(text, line);)
        lines.insert(line.substr(line.find("INFO") == std::string::npos ? 0 : line.find("INFO") + 5));
    return lines;
}

TEST_F(FileFaults, LogLinesAreWrittenOrCounted)
{
    constexpr int Count = 5;
    const YString line(std::string(100, 'x'));
    const YPath path = Path("log");
    CheckWithFaults([&](Faults& faults) {
        fs::remove(path.CStr());
        Krt::Log::YLog log;
        int written = -1;
        faults.TryAll([&] {
            Krt::Log::YLog::Param param(path);
            param.wholeLines = true;
            log.Open(param);
            for (written = 0; written < Count; ++written)
                log.Write(MessageType::General, line);
        });
        EXPECT_TRUE(written == -1 || written == Count) << "it raises";
        if (written == Count) {
            EXPECT_EQ(LinesOf(path).count(line.Bytes()) + log.GetDroppedCount(),
                      static_cast<unsigned int>(Count));
        }
        log.Close();
        log.Open(Krt::Log::YLog::Param(path));
        log.Write(MessageType::General, "afterwards");
        EXPECT_EQ(LinesOf(path).count("afterwards"), 1u);
    });
}

TEST_F(FileFaults, LogIsReopened)
{
    Krt::Log::InstallGlobalLogger();
    Krt::Log::YLog& log = *Krt::Log::GetGlobalLogger();
    const YPath path = Path("log");
    CheckWithFaults([&](Faults& faults) {
        fs::remove(path.CStr());
        Configure("debugOutput=General,FileIo,Volume\n");
        const unsigned long long dropped = log.GetDroppedCount();
        const bool isDone = faults.TryAll([&] {
            Backup::Util::OpenOrReopenLog(path, "General");
            KRT_LOG_FREE(MessageType::General, "A message of some length, number " << 1);
        });
        if (isDone) {
            const unsigned long long lost = log.GetDroppedCount() - dropped;
            EXPECT_EQ(LinesOf(path).size() + lost, 4u);
            EXPECT_TRUE(lost != 0 || ReadFile(path.CStr()).find(", number 1\n") != std::string::npos);
        }
        Backup::Util::OpenOrReopenLog(path, "General");
        KRT_LOG_FREE(MessageType::General, "Another one, number " << 2);
        EXPECT_TRUE(ReadFile(path.CStr()).ends_with(", number 2\n")) << "the thread's stream works on";
        Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({});
        log.Close();
    });
}

TEST_F(FileFaults, ProfileIsReadCompletely)
{
    CheckWithFaults([&](Faults& faults) {
        Configure("text=" + content + "\nflag=yes\n[other]\na=b\n");
        YString text;
        bool flag = false;
        if (faults.TryAll([&] {
                text = Krt::Profile::OpenSystem()->Get<YString>("configuration", "text", YString());
                flag = Krt::Profile::OpenSystem()->Get<bool>("configuration", "flag", false);
            })) {
            EXPECT_EQ(text.Bytes(), content);
            EXPECT_TRUE(flag);
        }
    });
}

TEST_F(FileFaults, VolumesAreListed)
{
    const MountTable table("/dev/a / ext4 rw 0 0\n/dev/b /proc hfs ro 0 0\n/dev/c /none nfs rw 0 0\n");
    const std::set<std::string> all{"/", "/proc"};
    CheckWithFaults(
        [&](Faults& faults) {
            Backup::Volume::YVolumeManager manager;
            const auto list = [&] {
                std::set<std::string> paths;
                for (const auto& [path, volume] : manager.GetVolumeList(0xFFFFFFFF, false))
                    paths.insert(path.Bytes());
                return paths;
            };
            std::set<std::string> listed;
            const bool isDone = faults.TryAll([&] { listed = list(); });
            // A table that cannot be read has no entries.
            if (isDone) {
                EXPECT_TRUE(listed == all || listed.empty());
            }
            manager.RebuildVolumeList();
            EXPECT_EQ(list(), all);
        },
        {"stat"});
}

// The list of mount points is read once in a process.
TEST_F(FileFaults, DescentIsDecided)
{
    const MountTable table("/dev/a / ext4 rw 0 0\nserver:/b /proc nfs rw 0 0\nserver:/c /dev nfs rw 0 0\n");
    if (!Backup::Volume::IsMountPoint("/proc") || !Backup::Volume::IsMountPoint("/dev"))
        GTEST_SKIP() << "/proc or /dev is not mounted here";
    const auto isFollowed = [](const char* path) {
        return Backup::File::IsFollowableDirectoryFromKrtAttributes(path, Krt::File::AttributeDirectory);
    };
    CheckWithFaults(
        [&](Faults& faults) {
            Configure("IncludedMountpoints=/dev/shm,/a/mount/point/of/some/length,/proc\n");
            bool ordinary = false, listed = false, other = false;
            const bool isDone = faults.TryAll([&] {
                ordinary = isFollowed(directory.Path().c_str());
                listed = isFollowed("/proc");
                other = isFollowed("/dev");
            });
            EXPECT_FALSE(other);
            if (isDone) {
                EXPECT_TRUE(ordinary);
                EXPECT_TRUE(listed);
            }
        },
        {"stat"}, FirstUse::InEachRun);
}

} // namespace
