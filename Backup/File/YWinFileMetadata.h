#pragma once

#include "Backup/File/YMetadataBase.h"

#include <utility>
#include <vector>

namespace Backup::File {

/// The metadata of one object that was backed up from a Windows file system, as recorded at its source.
/// Created only from JSON, current or with a legacy header. A file may have several paths, each with a long
/// form (the job path) and a short name. Times are numbers in the unit of the source.
class BACKUP_API YWinFileMetadata : public YMetadataBase
{
public:
    /// Pairs of a path and its short name, which may be empty.
    using Paths = std::vector<std::pair<YJobPath, YString>>;

    /// All fields are 0 or empty.
    YWinFileMetadata();
    /// Calls FromJSON(json) and raises its errors.
    explicit YWinFileMetadata(const Krt::JSON::YObject& json);
    /// Calls FromJSON(json, mapper) and raises its errors.
    YWinFileMetadata(const Krt::JSON::YObject& json, JobPathMapper mapper);

    /// Contains the directory hash if the object is a directory, otherwise the permission change time.
    Krt::JSON::YObject ToJSON() const override;
    /// Requires every key that ToJSON writes. The paths are appended to the existing ones. After a failure
    /// the fields read before it are set. Raises InvalidArgument for a document with a legacy header.
    void FromJSON(const Krt::JSON::YObject& json) override;
    /// A legacy header takes precedence over all other keys. A damaged one raises InvalidArgument.
    void FromJSON(const Krt::JSON::YObject& json, JobPathMapper mapper) override;
    /// Replaces all paths and short names by `path` with an empty short name.
    void SetFilePath(const YJobPath& path) override;
    /// Keeps the short name. Precondition: `index` is below the count; it is not checked.
    void SetFilePath(unsigned long index, const YJobPath& path) override;
    /// Precondition: `index` is below the count; it is not checked.
    YJobPath GetFilePath(unsigned long index) const override;
    /// The number of pairs in GetPaths().
    unsigned long GetFilePathCount() const override;
    /// Makes the volume's component a valid directory name: its characters ':', '/', '\\' and '?' are
    /// removed if the result contains the component. It is the first component of the container class, or
    /// the first component if there is no container.
    YJobPath GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                 const YJobPath& replaceDestination) override;

    void StringifyTo(std::string& out) const override;
    /// Appends the keys of the JSON form to `keys`.
    static void AppendKeys(std::vector<Krt::JSON::MemberKey>& keys);

    unsigned int GetReparseType() const { return m_reparseType; }    ///< as recorded at the source
    void SetReparseType(unsigned int type) { m_reparseType = type; } ///< as recorded at the source
    unsigned long long GetFileSize() const { return m_fileSize; }    ///< bytes
    void SetFileSize(unsigned long long size) { m_fileSize = size; } ///< bytes
    /// The creation time, in the unit of the source.
    unsigned long long GetCreationTime() const { return m_creationTime; }
    /// Sets the creation time, in the unit of the source.
    void SetCreationTime(unsigned long long time) { m_creationTime = time; }
    /// The modification time, in the unit of the source.
    unsigned long long GetLastWriteTime() const { return m_lastWriteTime; }
    /// Sets the modification time, in the unit of the source.
    void SetLastWriteTime(unsigned long long time) { m_lastWriteTime = time; }
    /// The access time, in the unit of the source.
    unsigned long long GetLastAccessTime() const { return m_lastAccessTime; }
    /// Sets the access time, in the unit of the source.
    void SetLastAccessTime(unsigned long long time) { m_lastAccessTime = time; }
    unsigned int GetAttributes() const { return m_attributes; }                ///< attribute bits of Windows
    void SetAttributes(unsigned int attributes) { m_attributes = attributes; } ///< attribute bits of Windows
    /// Returns true if the attributes contain the directory bit 0x10.
    bool IsDirectoryAttributeSet() const;
    /// All paths, in the order in which they were added.
    Paths GetPaths() const { return m_paths; }
    /// Appends a path.
    void AddPath(YJobPath path, YString shortName);
    /// Meaningful only for a directory.
    YString GetDirectoryHash() const { return m_directoryHash; }
    /// Meaningful only for a directory.
    void SetDirectoryHash(YString hash) { m_directoryHash = std::move(hash); }
    /// The time of the last change of permissions, in the unit of the source. Not meaningful for a
    /// directory.
    unsigned long long GetPermissionChangeTime() const { return m_permissionChangeTime; }
    /// Sets the time of the last change of permissions, in the unit of the source. Not meaningful for a
    /// directory.
    void SetPermissionChangeTime(unsigned long long time) { m_permissionChangeTime = time; }

private:
    template <class Members, class Self>
    static void Describe(Members& members, Self& self);

    unsigned int m_reparseType = 0;
    unsigned long long m_fileSize = 0;
    unsigned long long m_creationTime = 0;
    unsigned long long m_lastWriteTime = 0;
    unsigned long long m_lastAccessTime = 0;
    unsigned int m_attributes = 0;
    Paths m_paths;
    YString m_directoryHash;
    unsigned long long m_permissionChangeTime = 0;
};

} // namespace Backup::File
