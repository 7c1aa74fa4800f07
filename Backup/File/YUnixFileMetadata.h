#pragma once

#include "Backup/File/YMetadataBase.h"

#include "Krt/File/File.h"

namespace Backup::File {

/// The metadata of one file system object of a Unix host. It is filled from a live file during a backup, or
/// from JSON (current, or with a legacy header) when a stored entry is read. Times have the values and
/// units of YFile. The directory flag and the mode are independent fields: only the constructor from a file
/// derives one from the other.
class BACKUP_API YUnixFileMetadata : public YMetadataBase
{
public:
    /// All fields are 0, false or empty.
    YUnixFileMetadata();
    /// Reads a live file, except for its access time. The mapper's bool is true if a walk may descend into
    /// the path. Raises the errors of reading the file's attributes and of
    /// IsFollowableDirectoryFromKrtAttributes.
    YUnixFileMetadata(YFile& file, JobPathMapper mapper);
    /// Calls FromJSON(json) and raises its errors.
    explicit YUnixFileMetadata(const Krt::JSON::YObject& json);
    /// Calls FromJSON(json, mapper) and raises its errors.
    YUnixFileMetadata(const Krt::JSON::YObject& json, JobPathMapper mapper);

    Krt::JSON::YObject ToJSON() const override;
    /// Requires every key. After a failure the fields read before it are set; the attributes are cleared if
    /// they were reached. Raises InvalidArgument for a document with a legacy header.
    void FromJSON(const Krt::JSON::YObject& json) override;
    /// A legacy header takes precedence over all other keys. A damaged one raises InvalidArgument. Its
    /// extended attributes are checked and discarded.
    void FromJSON(const Krt::JSON::YObject& json, JobPathMapper mapper) override;
    /// Replaces the only path.
    void SetFilePath(const YJobPath& path) override;
    /// Raises InvalidArgument if `index` is not 0.
    void SetFilePath(unsigned long index, const YJobPath& path) override;
    /// Raises InvalidArgument if `index` is not 0.
    YJobPath GetFilePath(unsigned long index) const override;
    /// Always 1.
    unsigned long GetFilePathCount() const override;
    /// Changes no component: any Unix name is valid. Precondition: `originalPath` is within
    /// `replaceSource`.
    YJobPath GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                 const YJobPath& replaceDestination) override;

    void StringifyTo(std::string& out) const override;
    /// Appends the keys of the JSON form to `keys`.
    static void AppendKeys(std::vector<Krt::JSON::MemberKey>& keys);

    unsigned long long GetFileSize() const { return m_fileSize; }    ///< bytes
    void SetFileSize(unsigned long long size) { m_fileSize = size; } ///< bytes
    /// The change time of the inode, in the unit of YFile.
    unsigned long long GetLastChangedTime() const { return m_lastChangedTime; }
    /// Sets the change time of the inode, in the unit of YFile.
    void SetLastChangedTime(unsigned long long time) { m_lastChangedTime = time; }
    /// The modification time, in the unit of YFile.
    unsigned long long GetLastWriteTime() const { return m_lastWriteTime; }
    /// Sets the modification time, in the unit of YFile.
    void SetLastWriteTime(unsigned long long time) { m_lastWriteTime = time; }
    /// The access time, in the unit of YFile; 0 if the object was filled from a live file.
    unsigned long long GetLastAccessTime() const { return m_lastAccessTime; }
    /// Sets the access time, in the unit of YFile.
    void SetLastAccessTime(unsigned long long time) { m_lastAccessTime = time; }
    /// Returns true if the object is restored as a directory.
    bool IsDirectoryForRestore() const { return m_isDirectory; }
    /// Sets the directory flag; the mode is not changed.
    void SetIsDirectoryForRestore(bool isDirectory) { m_isDirectory = isDirectory; }
    unsigned int GetModeFlags() const { return m_modeFlags; }      ///< st_mode, including the type bits
    void SetModeFlags(unsigned int flags) { m_modeFlags = flags; } ///< st_mode, including the type bits
    unsigned int GetUserId() const { return m_userId; }            ///< number of the owner
    void SetUserId(unsigned int id) { m_userId = id; }             ///< number of the owner
    unsigned int GetGroupId() const { return m_groupId; }          ///< number of the group
    void SetGroupId(unsigned int id) { m_groupId = id; }           ///< number of the group
    /// Returns true if the target is not empty, whatever the mode.
    bool IsSymbolicLink() const { return !m_symbolicLinkTarget.IsEmpty(); }
    /// The target of a symlink; empty for other objects.
    Krt::File::YPath GetSymbolicLinkTarget() const { return m_symbolicLinkTarget; }
    /// Sets the target of a symlink; the mode is not changed.
    void SetSymbolicLinkTarget(Krt::File::YPath target) { m_symbolicLinkTarget = std::move(target); }
    /// The values of the extended attributes by their names; may be empty.
    Krt::File::ExtendedAttributeMap GetExtendedAttributeMap() const { return m_extendedAttributes; }
    /// Replaces all extended attributes.
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
