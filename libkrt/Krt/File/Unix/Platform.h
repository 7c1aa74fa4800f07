#pragma once

/// @file
/// The operations on open directories and extended attributes that each platform defines. It also defines
/// Sync and RemoveAccessLists of File.h.

#include "Krt/File/YDirectory.h"
#include "Krt/Util/YUnxHandle.h"

#include <sys/types.h>

#include <string>

namespace Krt::File {

/// Opens the directory at a relative path for reading, close-on-exec, above the standard streams. Symlinks
/// are not followed in any component. ENOSYS if the system has no such call.
Util::OsResult<Util::YUnxHandle> OpenBeneath(int directory, const char* path);

/// Sets the mode of an open directory, also if it was opened to search.
Util::OsResult<int> SetModeOfDirectory(int directory, mode_t mode);

/// Calls `visitor` for each entry except "." and "..", from the descriptor's position, until it returns
/// false. Returns 0 or the error number.
int ListEntries(int directory, const std::function<bool(const DirectoryEntry&)>& visitor);

/// Returns true for "." and "..".
inline bool IsDots(const char* name)
{
    return name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'));
}

/// The target of the calls for extended attributes: a path, an open file, or an entry of an open directory.
/// The calls have the results and errno of the system. Symlinks are not followed.
class AttributeTarget
{
public:
    /// The entry at `path`, which must outlive the target.
    explicit AttributeTarget(const char* path) : m_path(path) {}
    /// The open file.
    explicit AttributeTarget(int descriptor) : m_handle(descriptor, false) {}
    /// The entry `name` of an open directory. Raises the system's error, reporting `function`, if the
    /// platform has to open the entry.
    AttributeTarget(int directory, const char* name, const char* function);
    AttributeTarget(const AttributeTarget&) = delete;
    AttributeTarget& operator=(const AttributeTarget&) = delete;

    /// Stores the names, each with its NUL, as listxattr does.
    ssize_t List(char* buffer, std::size_t size) const;
    /// Stores the value of an attribute as getxattr does.
    ssize_t Get(const char* name, void* buffer, std::size_t size) const;
    /// Sets an attribute as setxattr does.
    int Set(const char* name, const void* data, std::size_t size, unsigned int flags) const;

    /// Returns true if the error number means that there is no such attribute.
    static bool IsMissing(int error);

private:
    std::string m_entryPath;
    const char* m_path = nullptr; // nullptr if the handle is the target
    Util::YUnxHandle m_handle;
};

} // namespace Krt::File
