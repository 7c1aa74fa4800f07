#include "agent/Remote/CacheDirectory.h"

#include "agent/Repository/Sealing.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Util/YUnxHandle.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <ctime>
#include <optional>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent::Remote {

using Krt::YString;
using Krt::File::YDirectory;
using Repo::Bytes;
using Repo::ByteView;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;

namespace {

constexpr const char* Names[] = {"index", "snapshots", "trees"};
constexpr const char* TagName = "CACHEDIR.TAG";
constexpr std::string_view Tag = "Signature: 8a477f597d28d172789f06886806bc55\n"
                                 "# Copies of repositories' files, made by kbagent. They may be removed.\n";
constexpr unsigned int PrivateMode = 0700;
constexpr mode_t OthersWrite = S_IWGRP | S_IWOTH;
constexpr mode_t OthersAccess = S_IRWXG | S_IRWXO;

YString NameOf(const Id& id)
{
    return YString(std::string_view(id.ToHex()));
}

std::optional<Id> IdOf(const YString& name)
{
    const std::optional<Id> id = Id::FromHex(name.Bytes());
    return id && id->ToHex() == name.Bytes() ? id : std::nullopt;
}

// Calls; a failure is logged, and the result is `failure`.
template <class Result, class Call>
Result Logging(Result failure, const Call& call)
{
    try {
        return call();
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() != ENOENT)
            KRT_LOG_FREE(Krt::MessageType::General, "The cache can't be used: " << error);
        return failure;
    }
}

void RequireOwn(const YDirectory& directory, const std::string& path)
{
    const struct stat status = directory.Stat();
    KRT_RAISE_UNLESS(status.st_uid == geteuid(), Krt::ErrorCode::InvalidState,
                     "The cache directory belongs to another user: " << path.c_str());
    KRT_RAISE_UNLESS((status.st_mode & OthersWrite) == 0, Krt::ErrorCode::InvalidState,
                     "Other users can write to the cache directory: " << path.c_str());
}

YDirectory OpenRoot(const std::string& path)
{
    const Krt::File::YPath name = path.c_str();
    if (!Krt::File::DoesFileExist(name)) {
        Krt::File::CreatePath(name, false);
        if (mkdir(path.c_str(), PrivateMode) != 0 && errno != EEXIST)
            KRT_RAISE_OS(errno, "Failed to create the cache directory " << path.c_str());
    }
    YDirectory root = YDirectory::Open(name);
    RequireOwn(root, path);
    return root;
}

YDirectory OpenOrMake(const YDirectory& parent, const YString& name)
{
    try {
        parent.MakeDirectory(name, PrivateMode);
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() != EEXIST)
            throw;
    }
    YDirectory directory = parent.OpenDirectory(name);
    RequireOwn(directory, name.Bytes());
    if ((directory.Stat().st_mode & OthersAccess) != 0)
        Logging(false, [&] {
            directory.SetMode(PrivateMode);
            return true;
        });
    return directory;
}

// A regular file; nothing if there is none.
std::optional<Krt::Util::YUnxHandle> OpenCopy(const YDirectory& folder, const Id& id, std::uint64_t& size)
{
    struct stat status;
    const YString name = NameOf(id);
    if (!folder.StatIfPresent(name, status) || !S_ISREG(status.st_mode))
        return std::nullopt;
    Krt::Util::YUnxHandle handle = folder.OpenFile(name);
    status = Krt::File::Stat(handle);
    if (!S_ISREG(status.st_mode))
        return std::nullopt;
    size = static_cast<std::uint64_t>(status.st_size);
    return handle;
}

bool Read(const Krt::Util::YUnxHandle& handle, std::uint64_t offset, std::uint64_t length, Bytes& out)
{
    out.resize(length);
    return length == 0 || Krt::File::Read(handle, offset, length, out.data()) == length;
}

std::vector<YString> NamesIn(const YDirectory& directory)
{
    std::vector<YString> names;
    directory.VisitEntries([&names](const Krt::File::DirectoryEntry& entry) {
        names.push_back(entry.name);
        return true;
    });
    return names;
}

bool IsOld(const struct stat& status)
{
    const std::time_t age = std::time(nullptr) - status.st_mtime;
    return age > std::chrono::seconds(CacheDirectory::Lifetime).count();
}

// Removes the copies of a repository. A directory of other things is not removed.
void RemoveCopies(const YDirectory& root, const YString& name)
{
    const YDirectory repository = root.OpenDirectory(name);
    for (const char* const each : Names) {
        struct stat status;
        if (!repository.StatIfPresent(each, status))
            continue;
        const YDirectory folder = repository.OpenDirectory(each);
        for (const YString& file : NamesIn(folder))
            folder.RemoveFile(file);
        repository.RemoveDirectory(each);
    }
    root.RemoveDirectory(name);
}

