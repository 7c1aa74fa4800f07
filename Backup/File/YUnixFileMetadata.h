// YUnixFileMetadata: the metadata of one file system object of a Unix host. It is filled from a live file
// during a backup, and from JSON, modern or with a legacy header in it, when a stored entry is read back.
// Times are carried as the numbers that YFile gives. The kind "directory" and the mode are kept apart on
// purpose: only the constructor from a file derives the one from the other.
#pragma once

#include "Backup/File/YMetadataBase.h"

#include "Krt/File/File.h"

namespace Backup::File {

class BACKUP_API YUnixFileMetadata : public YMetadataBase
{
public:
    /// All fields 0, false and empty.
    YUnixFileMetadata();
    /// From a live file, whose access time is not taken. The mapper's bool is whether the walk may descend
    /// into the path. Raises what reading the file's attributes and the descent policy raise.
    YUnixFileMetadata(YFile& file, JobPathMapper mapper);
    /// These raise what FromJSON raises.
    explicit YUnixFileMetadata(const Krt::JSON::YObject& json);
    YUnixFileMetadata(const Krt::JSON::YObject& json, JobPathMapper mapper);

    Krt::JSON::YObject ToJSON() const override;
    /// Every key is required. A failure leaves the fields read so far in place, with the attributes cleared
    /// once their turn has come. Raises InvalidArgument for a document with a legacy header.
    void FromJSON(const Krt::JSON::YObject& json) override;
    /// A legacy header wins over all other keys. A damaged one raises InvalidArgument; its extended
    /// attributes are checked and not kept.
    void FromJSON(const Krt::JSON::YObject& json, JobPathMapper mapper) override;
    /// Replaces the one path that there is.
    void SetFilePath(const YJobPath& path) override;
    /// Raises InvalidArgument for an index other than 0, as does GetFilePath.
    void SetFilePath(unsigned long index, const YJobPath& path) override;
    YJobPath GetFilePath(unsigned long index) const override;
    /// Always 1.
    unsigned long GetFilePathCount() const override;
    /// No component changes: a Unix name needs no cleaning. That the path lies within `replaceSource` is the
    /// caller's word.
    YJobPath GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                 const YJobPath& replaceDestination) override;

    void StringifyTo(std::string& out) const override;
    /// Appends the keys of the JSON form to a list.
    static void AppendKeys(std::vector<Krt::JSON::MemberKey>& keys);

    /// The fields, stored as they come: size in bytes, times as YFile gives them ("changed" is the inode's),
    /// mode as the st_mode word, user and group as numbers.
    unsigned long long GetFileSize() const { return m_fileSize; }
    void SetFileSize(unsigned long long size) { m_fileSize = size; }
    unsigned long long GetLastChangedTime() const { return m_lastChangedTime; }
    void SetLastChangedTime(unsigned long long time) { m_lastChangedTime = time; }
    unsigned long long GetLastWriteTime() const { return m_lastWriteTime; }
    void SetLastWriteTime(unsigned long long time) { m_lastWriteTime = time; }
    unsigned long long GetLastAccessTime() const { return m_lastAccessTime; }
    void SetLastAccessTime(unsigned long long time) { m_lastAccessTime = time; }
    bool IsDirectoryForRestore() const { return m_isDirectory; }
    void SetIsDirectoryForRestore(bool isDirectory) { m_isDirectory = isDirectory; }
    unsigned int GetModeFlags() const { return m_modeFlags; }
    void SetModeFlags(unsigned int flags) { m_modeFlags = flags; }
    unsigned int GetUserId() const { return m_userId; }
    void SetUserId(unsigned int id) { m_userId = id; }
    unsigned int GetGroupId() const { return m_groupId; }
    void SetGroupId(unsigned int id) { m_groupId = id; }
    /// Whether there is a target, whatever the mode says.
    bool IsSymbolicLink() const { return !m_symbolicLinkTarget.IsEmpty(); }
    /// The target and the attributes; an object of another kind has none of either.
    Krt::File::YPath GetSymbolicLinkTarget() const { return m_symbolicLinkTarget; }
    void SetSymbolicLinkTarget(Krt::File::YPath target) { m_symbolicLinkTarget = std::move(target); }
    Krt::File::ExtendedAttributeMap GetExtendedAttributeMap() const { return m_extendedAttributes; }
    void SetExtendedAttributeMap(Krt::File::ExtendedAttributeMap map)
    {
        m_extendedAttributes = std::move(map);
    }

private:
    template <class Members, class Self>
    static void Describe(Members& members, Self& self);

    unsigned long long m_fileSize = 0;
    unsigned long long m_lastChangedTime = 0;
    unsigned long long m_lastWriteTime = 0;
    unsigned long long m_lastAccessTime = 0;
    bool m_isDirectory = false;
    unsigned int m_modeFlags = 0;
    unsigned int m_userId = 0;
    unsigned int m_groupId = 0;
    Krt::File::YPath m_symbolicLinkTarget;
    YJobPath m_filePath;
    Krt::File::ExtendedAttributeMap m_extendedAttributes;
};

} // namespace Backup::File
