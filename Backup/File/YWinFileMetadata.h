// YWinFileMetadata: the metadata of one object that was backed up from a Windows file system, as its source
// recorded it. Made only from JSON, modern or with a legacy header in it. A file may have several paths, each
// with a long form, the job path, and a short name. Times are carried as numbers.
#pragma once

#include "Backup/File/YMetadataBase.h"

#include <utility>
#include <vector>

namespace Backup::File {

class BACKUP_API YWinFileMetadata : public YMetadataBase
{
public:
    /// Each path with its short name, which may be empty.
    using Paths = std::vector<std::pair<YJobPath, YString>>;

    /// All fields 0 and empty.
    YWinFileMetadata();
    /// These raise what FromJSON raises.
    explicit YWinFileMetadata(const Krt::JSON::YObject& json);
    YWinFileMetadata(const Krt::JSON::YObject& json, JobPathMapper mapper);

    /// Holds the directory hash of a directory, and the permission change time of anything else.
    Krt::JSON::YObject ToJSON() const override;
    /// Every key that ToJSON writes is required. The paths are added to those already here. A failure leaves
    /// the fields read so far in place. Raises InvalidArgument for a document with a legacy header.
    void FromJSON(const Krt::JSON::YObject& json) override;
    /// A legacy header wins over all other keys. A damaged one raises InvalidArgument.
    void FromJSON(const Krt::JSON::YObject& json, JobPathMapper mapper) override;
    /// Drops all paths and short names for this path with an empty short name.
    void SetFilePath(const YJobPath& path) override;
    /// Keeps the short name. The index is not checked, nor is that of GetFilePath: it must be below the
    /// count.
    void SetFilePath(unsigned long index, const YJobPath& path) override;
    YJobPath GetFilePath(unsigned long index) const override;
    /// How many there are.
    unsigned long GetFilePathCount() const override;
    /// The volume's component, the first of the class of containers or else the first of all, loses the
    /// characters ':', '/', '\' and '?' where it ends up in the result, so that it is a plain directory's
    /// name.
    YJobPath GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                 const YJobPath& replaceDestination) override;

    void StringifyTo(std::string& out) const override;
    /// Appends the keys of the JSON form to a list.
    static void AppendKeys(std::vector<Krt::JSON::MemberKey>& keys);

    /// The fields, stored as they come: size in bytes, times as the source recorded them, attributes as the
    /// bits of Windows.
    unsigned int GetReparseType() const { return m_reparseType; }
    void SetReparseType(unsigned int type) { m_reparseType = type; }
    unsigned long long GetFileSize() const { return m_fileSize; }
    void SetFileSize(unsigned long long size) { m_fileSize = size; }
    unsigned long long GetCreationTime() const { return m_creationTime; }
    void SetCreationTime(unsigned long long time) { m_creationTime = time; }
    unsigned long long GetLastWriteTime() const { return m_lastWriteTime; }
    void SetLastWriteTime(unsigned long long time) { m_lastWriteTime = time; }
    unsigned long long GetLastAccessTime() const { return m_lastAccessTime; }
    void SetLastAccessTime(unsigned long long time) { m_lastAccessTime = time; }
    unsigned int GetAttributes() const { return m_attributes; }
    void SetAttributes(unsigned int attributes) { m_attributes = attributes; }
    /// Whether the attributes have the bit 0x10.
    bool IsDirectoryAttributeSet() const;
    /// All paths, in the order of their adding.
    Paths GetPaths() const { return m_paths; }
    /// Adds one behind them.
    void AddPath(YJobPath path, YString shortName);
    /// Meaningful for a directory only.
    YString GetDirectoryHash() const { return m_directoryHash; }
    void SetDirectoryHash(YString hash) { m_directoryHash = std::move(hash); }
    /// Meaningless for a directory.
    unsigned long long GetPermissionChangeTime() const { return m_permissionChangeTime; }
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