// Removes files that a process began to write and never finished.
void RemoveLeftovers(const YDirectory& repository, const YString& name)
{
    const YDirectory folder = repository.OpenDirectory(name);
    for (const YString& file : NamesIn(folder)) {
        struct stat status;
        if (!IdOf(file) && folder.StatIfPresent(file, status) && IsOld(status))
            folder.RemoveFile(file);
    }
}

void RemoveOld(const YDirectory& root)
{
    for (const YString& name : NamesIn(root)) {
        Logging(false, [&] {
            struct stat status;
            if (IdOf(name) && root.StatIfPresent(name, status) && S_ISDIR(status.st_mode) && IsOld(status))
                RemoveCopies(root, name);
            return true;
        });
    }
}

// Writes a file under a temporary name in `folder`, then moves it to `place`, where it replaces another one.
void Place(const YDirectory& folder, const YDirectory& place, const YString& name, ByteView content)
{
    std::array<unsigned char, sizeof(std::uint64_t)> random;
    Repo::FillRandom(random);
    const YString temporary(
        std::string_view(name.Bytes() + "-tmp-" + std::to_string(std::bit_cast<std::uint64_t>(random))));
    Krt::Util::YUnxHandle handle = folder.CreateFile(temporary);
    try {
        if (!content.empty())
            Krt::File::Write(handle, 0, content.size(), content.data());
        handle.Close();
        folder.Rename(temporary, place, name);
    } catch (const Krt::Exception::YError&) {
        folder.RemoveFile(temporary);
        throw;
    }
}

// A temporary file of the tag that remains in `folder` is removed with those of other files.
void WriteTag(const YDirectory& root, const YDirectory& folder)
{
    struct stat status;
    if (!root.StatIfPresent(TagName, status) || status.st_size == 0)
        Place(folder, root, TagName, Repo::AsBytes(Tag));
}

} // namespace

CacheDirectory::CacheDirectory(const std::string& path, const Id& repository)
    : m_root(OpenRoot(path)),
      m_repository(OpenOrMake(m_root, NameOf(repository))), m_folders{OpenOrMake(m_repository, Names[0]),
                                                                      OpenOrMake(m_repository, Names[1]),
                                                                      OpenOrMake(m_repository, Names[2])}
{
    Logging(false, [this] {
        WriteTag(m_root, m_folders[0]);
        return true;
    });
    Logging(false, [this] {
        KRT_SYSCALL(futimens(m_repository.GetHandle().Get(), nullptr), "Failed to set the time of the cache");
        RemoveOld(m_root);
        for (const char* const name : Names)
            RemoveLeftovers(m_repository, name);
        return true;
    });
}

bool CacheDirectory::IsKept(const FileName& file)
{
    return file.kind == FileKind::Index || file.kind == FileKind::Snapshot ||
           (file.kind == FileKind::Pack && file.hasTrees);
}

const YDirectory& CacheDirectory::FolderOf(FileKind kind) const
{
    return m_folders[kind == FileKind::Index ? 0 : kind == FileKind::Snapshot ? 1 : 2];
}

bool CacheDirectory::Load(const FileName& file, std::uint64_t limit, Bytes& out) const
{
    return Logging(false, [&] {
        std::uint64_t size = 0;
        const auto handle = OpenCopy(FolderOf(file.kind), file.id, size);
        return handle && size <= limit && Read(*handle, 0, size, out);
    });
}

bool CacheDirectory::LoadPart(const FileName& file, std::uint64_t offset, std::uint64_t length,
                              Bytes& out) const
{
    return Logging(false, [&] {
        std::uint64_t size = 0;
        const auto handle = OpenCopy(FolderOf(file.kind), file.id, size);
        return handle && offset <= size && length <= size - offset && Read(*handle, offset, length, out);
    });
}

bool CacheDirectory::Save(const FileName& file, ByteView content) const
{
    return Logging(false, [&] {
        const YDirectory& folder = FolderOf(file.kind);
        Place(folder, folder, NameOf(file.id), content);
        return true;
    });
}

void CacheDirectory::Remove(const FileName& file) const
{
    Logging(false, [&] {
        FolderOf(file.kind).RemoveFile(NameOf(file.id));
        return true;
    });
}

// A directory must not be listed by two threads at once, so it is opened for each listing.
std::vector<Id> CacheDirectory::List(FileKind kind) const
{
    return Logging(std::vector<Id>(), [&] {
        const std::size_t number = static_cast<std::size_t>(&FolderOf(kind) - m_folders.data());
        std::vector<Id> ids;
        for (const YString& name : NamesIn(m_repository.OpenDirectory(Names[number]))) {
            if (const std::optional<Id> id = IdOf(name))
                ids.push_back(*id);
        }
        std::sort(ids.begin(), ids.end());
        return ids;
    });
}

} // namespace Agent::Remote
