#pragma once

#include "Backup/File/YMetadataBase.h"

namespace Backup::File {

/// The metadata of an ODS object, which consists of a job path only. Operations that apply only to files
/// raise NotImplemented.
class BACKUP_API YOdsMetadata : public YMetadataBase
{
public:
    /// The metadata of the object with this path.
    explicit YOdsMetadata(const YJobPath& jobPath);
    /// Calls FromJSON and raises its errors.
    explicit YOdsMetadata(const Krt::JSON::YObject& json);

    Krt::JSON::YObject ToJSON() const override;
    /// Requires the key "job_path".
    void FromJSON(const Krt::JSON::YObject& json) override;
    /// Always raises NotImplemented: there is no legacy form.
    void FromJSON(const Krt::JSON::YObject& json, JobPathMapper mapper) override;
    /// Always raises NotImplemented.
    void SetFilePath(const YJobPath& path) override;
    /// Always raises NotImplemented.
    void SetFilePath(unsigned long index, const YJobPath& path) override;
    /// Returns the job path, whatever the index.
    YJobPath GetFilePath(unsigned long index) const override;
    /// Always 1.
    unsigned long GetFilePathCount() const override;
    /// Always raises NotImplemented.
    YJobPath GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                 const YJobPath& replaceDestination) override;

    void StringifyTo(std::string& out) const override;
    /// Appends the keys of the JSON form to `keys`.
    static void AppendKeys(std::vector<Krt::JSON::MemberKey>& keys);

private:
    template <class Members, class Self>
    static void Describe(Members& members, Self& self);

    YJobPath m_jobPath;
};

} // namespace Backup::File
