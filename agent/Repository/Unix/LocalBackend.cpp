#include "agent/Repository/LocalBackend.h"

#include "agent/Repository/Failure.h"
#include "agent/Repository/Look.h"
#include "agent/Repository/Sealing.h"

#include "Krt/File/File.h"
#include "Krt/File/YDirectory.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Util/YUnxHandle.h"

#include <algorithm>
#include <array>
#include <bit>
#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <vector>

namespace Agent::Repo {

using Krt::YString;
using Krt::File::YDirectory;

namespace {

constexpr const char* TopDirectories[] = {"data", "index", "keys", "locks", "snapshots"};
constexpr int PackDirectories = 256;

struct Modes
{
    unsigned int directory = 0700;
    unsigned int file = 0400;
};

// The prefix of the failures of a file, for Named.
auto At(const FileName& file)
{
    return [&file] {
        return file.Prefix();
    };
}
auto At(const YString& path)
{
    return [&path] {
        return YString(std::string_view(path.Bytes() + ": "));
    };
}

// Memory is taken for whole files, so a size is checked before.
std::uint64_t RegularSize(const Krt::Util::YUnxHandle& handle)
{
    const struct stat status = Krt::File::Stat(handle);
    if (!S_ISREG(status.st_mode))
        REPOSITORY_RAISE(Failure::Damaged, "not a regular file");
    return static_cast<std::uint64_t>(status.st_size);
}

void ReadAll(const Krt::Util::YUnxHandle& handle, std::uint64_t offset, std::uint64_t length, Bytes& out)
{
    ResizeToReplace(out, length);
    for (std::uint64_t done = 0; done < length;) {
        Look();
        const std::uint64_t step = std::min<std::uint64_t>(length - done, LookStep);
        if (Krt::File::Read(handle, offset + done, step, out.data() + done) != step)
            REPOSITORY_RAISE(Failure::Damaged, "damaged: the file became shorter");
        done += step;
    }
}

// The directory of this name; nothing if it does not exist.
std::optional<YDirectory> OpenIfPresent(const YDirectory& parent, const YString& name)
{
    struct stat status;
    if (!parent.StatIfPresent(name, status))
        return std::nullopt;
    return parent.OpenDirectory(name);
}

// For reading, a directory may be a symlink, as if it was moved to another file system.
std::optional<YDirectory> OpenForReading(const std::string& path)
{
    try {
        return YDirectory::OpenFollowing(path.c_str());
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() != ENOENT || Krt::File::DoesFileExist(path.c_str()))
            throw;
        return std::nullopt;
    }
}

// Calls; a failure with one of these error numbers counts as a success.
template <class Call>
void Tolerating(std::initializer_list<int> errors, const Call& call)
{
    try {
        call();
    } catch (const Krt::Exception::YError& error) {
        if (std::find(errors.begin(), errors.end(), error.GetOsError()) == errors.end())
            throw;
    }
}

// Some file systems have no modes, such as FAT and some of networks.
template <class Call>
void SettingMode(const Call& call)
{
    Tolerating({EPERM, ENOTSUP, ENOSYS}, call);
}

// The modes of what is created in a repository.
Modes ModesOf(const YDirectory& root)
{
    struct stat config;
    const bool isForGroup = root.StatIfPresent("config", config) && (config.st_mode & S_IRGRP) != 0;
    return isForGroup ? Modes{0770, 0440} : Modes();
}

[[noreturn]] void RaiseLostSnapshots()
{
    REPOSITORY_RAISE(Failure::Missing,
                     "the directory 'snapshots' does not exist; put it back, or if it is lost, "
                     "'kbagent recover' makes a snapshot of what the packs have");
}

// Returns true if the directory did not exist. It is durable when the parent is synced.
bool MakeIfMissing(const YDirectory& parent, const YString& name, const Modes& modes)
{
    struct stat status;
    if (parent.StatIfPresent(name, status))
        return false;
    try {
        parent.MakeDirectory(name, modes.directory);
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() != EEXIST)
            throw;
        return false; // another process was faster
    }
    SettingMode([&] { parent.OpenDirectory(name).SetMode(modes.directory); }); // whatever the umask is
    return true;
}

// The path of a file of the repository, split into names.
struct SplitPath
{
    explicit SplitPath(const FileName& file)
    {
        const std::string path = file.Path();
        std::size_t begin = 0;
        for (std::size_t slash = path.find('/'); slash != path.npos; slash = path.find('/', begin)) {
            directories.emplace_back(std::string_view(path).substr(begin, slash - begin));
            begin = slash + 1;
        }
        name = YString(std::string_view(path).substr(begin));
    }

    std::vector<YString> directories;
    YString name;
};

YString TemporaryName(const YString& name)
{
    std::array<unsigned char, sizeof(std::uint32_t)> random;
    FillRandom(random);
    return YString(
        std::string_view(name.Bytes() + "-tmp-" + std::to_string(std::bit_cast<std::uint32_t>(random))));
}

