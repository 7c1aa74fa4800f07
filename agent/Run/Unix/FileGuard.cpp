#include "agent/Run/FileGuard.h"

#include "agent/Run/Unix/SecurePathWalk.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YUnxHandle.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>

namespace Agent {

namespace {

constexpr uid_t Root = 0;

std::string Octal(mode_t mode)
{
    char text[16];
    std::snprintf(text, sizeof text, "%04o", static_cast<unsigned int>(mode & 07777));
    return text;
}

// No other user can change an entry that passed, so the path still leads to it when the file is opened.
class FileGuard : public SecurePathWalk
{
public:
    FileGuard(const std::string& what, const std::string& path, bool createsFile)
        : SecurePathWalk("RequireOwnFile", what, path), m_createsFile(createsFile)
    {}
    void Check();

private:
    void CheckDirectory(const Directory& entered) const override;
    void CheckOther(const Entry& entry) const override;
    bool CreateMissing(const Entry& entry) override;
    void CheckOwner(const std::string& path, const struct stat& status, bool canOthersWrite) const;

    const bool m_createsFile;
};

void FileGuard::Check()
{
    try {
        Walk();
    } catch (const Krt::Exception::YError& error) {
        if (error.GetType() != Krt::ExceptionType::OsError)
            throw;
        if (IsGuarding())
            KRT_RAISE_OS(error.GetOsError(), "Failed to stat " << GetPosition().c_str());
    }
}

void FileGuard::CheckDirectory(const Directory& entered) const
{
    CheckOwner(entered.path, entered.status, entered.isShared && !entered.IsSticky());
}

void FileGuard::CheckOther(const Entry& entry) const
{
    // The user who created the further link may have moved it here.
    Refuse(GetCurrent().isShared && entry.status.st_nlink > 1,
           entry.path + " has further names, and others can write to its directory");
    // A device such as /dev/null does not store what other users write to it.
    CheckOwner(entry.path, entry.status,
               IsGuarding() && !S_ISCHR(entry.status.st_mode) && CanOthersWrite(entry));
}

bool FileGuard::CreateMissing(const Entry& entry)
{
    const Directory& parent = GetCurrent();
    if (!parent.isShared)
        return false;
    const auto create = [&] {
        const auto made = Krt::Util::OwnAboveStandardStreams(Krt::Util::CallSystem([&] {
            return openat(parent.directory.GetHandle().Get(), entry.name.CStr(),
                          O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0640);
        }));
        return made || made.error == EEXIST;
    };
    Refuse(m_createsFile && !entry.isLast, "the directory " + entry.path + " doesn't exist");
    Refuse(!(m_createsFile && create()),
           entry.path + " doesn't exist, and others can write to its directory");
    return true;
}

void FileGuard::CheckOwner(const std::string& path, const struct stat& status, bool canOthersWrite) const
{
    Refuse(IsGuarding() && status.st_uid != Root,
           path + " belongs to the user " + std::to_string(status.st_uid));
    Refuse(canOthersWrite, path + " can be written to by others (mode " + Octal(status.st_mode) + ")");
}

} // namespace

void RequireOwnFile(const std::string& what, const std::string& path)
{
    FileGuard(what, path, false).Check();
}

std::string FindRisk(const std::string& path)
{
    const std::string what = "The file";
    try {
        RequireOwnFile(what, path);
    } catch (const Krt::Exception::YError& error) {
        const std::string front = what + " " + path + " is refused: ";
        const std::string text = error.GetMessage().Bytes();
        return text.starts_with(front) ? text.substr(front.size()) : "";
    }
    return "";
}

void RequireOwnLog(const std::string& path)
{
    FileGuard("The log", path, true).Check();
}

} // namespace Agent
