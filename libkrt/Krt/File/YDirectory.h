// YDirectory: an open directory, whose entries are reached through its descriptor. No operation follows a
// symbolic link at an entry, so a walk or a restore that goes down component by component stays below its
// root even while somebody swaps directories for links. A name is one component: empty, ".", "..", or one
// that holds "/" raises InvalidArgument before any system call. Failures raise the operating system's error
// (channel General) with operation and name in the text. Calls that a signal interrupted are repeated. Apart
// from VisitEntries, any number of threads may use a directory at once.
#pragma once

#include "Krt/File/OpenFile.h"

#include <functional>
#include <span>

namespace Krt::File {

/// What a listing tells of an entry. The type is a DT_ constant of <dirent.h>; DT_UNKNOWN asks for Stat.
struct DirectoryEntry
{
    const YString& name;      ///< lives as long as the visit
    unsigned char type;       ///< as above
    unsigned long long inode; ///< as the directory has it; a mount point's own is another
};

class KRT_API YDirectory
{
public:
    /// The last component may not be a link; those before it may.
    static YDirectory Open(const YPath& path);
    /// For a root that the user named: links are followed.
    static YDirectory OpenFollowing(const YPath& path);
    /// To reach entries alone, which takes the right to search and not the right to read: of the operations
    /// on the directory itself only Stat and SetMode work. Links are followed.
    static YDirectory OpenToSearch(const YPath& path);

    /// For the operations of OpenFile.h on the directory itself. Owned by this object.
    const Util::YUnxHandle& GetHandle() const { return m_handle; }

    // What is there.
    /// The directory of this name, to be listed and searched.
    YDirectory OpenDirectory(const YString& name) const;
    /// As OpenToSearch, without following a link. On Linux also one that is closed to its owner.
    YDirectory OpenDirectoryToSearch(const YString& name) const;
    /// The directory at the end of a way of one name or more. No link on it is followed, so it leads nowhere
    /// but below this directory, whatever somebody moves meanwhile.
    YDirectory OpenBelow(std::span<const YString> way) const;
    /// For reading; never blocks on a FIFO. Whether it is a regular file is for the caller to ask of the
    /// handle.
    Util::YUnxHandle OpenFile(const YString& name) const;
    /// Of the directory itself.
    struct stat Stat() const;
    /// Of the entry itself, also for a link.
    struct stat Stat(const YString& name) const;
    /// The same, with the answer false and `status` untouched for a missing entry.
    bool StatIfPresent(const YString& name, struct stat& status) const;
    /// The whole target, whatever its length.
    YString ReadSymbolicLink(const YString& name) const;
    /// Calls the visitor for each entry but "." and "..", in the file system's order, in bounded memory;
    /// stops when it returns false. What the visitor raises passes through. One listing of a directory at a
    /// time.
    void VisitEntries(const std::function<bool(const DirectoryEntry&)>& visitor) const;

    // Making entries. A name that is taken is a failure (EEXIST).
    /// For writing, with mode 0600.
    Util::YUnxHandle CreateFile(const YString& name) const;
    /// Where a mode is given, the umask takes bits from it.
    void MakeDirectory(const YString& name, unsigned int mode) const;
    void MakeSymbolicLink(const YString& name, const YString& target) const;
    void MakeFifo(const YString& name, unsigned int mode) const;
    /// `mode` holds S_IFCHR, S_IFBLK or S_IFSOCK; the device number is ignored for a socket.
    void MakeDevice(const YString& name, unsigned int mode, unsigned long long device) const;
    /// A further name for an existing entry, which may itself be a link.
    void MakeHardLink(const YDirectory& fromDirectory, const YString& fromName, const YString& name) const;

    // Moving and removing. A missing entry counts as removed.
    /// Replaces what `to` names, as rename does.
    void Rename(const YString& from, const YDirectory& toDirectory, const YString& to) const;
    /// For any entry but a directory; the next one for an empty directory.
    void RemoveFile(const YString& name) const;
    void RemoveDirectory(const YString& name) const;

    /// Sets the mode of the directory itself, also of one that was opened to search. See YEntry.h for the
    /// attributes of entries.
    void SetMode(unsigned int mode) const;

private:
    explicit YDirectory(Util::YUnxHandle handle) : m_handle(std::move(handle)) {}

    Util::YUnxHandle m_handle;
    mutable bool m_isListed = false; // the descriptor no longer stands at the first entry
};

} // namespace Krt::File