// A failure names the directory, since the temporary name means nothing to users.
Krt::Util::YUnxHandle CreateTemporary(const YDirectory& directory, const YString& name, const YString& path)
{
    try {
        return directory.CreateFile(name);
    } catch (const Krt::Exception::YError& error) {
        if (error.GetType() != Krt::ExceptionType::OsError)
            throw;
        KRT_RAISE_OS(error.GetOsError(), "Failed to create a file in " << path);
    }
}

// The caller is handling a failure, which must not be replaced by another one.
void RemoveAfterFailure(const YDirectory& directory, const YString& name)
{
    try {
        directory.RemoveFile(name);
    } catch (const Krt::Exception::YError& error) {
        KRT_LOG_FREE(Krt::MessageType::General, "Failed to remove a file of the repository: " << error);
    }
}

// Renames, unless there is an entry of the new name: then it returns false.
bool RenameToNew(const YDirectory& directory, const YString& from, const YString& to)
{
    bool hasLinks = true;
    try {
        directory.MakeHardLink(directory, from, to);
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() == EEXIST)
            return false;
        hasLinks = false;
        Tolerating({EPERM, ENOTSUP, ENOSYS, EMLINK}, [] { throw; });
    }
    // Without hard links, of two processes at the same time the second one would win.
    struct stat status;
    if (!hasLinks && directory.StatIfPresent(to, status))
        return false;
    if (hasLinks)
        RemoveAfterFailure(directory, from);
    else
        directory.Rename(from, directory, to);
    return true;
}

struct ListedFile
{
    Id id;
    std::uint64_t size;
};

// The files of a directory whose ids begin with the byte, or with any. What is not a regular file has no size
// here, and fails when it is read.
std::vector<ListedFile> ListFiles(const YDirectory& directory, std::optional<unsigned char> firstByte)
{
    std::vector<ListedFile> files;
    directory.VisitEntries([&](const Krt::File::DirectoryEntry& entry) {
        Look();
        const std::optional<Id> id = Id::FromHex(entry.name.Bytes());
        struct stat status;
        if (id && id->ToHex() == entry.name.Bytes() && (!firstByte || id->bytes[0] == *firstByte) &&
            directory.StatIfPresent(entry.name, status))
            files.push_back({*id, S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0});
        return true;
    });
    return files;
}

YString HexByte(int byte)
{
    char text[3];
    std::snprintf(text, sizeof(text), "%02x", static_cast<unsigned int>(byte) & 0xFFu);
    return text;
}

} // namespace

LocalBackend::LocalBackend(const YString& path, SyncCall sync)
    : m_path(YString(std::string_view(std::filesystem::absolute(path.Bytes()).native()))),
      m_sync(std::move(sync))
{}

YString LocalBackend::Describe() const
{
    return m_path;
}

YString LocalBackend::PathOf(const FileName& file) const
{
    return YString(std::string_view(m_path.Bytes() + "/" + file.Path()));
}

void LocalBackend::Prepare()
{
    Named(At(m_path), [this] {
        const Krt::File::YPath path = m_path.CStr();
        if (!Krt::File::DoesFileExist(path)) {
            Krt::File::CreatePath(path, false);
            Tolerating({EEXIST}, [&] {
                KRT_SYSCALL(mkdir(m_path.CStr(), Modes().directory), "Failed to create directory");
            });
        }
        const YDirectory root = YDirectory::OpenFollowing(path);
        const Modes modes = ModesOf(root);
        for (const char* const name : TopDirectories)
            MakeIfMissing(root, name, modes);
        const YDirectory packs = root.OpenDirectory("data");
        for (int byte = 0; byte < PackDirectories; ++byte)
            MakeIfMissing(packs, HexByte(byte), modes);
        SyncDirectory(packs);
        SyncDirectory(root);
    });
}

// Some file systems, such as those of networks, can't make a directory durable.
void LocalBackend::SyncDirectory(const YDirectory& directory) const
{
    Tolerating({EINVAL, ENOTSUP}, [&] { m_sync(directory.GetHandle()); });
}

Krt::Util::YUnxHandle LocalBackend::OpenFile(const FileName& file) const
{
    auto opened = Krt::Util::OpenHandle(PathOf(file).CStr(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY);
    REPOSITORY_RAISE_UNLESS(opened.error != ENOENT && opened.error != ENOTDIR, Failure::Missing,
                            "the file does not exist");
    return KRT_OS_VALUE(std::move(opened), "Failed to open the file");
}

void LocalBackend::Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Bytes& out)
{
    Named(At(file), [&] {
        const Krt::Util::YUnxHandle handle = OpenFile(file);
        const std::uint64_t size = RegularSize(handle);
        REPOSITORY_RAISE_UNLESS(length <= size && offset <= size - length, Failure::Damaged,
                                "damaged: the file has " << size << " bytes, but " << length
                                                         << " bytes at offset " << offset << " are needed");
        ReadAll(handle, offset, length, out);
    });
}

void LocalBackend::LoadWhole(const FileName& file, std::uint64_t limit, Bytes& out)
{
    Named(At(file), [&] {
        const Krt::Util::YUnxHandle handle = OpenFile(file);
        const std::uint64_t size = RegularSize(handle);
        REPOSITORY_RAISE_UNLESS(size <= limit, Failure::Damaged,
                                "damaged: " << size << " bytes are more than the limit of " << limit);
        ReadAll(handle, 0, size, out);
    });
}

