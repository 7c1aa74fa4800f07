#include "agent/Run/Unix/SecurePathWalk.h"

#include "agent/Run/Unix/Users.h"

#include "Krt/Exception/Raise.h"

#include <filesystem>
#include <unistd.h>

// State: the open directories from "/" to the current one, and the remaining components. A directory is
// pushed, ".." pops it, and a symlink replaces its own component by those of its target.
//
// Invariants:
// - A directory is opened relative to its parent's descriptor without following a symlink, and the check is
//   made on its descriptor. So the directory that was checked is the one that is searched, even if entries
//   are renamed meanwhile.
// - All open directories passed CheckDirectory.
// - A symlink is followed only if it belongs to root or to the user.
// - A guarding walk follows a symlink only if no other user can replace it between its check and its reading,
//   or later: its directory belongs to root, and other users cannot write to the directory. They may if it
//   has the sticky bit and the symlink has no further hard link, which its own user could have moved there.
//
// An ordinary user's walk does not guard. The owner of a directory on the path can replace a symlink there
// between its check and its reading.
//
// The walk ends: each step removes one component, and only a symlink adds some.

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;

namespace {

constexpr uid_t Root = 0;
constexpr int MostLinks = 40; // as many as the kernel follows

// `name` is "." for the directory itself.
bool MayOthersWrite(const YDirectory& directory, const YString& name, const struct stat& status)
{
    return (status.st_mode & S_IWOTH) != 0 || ((status.st_mode & S_IWGRP) != 0 && status.st_gid != Root) ||
           MayListLetWrite(directory, name, status);
}

} // namespace

SecurePathWalk::SecurePathWalk(const char* function, std::string what, std::string path)
    : m_function(function), m_what(std::move(what)), m_path(std::move(path)), m_user(geteuid()),
      m_isGuarding(m_user == Root && AreThereOtherUsers())
{}

void SecurePathWalk::Walk()
{
    m_position = "/";
    Enter(YDirectory::OpenToSearch("/"), "", "/");
    PushNames(std::filesystem::absolute(m_path).string());
    while (!m_ahead.empty()) {
        const YString name = std::move(m_ahead.back());
        m_ahead.pop_back();
        if (name != "..") {
            if (!Pass(name))
                return;
        } else if (m_directories.size() > 1) {
            m_directories.pop_back();
        }
    }
}

void SecurePathWalk::Enter(YDirectory directory, const YString& name, const std::string& path)
{
    const struct stat status = directory.Stat();
    const bool isShared = m_isGuarding && MayOthersWrite(directory, ".", status);
    Directory entered{std::move(directory), name, path, status, isShared};
    CheckDirectory(entered);
    m_directories.push_back(std::move(entered));
}

// Returns false if the walk ends here.
bool SecurePathWalk::Pass(const YString& name)
{
    const Directory& parent = GetCurrent();
    m_position = (parent.path == "/" ? "" : parent.path) + "/" + name.Bytes();
    Entry entry{name, m_position, {}, m_ahead.empty()};
    if (!parent.directory.StatIfPresent(name, entry.status)) {
        if (!CreateMissing(entry))
            return false;
        entry.status = parent.directory.Stat(name);
    }
    if (S_ISLNK(entry.status.st_mode)) {
        Follow(entry);
    } else if (S_ISDIR(entry.status.st_mode)) {
        Enter(parent.directory.OpenDirectoryToSearch(name), name, entry.path);
    } else {
        CheckOther(entry);
        return false;
    }
    return true;
}

void SecurePathWalk::Follow(const Entry& link)
{
    const Directory& parent = GetCurrent();
    Refuse(link.status.st_uid != Root && link.status.st_uid != m_user,
           link.path + " is a link that belongs to the user " + std::to_string(link.status.st_uid));
    Refuse(m_isGuarding && (parent.status.st_uid != Root || (parent.isShared && !parent.IsSticky())),
           link.path + " is a link, and others can write to its directory");
    Refuse(parent.isShared && link.status.st_nlink > 1,
           link.path + " has further names, and others can write to its directory");
    Refuse(++m_links > MostLinks, link.path + " leads through too many links");
    const std::string target = parent.directory.ReadSymbolicLink(link.name).Bytes();
    if (target.starts_with('/'))
        m_directories.erase(m_directories.begin() + 1, m_directories.end());
    PushNames(target);
}

// Inserts the names before the remaining components, without empty ones and ".".
void SecurePathWalk::PushNames(const std::string& path)
{
    for (std::size_t end = path.size(); end != 0;) {
        const std::size_t slash = path.rfind('/', end - 1);
        const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
        const std::string_view name = std::string_view(path).substr(begin, end - begin);
        if (!name.empty() && name != ".")
            m_ahead.emplace_back(name);
        end = slash == std::string::npos ? 0 : slash;
    }
}

bool SecurePathWalk::CanOthersWrite(const Entry& entry) const
{
    return MayOthersWrite(GetCurrent().directory, entry.name, entry.status);
}

void SecurePathWalk::Refuse(bool isRefused, const std::string& reason) const
{
    if (isRefused)
        KRT_RAISE_AS(m_function, Krt::MessageType::General, Krt::ErrorCode::InvalidState,
                     m_what.c_str() << " " << m_path.c_str() << " is refused: " << reason.c_str());
}

} // namespace Agent
