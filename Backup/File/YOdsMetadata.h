// YOdsMetadata: the metadata of an ODS object, which is known by a job path alone. It travels through the
// same interfaces as files and refuses (NotImplemented) what makes sense for a file only.
#pragma once

#include "Backup/File/YMetadataBase.h"

namespace Backup::File {

class BACKUP_API YOdsMetadata : public YMetadataBase
{
public:
    /// Of the object with this path.
    explicit YOdsMetadata(const YJobPath& jobPath);
    /// Raises what FromJSON raises.
    explicit YOdsMetadata(const Krt::JSON::YObject& json);

    Krt::JSON::YObject ToJSON() const override;
    /// Needs "job_path".
    void FromJSON(const Krt::JSON::YObject& json) override;
    /// Always raises: there is no legacy form.
    void FromJSON(const Krt::JSON::YObject& json, JobPathMapper mapper) override;
    /// Both always raise.
    void SetFilePath(const YJobPath& path) override;
    void SetFilePath(unsigned long index, const YJobPath& path) override;
    /// The job path, whatever the index.
    YJobPath GetFilePath(unsigned long index) const override;
    /// Always 1.
    unsigned long GetFilePathCount() const override;
    /// Always raises.
    YJobPath GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                 const YJobPath& replaceDestination) override;

    void StringifyTo(std::string& out) const override;
    /// Appends the keys of the JSON form to a list.
    static void AppendKeys(std::vector<Krt::JSON::MemberKey>& keys);

private:
    template <class Members, class Self>
    static void Describe(Members& members, Self& self);

    YJobPath m_jobPath;
};

} // namespace Backup::File
