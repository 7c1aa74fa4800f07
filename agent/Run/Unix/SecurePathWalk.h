// SecurePathWalk: walks a path component by component, as the kernel does, so that no other user decides
// where it leads. A class derived from it adds the checks of what the path is used for.
#pragma once

#include "Krt/File/YDirectory.h"

#include <string>
#include <sys/stat.h>
#include <vector>

namespace Agent {

class SecurePathWalk
{
public:
    virtual ~SecurePathWalk() = default;
    SecurePathWalk(const SecurePathWalk&) = delete;
    SecurePathWalk& operator=(const SecurePathWalk&) = delete;

protected:
    /// An open directory on the path.
    struct Directory
    {
        Krt::File::YDirectory directory; ///< open to search
        Krt::YString name;               ///< in its parent directory; empty for "/"
        std::string path;                ///< from "/", without symlinks
        struct stat status;              ///< of the open directory
        bool isShared;                   ///< the walk guards, and users other than root can write to it

        bool IsSticky() const { return (status.st_mode & S_ISVTX) != 0; }
    };

    /// An entry of the current directory.
    struct Entry
    {
        const Krt::YString& name;
        std::string path; ///< from "/"; only its last component may be a symlink
        struct stat status;
        bool isLast; ///< no component follows it
    };

    /// `what` and `path` begin the message of a refusal, which reports `function`.
    SecurePathWalk(const char* function, std::string what, std::string path);

    /// Walks the path. Raises InvalidState for a refusal, and otherwise the operating system's error. Returns
    /// early at a missing component that stays missing, and at an entry that is not a directory.
    void Walk();

    /// Called before a directory becomes the current one. Refuses it if the path must not lead through it.
    virtual void CheckDirectory(const Directory& entered) const = 0;
    /// Called for an entry that is neither a directory nor a symlink. The walk ends there.
    virtual void CheckOther(const Entry& entry) const = 0;
    /// Called for a missing component, whose status is not set. Returns true if it exists afterwards, or
    /// false to end the walk.
    virtual bool CreateMissing(const Entry& entry) = 0;

    /// True if the user is root and other users can act on the machine. Otherwise only symlinks are refused.
    bool IsGuarding() const { return m_isGuarding; }
    /// From "/" to the current directory; empty only before "/" is entered.
    const std::vector<Directory>& GetDirectories() const { return m_directories; }
    const Directory& GetCurrent() const { return m_directories.back(); }
    const std::string& GetPath() const { return m_path; }
    /// The path of the component that was examined last.
    const std::string& GetPosition() const { return m_position; }
    /// True if users other than root can write to the entry of the current directory, by its mode or by an
    /// access list. Root's group does not count.
    bool CanOthersWrite(const Entry& entry) const;
    /// Raises InvalidState with the reason if `isRefused`.
    void Refuse(bool isRefused, const std::string& reason) const;

private:
    void Enter(Krt::File::YDirectory directory, const Krt::YString& name, const std::string& path);
    bool Pass(const Krt::YString& name);
    void Follow(const Entry& link);
    void PushNames(const std::string& path);

    const char* const m_function;
    const std::string m_what;
    const std::string m_path;
    const uid_t m_user;
    const bool m_isGuarding;
    std::vector<Directory> m_directories;
    std::vector<Krt::YString> m_ahead; // remaining components; the next one is the last element
    std::string m_position;
    int m_links = 0; // symlinks that were followed
};

} // namespace Agent
