#pragma once

#include "Backup/File/Unix/IFileIo.h"

#include "Krt/File/File.h"
#include "Krt/File/YEntry.h"
#include "Krt/Log/YStream.h"

struct stat;

namespace Backup::File {

/// A file that is read for backup or written on restore. Opening for reading reads the status once; data
/// are then read or written sequentially from offset 0. Only regular files are opened. For other types only
/// the status is available, and the open mode returns to OPEN_MODE_NONE. Operations on ownership, mode
/// flags, link target and extended attributes use the path (for reading after OpenEntry, the open
/// directory) and take effect at once. One thread at a time.
class BACKUP_API YFile : public IFileIo
{
public:
    /// The purpose for which a file is opened.
    enum OPEN_MODE : unsigned int
    {
        OPEN_MODE_NONE = 0,
        OPEN_MODE_READ = 1,
        OPEN_MODE_WRITE = 2,         ///< the only mode in which Close sets the file's times
        OPEN_MODE_READ_ALTERNATE = 3 ///< as OPEN_MODE_READ
    };
    /// Bits that qualify the opening.
    enum OPTIONS : unsigned int
    {
        OPT_NONE = 1,
        OPT_DIRECTORY = 8 ///< for writing: creates a directory, and Write does nothing
    };

    YFile();
    /// Calls Open.
    YFile(OPEN_MODE mode, const Krt::File::YPath& path, OPTIONS options);
    YFile(const YFile&) = delete;
    YFile& operator=(const YFile&) = delete;
    /// Closes the file; errors are dropped.
    ~YFile() override;

    /// Resets the object and stores `value`, which it does not interpret.
    void Initialize(unsigned long long value);
    /// Resets to the idle state. The descriptor is closed, and the file's times are not set. Mode flags,
    /// UID and GID keep their values.
    void InitializeMembers();

    /// Closes an open file (dropping errors), then opens the path. For writing, missing parent directories
    /// are created and an existing file is deleted and recreated. Raises InvalidState for an unknown mode,
    /// and the errors of the file operations. After an error mode and path are stored, and there is no
    /// handle.
    void Open(OPEN_MODE mode, const Krt::File::YPath& path, OPTIONS options);
    /// Opens an entry of an open directory for reading. Status, content, link target and extended
    /// attributes are read through `directory`. This halves the cost of a long path and is not affected by
    /// changes of the path. `directory` and `name` must outlive the reading of link target and extended
    /// attributes. The other operations use `path`.
    void OpenEntry(const Krt::File::YDirectory& directory, const Krt::YString& name,
                   const Krt::File::YPath& path);
    /// The step of Open for reading, on the stored path and options.
    void OpenForRead();
    /// The step of Open for writing, on the stored path and options; does nothing in another mode.
    void OpenForWrite();
    /// Closes the descriptor and, after writing, sets the file's times to those of SetTime. If that raises,
    /// the mode is kept and a second call tries again to set the times.
    void Close();
    /// Calls Close.
    void EndOfFile() override { Close(); }
    /// Returns true if the mode is not OPEN_MODE_NONE; false for an entry with a status only.
    bool IsOpen() const { return m_openMode != OPEN_MODE_NONE; }
    /// The handle that Read and Write use, for operations on the open file itself. Owned by this object.
    const Krt::Util::YUnxHandle& GetHandle() const { return m_handle; }

    /// Does not check the mode: without a handle it raises InvalidState.
    unsigned int Read(void* buffer, unsigned int count) override;
    /// Returns 0 if nothing is open, and for a directory.
    unsigned int Write(const void* buffer, unsigned int count) override;
    /// Always raises NotImplemented.
    void Seek(unsigned long long offset) override;
    /// Records the times that Close sets, in seconds since the epoch.
    void SetTime(unsigned long long access, unsigned long long write);

