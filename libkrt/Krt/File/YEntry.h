#pragma once

#include "Krt/File/File.h"

namespace Krt::File {

class AttributeTarget;
class YDirectory;

/// An owner or group that is not changed.
constexpr unsigned int KeepOwner = 0xFFFFFFFF;

/// The location of a file system entry: a path, a name in an open directory, or an open handle. It is a
/// value of pointers: the arguments of the constructor must outlive it. A symlink at the entry is never
/// followed. A name is one component; see YDirectory. Failures raise the operating system's error (channel
/// General) with the operation and the path or name in the text. An empty handle raises InvalidState.
class KRT_API YEntry
{
public:
    /// The entry at a path. Makes no system call.
    explicit YEntry(const YPath& path) : m_name(&path) {}
    /// The entry of this name in an open directory. Makes no system call.
    YEntry(const YDirectory& directory, const YString& name) : m_directory(&directory), m_name(&name) {}
    /// The entry that is open. Makes no system call.
    explicit YEntry(const Util::YUnxHandle& handle) : m_handle(&handle) {}

    /// The directory of a name; nullptr for a path and for a handle.
    const YDirectory* GetDirectory() const { return m_directory; }
    /// The name or the path; nullptr for a handle.
    const YString* GetName() const { return m_name; }

    /// Sets owner and group. KeepOwner keeps the current one.
    void SetOwner(unsigned int user, unsigned int group) const;
    /// Sets the permission bits with set-user-ID, set-group-ID and sticky; type bits are ignored. Raises
    /// EOPNOTSUPP for a symlink if the system does not store modes of symlinks.
    void SetMode(unsigned int mode) const;
    /// Sets the access and the modification time. A tv_nsec of UTIME_OMIT keeps a time, and UTIME_NOW sets
    /// the current one.
    void SetTimes(const timespec& access, const timespec& write) const;

    /// Returns the names of the extended attributes; see File::ListExtendedAttributes.
    std::list<YString> ListExtendedAttributes() const;
    /// Returns the extended attributes; see File::GetExtendedAttributeMap.
    ExtendedAttributeMap GetExtendedAttributeMap() const;
    /// Sets an extended attribute; see File::AddExtendedAttribute.
    void AddExtendedAttribute(const YString& attribute, const void* data, unsigned int size,
                              unsigned int flags) const;

private:
    struct Location;
    // For calls with a directory and a name. Raises InvalidArgument, reporting `function`.
    Location Locate(const char* function) const;
    AttributeTarget Target(const char* function) const;
    const char* Describe() const;

    const Util::YUnxHandle* m_handle = nullptr;
    const YDirectory* m_directory = nullptr;
    const YString* m_name = nullptr;
};

} // namespace Krt::File