std::uint64_t LocalBackend::Size(const FileName& file)
{
    return Named(At(file), [&] { return RegularSize(OpenFile(file)); });
}

void LocalBackend::List(FileKind kind, const std::function<void(const Id& id, std::uint64_t size)>& visit)
{
    const bool isPack = kind == FileKind::Pack;
    const std::string top = m_path.Bytes() + "/" + SplitPath({kind, {}}).directories.front().Bytes();
    for (int byte = 0; byte < (isPack ? PackDirectories : 1); ++byte) {
        Look();
        const std::vector<ListedFile> files = Named(At(m_path), [&] {
            const auto first = isPack ? std::optional(static_cast<unsigned char>(byte)) : std::nullopt;
            const std::optional<YDirectory> directory =
                OpenForReading(isPack ? top + "/" + HexByte(byte).Bytes() : top);
            if (!directory && kind == FileKind::Snapshot)
                RaiseLostSnapshots();
            return directory ? ListFiles(*directory, first) : std::vector<ListedFile>();
        });
        for (const ListedFile& file : files)
            visit(file.id, file.size);
    }
}

void LocalBackend::RequirePlace(FileKind kind)
{
    Named(At(m_path), [&] {
        if (kind == FileKind::Snapshot && !OpenForReading(m_path.Bytes() + "/snapshots"))
            RaiseLostSnapshots();
    });
}

void LocalBackend::RequireComplete(FileKind kind)
{
    RequirePlace(kind);
    Named(At(m_path), [&] {
        const std::string name = SplitPath({kind, {}}).directories.front().Bytes();
        const std::optional<YDirectory> directory = OpenForReading(m_path.Bytes() + "/" + name);
        if (!directory)
            return;
        directory->VisitEntries([&](const Krt::File::DirectoryEntry& entry) {
            Look();
            const std::optional<Id> id = Id::FromHex(entry.name.Bytes());
            REPOSITORY_RAISE_UNLESS(!id || id->ToHex() == entry.name.Bytes(), Failure::Damaged,
                                    "the file '" << name.c_str() << "/" << entry.name
                                                 << "' is ignored until its name is in lower case");
            return true;
        });
    });
}

void LocalBackend::Save(const FileName& file, ByteView content)
{
    Write(file, content, true);
}

bool LocalBackend::SaveNew(const FileName& file, ByteView content)
{
    return Write(file, content, false);
}

// Returns false if the file exists, and is not to be replaced.
bool LocalBackend::Write(const FileName& file, ByteView content, bool replaces)
{
    return Named(At(file), [&] {
        const SplitPath path(file);
        YDirectory directory = YDirectory::OpenFollowing(m_path.CStr());
        const Modes modes = ModesOf(directory);
        for (const YString& name : path.directories) {
            struct stat status;
            if (file.kind == FileKind::Snapshot) {
                if (!directory.StatIfPresent(name, status))
                    RaiseLostSnapshots();
            } else if (MakeIfMissing(directory, name, modes))
                SyncDirectory(directory);
            directory = directory.OpenDirectory(name);
        }
        const YString temporary = TemporaryName(path.name);
        const std::string place = PathOf(file).Bytes();
        Krt::Util::YUnxHandle handle =
            CreateTemporary(directory, temporary, YString(place.substr(0, place.rfind('/'))));
        try {
            if (!content.empty())
                Krt::File::Write(handle, 0, content.size(), content.data());
            SettingMode(
                [&] { KRT_SYSCALL(fchmod(handle.Get(), modes.file), "Failed to set the mode of the file"); });
            m_sync(handle);
            Krt::Util::CloseWritten(handle);
            if (replaces) {
                directory.Rename(temporary, directory, path.name);
            } else if (!RenameToNew(directory, temporary, path.name)) {
                RemoveAfterFailure(directory, temporary);
                return false;
            }
        } catch (...) {
            handle.Close();
            RemoveAfterFailure(directory, temporary);
            throw;
        }
        try {
            SyncDirectory(directory);
        } catch (...) {
            // The caller never knows this id. A configuration may have replaced another.
            if (file.kind != FileKind::Config || !replaces)
                RemoveAfterFailure(directory, path.name);
            throw;
        }
        return true;
    });
}

void LocalBackend::Remove(const FileName& file)
{
    Named(At(file), [&] {
        const SplitPath path(file);
        YDirectory directory = YDirectory::OpenFollowing(m_path.CStr());
        for (const YString& name : path.directories) {
            std::optional<YDirectory> next = OpenIfPresent(directory, name);
            if (!next)
                return;
            directory = std::move(*next);
        }
        directory.RemoveFile(path.name);
        // An index file is gone before the packs that it names, a key before its password counts as removed.
        if (file.kind != FileKind::Pack && file.kind != FileKind::Lock)
            SyncDirectory(directory);
    });
}

} // namespace Agent::Repo
