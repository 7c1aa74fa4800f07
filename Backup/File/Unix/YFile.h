// YFile: the object through which a file is read for backup and written on restore. Opening for read takes
// the status once; data then moves from offset 0 forward. Only regular files are ever opened: of anything
// else there is the status alone, and the open mode falls back to none. Ownership, mode flags, link target
// and extended attributes go by path and act at once. One thread at a time.
#pragma once

#include "Backup/File/Unix/IFileIo.h"

#include "Krt/File/FileType.h"
#include "Krt/File/YEntry.h"
#include "Krt/Log/YStream.h"

struct stat;

namespace Backup::File {

class BACKUP_API YFile : public IFileIo
{
public:
    /// What a file is opened for.
    enum OPEN_MODE : unsigned int
    {
        OPEN_MODE_NONE = 0,
        OPEN_MODE_READ = 1,
        OPEN_MODE_WRITE = 2,         ///< the one mode that sets the file's times at closing
        OPEN_MODE_READ_ALTERNATE = 3 ///< as OPEN_MODE_READ
    };
    /// Bits that say more about the opening.
    enum OPTIONS : unsigned int
    {
        OPT_NONE = 1,
        OPT_DIRECTORY = 8 ///< for writing: makes a directory, and Write does nothing
    };

    YFile();
    /// Opens at once; see Open.
    YFile(OPEN_MODE mode, const Krt::File::YPath& path, OPTIONS options);
    YFile(const YFile&) = delete;
    YFile& operator=(const YFile&) = delete;
    /// Closes; an error is dropped.
    ~YFile() override;

    /// Resets the object and keeps a value of the caller's with it.
    void Initialize(unsigned long long value);
    /// Back to the idle state. The descriptor is closed, the file's times are not set. Mode flags, UID and
    /// GID keep their values.
    void InitializeMembers();

    /// Closes what is open (an error of that is dropped) and starts over. For writing, missing parents are
    /// made and an existing file is deleted and made anew. Raises InvalidState for an unknown mode and passes
    /// errors of the file operations on; mode and path are stored then, and there is no handle.
    void Open(OPEN_MODE mode, const Krt::File::YPath& path, OPTIONS options);
    /// The same for reading an entry whose directory is open: status and content are reached through that
    /// directory, at half the cost of a long path and whatever happens to the path meanwhile, and so are
    /// a link's target and extended attributes: directory and name must outlive the asking for those. The
    /// other operations that go by path use `path`.
    void OpenEntry(const Krt::File::YDirectory& directory, const Krt::YString& name,
                   const Krt::File::YPath& path);
    /// The steps of Open, on the stored path and options; the second does nothing in another mode.
    void OpenForRead();
    void OpenForWrite();
    /// Closes the descriptor and, after writing, sets the file's times to those of SetTime. If that raises,
    /// the mode stays and a second call tries the times again.
    void Close();
    /// As Close.
    void EndOfFile() override { Close(); }
    /// Whether there is a mode; of what has the status alone, false.
    bool IsOpen() const { return m_openMode != OPEN_MODE_NONE; }
    /// What Read and Write use, for operations on the very file that is open. Owned by this object.
    const Krt::Util::YUnxHandle& GetHandle() const { return m_handle; }

    /// Doesn't look at the mode: an object without a handle raises InvalidState.
    unsigned int Read(void* buffer, unsigned int count) override;
    /// 0 while nothing is open and for a directory.
    unsigned int Write(const void* buffer, unsigned int count) override;
    /// Always raises NotImplemented.
    void Seek(unsigned long long offset) override;
    /// Seconds that Close gives to the file; recorded only.
    void SetTime(unsigned long long access, unsigned long long write);

    /// Raises InvalidState in the mode none, so also for what has the status alone.
    unsigned long long GetInode() const;
    /// What the last opening for reading found, and how far reading or writing has come. Sizes and offsets
    /// are bytes, times seconds since the epoch.
    unsigned long long GetSize() const { return m_size; }
    unsigned int GetUID() const { return m_uid; }
    unsigned int GetGID() const { return m_gid; }
    Krt::File::YPath GetPath() const { return m_path; }
    unsigned long long GetOffset() const { return m_offset; }
    unsigned long long GetLastChangedTime() const { return m_lastChangedTime; }
    unsigned long long GetLastWriteTime() const { return m_lastWriteTime; }
    unsigned long long GetLastAccessTime() const { return m_lastAccessTime; }
    OPEN_MODE GetOpenMode() const { return m_openMode; }
    /// Bit 0x10 for a directory.
    unsigned int GetAttributes() const { return m_attributes; }
    /// The attribute word of the path as it is now; of an entry that OpenEntry opened, as it was then.
    unsigned int LookUpAttributes() const;
    /// The st_mode word of that opening, with the bits of the type.
    unsigned int GetModeFlags() const { return m_modeFlags; }
    /// Always 0.
    unsigned int GetDataSize() const { return m_dataSize; }
    /// A buffer of 1 MiB for the caller's use, owned by this object; brought to that size by each call.
    unsigned char* GetDataPtr() const;
    /// What the mode word says.
    bool IsRegularFile() const { return IsOfType(Krt::File::FileTypeRegular); }
    bool IsDirectory() const { return IsOfType(Krt::File::FileTypeDirectory); }
    bool IsSymbolicLink() const { return IsOfType(Krt::File::FileTypeSymbolicLink); }
    /// The data type under which this object's stream is tagged.
    unsigned int VamDataType() const { return 5; }

    /// The primitives of the same names, on the path.
    void SetUID(unsigned int uid) const;
    void SetGID(unsigned int gid) const;
    void SetModeFlags(unsigned int flags) const;
    Krt::File::YPath GetSymbolicLinkTarget() const;

    /// The key disableXattr of the system's configuration, read afresh.
    bool IsXattrDisabled() const override;
    /// Both are empty while attributes are disabled and where the file system has none.
    std::list<Krt::YString> ListExtendedAttributes() const;
    Krt::File::ExtendedAttributeMap GetExtendedAttributeMap() const;
    /// Works while attributes are disabled, too, and passes every error on.
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

/// "OPT_NONE" if that bit is set, else nothing.
BACKUP_API Krt::YStream& operator<<(Krt::YStream& stream, YFile::OPTIONS options);

} // namespace Backup::File
