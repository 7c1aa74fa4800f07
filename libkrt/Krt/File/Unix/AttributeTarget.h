// What the extended-attribute calls act on: a path, an open file, or an entry of an open directory; and the
// calls themselves as each platform spells them, with results and errno as the system gives them. No link is
// followed.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <sys/types.h>

#include <string>

namespace Krt::File {

class AttributeTarget
{
public:
    /// The path must outlive the target.
    explicit AttributeTarget(const char* path) : m_path(path) {}
    explicit AttributeTarget(int descriptor) : m_handle(descriptor, false) {}
    /// Raises the system's error where the platform has to open the entry, reporting `function`.
    AttributeTarget(int directory, const char* name, const char* function);
    AttributeTarget(const AttributeTarget&) = delete;
    AttributeTarget& operator=(const AttributeTarget&) = delete;

    ssize_t List(char* buffer, std::size_t size) const;
    ssize_t Get(const char* name, void* buffer, std::size_t size) const;
    int Set(const char* name, const void* data, std::size_t size, unsigned int flags) const;

    /// Whether the error number says that there is no such attribute.
    static bool IsMissing(int error);

private:
    std::string m_entryPath;
    const char* m_path = nullptr; // null: the handle counts
    Util::YUnxHandle m_handle;
};

} // namespace Krt::File