    /// The inode number. Raises InvalidState in OPEN_MODE_NONE, and so for an entry with a status only.
    unsigned long long GetInode() const;
    unsigned long long GetSize() const { return m_size; }     ///< bytes, at the last opening for reading
    unsigned int GetUID() const { return m_uid; }             ///< owner, at the last opening for reading
    unsigned int GetGID() const { return m_gid; }             ///< group, at the last opening for reading
    Krt::File::YPath GetPath() const { return m_path; }       ///< the path of the last opening
    unsigned long long GetOffset() const { return m_offset; } ///< bytes read or written so far
    /// The inode's change time in seconds since the epoch, at the last opening for reading.
    unsigned long long GetLastChangedTime() const { return m_lastChangedTime; }
    /// The modification time in seconds since the epoch, at the last opening for reading.
    unsigned long long GetLastWriteTime() const { return m_lastWriteTime; }
    /// The access time in seconds since the epoch, at the last opening for reading.
    unsigned long long GetLastAccessTime() const { return m_lastAccessTime; }
    /// The mode; OPEN_MODE_NONE if nothing is open.
    OPEN_MODE GetOpenMode() const { return m_openMode; }
    /// The attribute word at the last opening for reading: bit 0x10 for a directory.
    unsigned int GetAttributes() const { return m_attributes; }
    /// The attribute word of the path now; after OpenEntry, that of the opening.
    unsigned int LookUpAttributes() const;
    /// st_mode at the last opening for reading, including the type bits.
    unsigned int GetModeFlags() const { return m_modeFlags; }
    unsigned int GetDataSize() const { return m_dataSize; } ///< always 0
    /// A buffer for the caller's use, owned by this object. Each call resizes it to 1 MiB.
    unsigned char* GetDataPtr() const;
    /// Returns true if the mode word denotes a regular file.
    bool IsRegularFile() const { return IsOfType(Krt::File::FileTypeRegular); }
    /// Returns true if the mode word denotes a directory.
    bool IsDirectory() const { return IsOfType(Krt::File::FileTypeDirectory); }
    /// Returns true if the mode word denotes a symlink.
    bool IsSymbolicLink() const { return IsOfType(Krt::File::FileTypeSymbolicLink); }
    /// The data type of this object's stream; always 5.
    unsigned int VamDataType() const { return 5; }

    /// Sets the path's owner; see File::SetUID.
    void SetUID(unsigned int uid) const;
    /// Sets the path's group; see File::SetGID.
    void SetGID(unsigned int gid) const;
    /// Sets the path's mode; see File::SetModeFlags.
    void SetModeFlags(unsigned int flags) const;
    /// Returns the link's target; see File::GetSymbolicLinkTarget.
    Krt::File::YPath GetSymbolicLinkTarget() const;

    /// The key disableXattr of the system's configuration, which each call reads.
    bool IsXattrDisabled() const override;
    /// Returns the names of the extended attributes. Empty if attributes are disabled or the file system
    /// does not support them.
    std::list<Krt::YString> ListExtendedAttributes() const;
    /// Returns the extended attributes. Empty if attributes are disabled or the file system does not
    /// support them.
    Krt::File::ExtendedAttributeMap GetExtendedAttributeMap() const;
    /// Creates or replaces an attribute of `size` bytes, also if attributes are disabled. Raises every
    /// error.
    void AddExtendedAttribute(Krt::YString name, unsigned char* data, int size);

private:
    bool IsOfType(unsigned int type) const { return (m_modeFlags & Krt::File::FileTypeMask) == type; }
    void Start(OPEN_MODE mode, const Krt::File::YPath& path, OPTIONS options);
    void TakeStatus(const struct stat& status);

    unsigned long long m_callerValue = 0;
    unsigned long long m_inode = 0;
    unsigned long long m_size = 0;
    Krt::Util::YUnxHandle m_handle;
    OPEN_MODE m_openMode = OPEN_MODE_NONE;
    Krt::File::YPath m_path;
    OPTIONS m_options{};
    unsigned int m_attributes = 0;
    unsigned int m_modeFlags = 0;
    unsigned long long m_offset = 0;
    unsigned int m_uid = 0;
    unsigned int m_gid = 0;
    unsigned long long m_lastAccessTime = 0;
    unsigned long long m_lastWriteTime = 0;
    unsigned long long m_lastChangedTime = 0;
    mutable Krt::Memory::YHeap<unsigned char> m_dataBuffer;
    unsigned int m_dataSize = 0;
    Krt::File::YEntry m_entry{m_path}; // or what OpenEntry was given
};

/// Writes "OPT_NONE" if that bit is set, otherwise nothing.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, YFile::OPTIONS options);

} // namespace Backup::File
