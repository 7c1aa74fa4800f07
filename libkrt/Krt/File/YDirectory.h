#pragma once

#include "Krt/File/File.h"

#include <functional>
#include <span>

namespace Krt::File {

/// An entry as a directory lists it.
struct DirectoryEntry
{
    const YString& name;      ///< valid during the visit
    unsigned char type;       ///< a DT_ constant of dirent.h; for DT_UNKNOWN call Stat
    unsigned long long inode; ///< as listed; differs from that of a file system mounted there
};

/// An open directory, whose entries are accessed through its descriptor. Symlinks among the entries are
/// never followed. So a walk or a restore that descends by components stays below its root, even if another
/// process replaces directories by symlinks. A name is one component: an empty name, ".", ".." or a name
/// with "/" raises InvalidArgument before any system call. Failures raise the operating system's error
/// (channel General) with the operation and the name in the text. Calls are retried on EINTR. Any number of
/// threads may use a directory at once, except for VisitEntries.
class KRT_API YDirectory
{
public:
    /// Opens a directory. Only the last component must not be a symlink.
    static YDirectory Open(const YPath& path);
    /// Opens a directory that the user named: symlinks are followed.
    static YDirectory OpenFollowing(const YPath& path);
    /// Opens a directory only to access its entries, which requires the right to search but not the right
    /// to read. Of the operations on the directory itself only Stat and SetMode work. Symlinks are
    /// followed.
    static YDirectory OpenToSearch(const YPath& path);

    /// The handle, owned by this object, for the operations of File.h on the directory itself.
    const Util::YUnxHandle& GetHandle() const { return m_handle; }

    /// Opens the child directory of this name for listing and searching.
    YDirectory OpenDirectory(const YString& name) const;
    /// Opens a child directory as OpenToSearch does, without following a symlink. On Linux this includes
    /// directories whose mode denies access to their owner.
    YDirectory OpenDirectoryToSearch(const YString& name) const;
    /// Opens a descendant directory by one or more names. Symlinks are not followed, so the result is
    /// always below this directory, even if entries are renamed concurrently.
    YDirectory OpenBelow(std::span<const YString> names) const;
    /// Opens an entry for reading; never blocks on a FIFO. The caller checks with Stat whether it is a
    /// regular file.
    Util::YUnxHandle OpenFile(const YString& name) const;
    /// Returns the status of the directory itself.
    struct stat Stat() const;
    /// Returns the status of the entry itself, also of a symlink.
    struct stat Stat(const YString& name) const;
    /// Stores the status of the entry itself. Returns false, with `status` unchanged, for a missing entry.
    bool StatIfPresent(const YString& name, struct stat& status) const;
    /// Returns the whole target of a symlink, of any length.
    YString ReadSymbolicLink(const YString& name) const;
    /// Calls `visitor` for each entry except "." and "..", in the file system's order, until it returns
    /// false. Memory is bounded. Exceptions of the visitor are passed on. A directory must not be listed
    /// twice at the same time.
    void VisitEntries(const std::function<bool(const DirectoryEntry&)>& visitor) const;

    /// Creates a file of mode 0600 for writing. Raises EEXIST if the name exists.
    Util::YUnxHandle CreateFile(const YString& name) const;
    /// Creates a directory of mode `mode` less the umask. Raises EEXIST if the name exists.
    void MakeDirectory(const YString& name, unsigned int mode) const;
    /// Creates a symlink. Raises EEXIST if the name exists.
    void MakeSymbolicLink(const YString& name, const YString& target) const;
    /// Creates a FIFO of mode `mode` less the umask. Raises EEXIST if the name exists.
    void MakeFifo(const YString& name, unsigned int mode) const;
    /// Creates a device or a socket of mode `mode` less the umask. `mode` contains S_IFCHR, S_IFBLK or
    /// S_IFSOCK; `device` is ignored for a socket. Raises EEXIST if the name exists.
    void MakeDevice(const YString& name, unsigned int mode, unsigned long long device) const;
    /// Creates a hard link to an existing entry, which may be a symlink. Raises EEXIST if the name exists.
    void MakeHardLink(const YDirectory& fromDirectory, const YString& fromName, const YString& name) const;

    /// Renames an entry and replaces an existing entry `to`, as rename does.
    void Rename(const YString& from, const YDirectory& toDirectory, const YString& to) const;
    /// Removes an entry that is not a directory. A missing entry counts as removed.
    void RemoveFile(const YString& name) const;
    /// Removes an empty directory. A missing entry counts as removed.
    void RemoveDirectory(const YString& name) const;

    /// Sets the mode of the directory itself, also after OpenToSearch. See YEntry.h for the attributes of
    /// entries.
    void SetMode(unsigned int mode) const;

private:
    explicit YDirectory(Util::YUnxHandle handle) : m_handle(std::move(handle)) {}

    Util::YUnxHandle m_handle;
    mutable bool m_isListed = false; // the descriptor is no longer at the first entry
};

} // namespace Krt::File
