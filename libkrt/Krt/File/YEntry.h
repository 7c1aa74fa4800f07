// YEntry: where an entry of the file system is: at a path, under a name in an open directory, or behind an
// open handle. It is a value of pointers: what it was made from must outlive it. No operation follows a
// symbolic link at the entry. A name is one component, as in YDirectory.h. Failures raise the operating
// system's error (channel General) with the operation and the path or name in the text; an empty handle
// raises InvalidState.
#pragma once

#include "Krt/File/OpenFile.h"

namespace Krt::File {

class AttributeTarget;
class YDirectory;

class KRT_API YEntry
{
public:
    /// The arguments must outlive the object. Nothing is asked of the system yet.
    explicit YEntry(const YPath& path) : m_name(&path) {}
    YEntry(const YDirectory& directory, const YString& name) : m_directory(&directory), m_name(&name) {}
    explicit YEntry(const Util::YUnxHandle& handle) : m_handle(&handle) {}

    /// The directory of a name; null for a path and for a handle.
    const YDirectory* GetDirectory() const { return m_directory; }
    /// The name or the path; null for a handle.
    const YString* GetName() const { return m_name; }

    /// Either may be KeepOwner.
    void SetOwner(unsigned int user, unsigned int group) const;
    /// The permission bits, with set-user, set-group and sticky; bits of the type are ignored. EOPNOTSUPP for
    /// a link where the system keeps no modes of links.
    void SetMode(unsigned int mode) const;
    /// A tv_nsec of UTIME_OMIT leaves a time, UTIME_NOW sets the current one.
    void SetTimes(const timespec& access, const timespec& write) const;

    /// As the operations of File.h.
    std::list<YString> ListExtendedAttributes() const;
    ExtendedAttributeMap GetExtendedAttributeMap() const;
    void AddExtendedAttribute(const YString& attribute, const void* data, unsigned int size,
                              unsigned int flags) const;

private:
    struct Location;
    // For calls that take a directory and a name. Raises InvalidArgument, reporting `function`.
    Location Locate(const char* function) const;
    AttributeTarget Target(const char* function) const;
    const char* Describe() const;

    const Util::YUnxHandle* m_handle = nullptr;
    const YDirectory* m_directory = nullptr;
    const YString* m_name = nullptr;
};

} // namespace Krt::File
