#include "agent/Run/FileGuard.h"

#include "agent/Run/Unix/NamesAhead.h"
#include "agent/Run/Unix/Users.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/OpenHandle.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

using Krt::Util::OsResult;

namespace {

constexpr uid_t Root = 0;
constexpr int MostLinks = 40; // as many as the kernel follows

std::string ReadLink(const std::string& path)
{
    std::error_code error;
    std::string target = std::filesystem::read_symlink(path, error).string();
    if (error)
        KRT_RAISE_OS(error.value(), "Failed to read link: " << path.c_str());
    return target;
}

std::string Octal(mode_t mode)
{
    char text[16];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned int>(mode & 07777));
    return text;
}

// The way to a file, gone component by component and through the links as the kernel would. It stays the way
// afterwards: nobody else can change what was passed.
class Way
{
public:
    Way(const std::string& what, const std::string& path, bool makesFile)
        : m_what(what), m_path(path), m_makesFile(makesFile), m_user(geteuid()),
          m_guards(m_user == Root && AreThereOtherUsers())
    {}
    void Check();

private:
    void Enter(const std::string& place);
    bool Pass(const std::string& path);
    bool Follow(const std::string& path, const struct stat& link);
    OsResult<struct stat> LookForMissing(const std::string& path) const;
    OsResult<struct stat> Look(const std::string& path) const;
    void CheckOwner(const std::string& path, const struct stat& status) const;
    void Refuse(bool isRefused, const std::string& reason) const;

    const std::string m_what;
    const std::string m_path;
    const bool m_makesFile;
    const uid_t m_user;
    const bool m_guards;
    NamesAhead m_ahead;
    std::string m_place;     // no link in it, and nothing for "/"
    bool m_isShared = false; // others can write there
    int m_links = 0;
};

void Way::Check()
{
    Enter("");
    if (const auto root = Look("/"))
        CheckOwner("/", root.value);
    m_ahead.Push(std::filesystem::absolute(m_path).string());
    while (!m_ahead.IsEmpty()) {
        const std::string name = m_ahead.Take();
        if (name == "..")
            Enter(m_place.substr(0, m_place.empty() ? 0 : m_place.rfind('/')));
        else if (!Pass(m_place + "/" + name))
            return;
    }
}

// Where it guards, raises any error but that of what isn't there.
OsResult<struct stat> Way::Look(const std::string& path) const
{
    OsResult<struct stat> status;
    status.error = Krt::Util::CallSystem([&] { return lstat(path.c_str(), &status.value); }).error;
    if (m_guards && !status && status.error != ENOENT && status.error != ENOTDIR)
        KRT_RAISE_OS(status.error, "Failed to stat " << path.c_str());
    return status;
}

void Way::Enter(const std::string& place)
{
    m_place = place;
    const auto status = Look(place.empty() ? "/" : place);
    m_isShared = status && CanOthersWrite(place.empty() ? "/" : place, status.value);
}

// False at the end of what can be looked at.
bool Way::Pass(const std::string& path)
{
    auto looked = Look(path);
    if (looked.error == ENOENT)
        looked = LookForMissing(path);
    if (!looked)
        return false;
    const struct stat& status = looked.value;
    // Whoever made the further name may have brought it here.
    Refuse(m_guards && !S_ISDIR(status.st_mode) && status.st_nlink > 1 && m_isShared,
           path + " has further names, and others can write to its directory");
    if (S_ISLNK(status.st_mode))
        return Follow(path, status);
    CheckOwner(path, status);
    m_place = path;
    m_isShared = CanOthersWrite(path, status);
    return true;
}

bool Way::Follow(const std::string& path, const struct stat& link)
{
    Refuse(link.st_uid != Root && link.st_uid != m_user,
           path + " is a link that belongs to the user " + std::to_string(link.st_uid));
    const std::string target = ReadLink(path);
    if (target.starts_with('/'))
        Enter("");
    m_ahead.Push(target);
    return ++m_links <= MostLinks;
}

// ENOENT if it is to stay missing.
OsResult<struct stat> Way::LookForMissing(const std::string& path) const
{
    if (!m_guards || !m_isShared)
        return {{}, ENOENT};
    const bool isMade = m_makesFile && m_ahead.IsEmpty() &&
                        Krt::Util::OpenHandle(path.c_str(), O_WRONLY | O_CREAT | O_EXCL, 0640);
    const auto made = Look(path);
    Refuse(!isMade && !made, path + " doesn't exist, and others can write to its directory");
    return made;
}

void Way::CheckOwner(const std::string& path, const struct stat& status) const
{
    if (!m_guards)
        return;
    Refuse(status.st_uid != Root, path + " belongs to the user " + std::to_string(status.st_uid));
    const bool isShared = S_ISDIR(status.st_mode) && (status.st_mode & S_ISVTX) != 0;
    // What anybody writes to a device such as /dev/null isn't kept there.
    Refuse(CanOthersWrite(path, status) && !isShared && !S_ISCHR(status.st_mode),
           path + " can be written to by others (mode " + Octal(status.st_mode) + ")");
}

void Way::Refuse(bool isRefused, const std::string& reason) const
{
    if (isRefused)
        KRT_RAISE_AS("RequireOwnFile", Krt::MessageType::General, Krt::ErrorCode::InvalidState,
                     m_what.c_str() << " " << m_path.c_str() << " is refused: " << reason.c_str());
}

} // namespace

bool CanOthersWrite(const std::string& path, const struct stat& status)
{
    return (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && status.st_gid != Root) ||
           MayListLetWrite(path, status);
}

void RequireOwnFile(const std::string& what, const std::string& path)
{
    Way(what, path, false).Check();
}

void RequireOwnLog(const std::string& path)
{
    Way("The log", path, true).Check();
}

} // namespace Agent
