#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <sys/types.h>

#include <string>

namespace Krt::File {

/// The target of the calls for extended attributes: a path, an open file, or an entry of an open directory.
/// The calls have the results and errno of the system. Symlinks are not followed.
class AttributeTarget
{
public:
    /// The entry at `path`, which must outlive the target.
    explicit AttributeTarget(const char* path) : m_path(path) {}
    /// The file that is open as `descriptor`, which must outlive the target.
    explicit AttributeTarget(int descriptor) : m_handle(descriptor, false) {}
    /// The entry `name` of an open directory. Raises the system's error, reporting `function`, if the
    /// platform has to open the entry.
    AttributeTarget(int directory, const char* name, const char* function);
    AttributeTarget(const AttributeTarget&) = delete;
    AttributeTarget& operator=(const AttributeTarget&) = delete;

    /// Lists the names, each with a NUL; see listxattr.
    ssize_t List(char* buffer, std::size_t size) const;
    /// Reads a value; see getxattr.
    ssize_t Get(const char* name, void* buffer, std::size_t size) const;
    /// Writes a value; see setxattr.
    int Set(const char* name, const void* data, std::size_t size, unsigned int flags) const;

    /// Returns true if the error number means that there is no such attribute.
    static bool IsMissing(int error);

private:
    std::string m_entryPath;
    const char* m_path = nullptr; // null: the handle counts
    Util::YUnxHandle m_handle;
};

} // namespace Krt::File
