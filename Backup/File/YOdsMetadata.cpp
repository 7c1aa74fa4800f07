#include "Backup/File/YOdsMetadata.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"

namespace Backup::File {

using Krt::JSON::YObject;
using Krt::JSON::YValue;

YOdsMetadata::YOdsMetadata(const YJobPath& jobPath) : YMetadataBase(VAM_ODS_METADATA_TYPE), m_jobPath(jobPath)
{}

YOdsMetadata::YOdsMetadata(const YObject& json) : YMetadataBase(json)
{
    FromJSON(json);
}

YObject YOdsMetadata::ToJSON() const
{
    YObject json = YMetadataBase::ToJSON();
    json.Put("job_path", YValue::Create<YObject>(m_jobPath.ToJSON()));
    return json;
}

void YOdsMetadata::FromJSON(const YObject& json)
{
    YMetadataBase::FromJSON(json);
    m_jobPath = json.Get<YJobPath>("job_path", MessageType::Runtime);
}

void YOdsMetadata::FromJSON(const YObject&, JobPathMapper)
{
    KRT_RAISE(ErrorCode::NotImplemented, "No legacy metadata conversion for ODS");
}

void YOdsMetadata::SetFilePath(const YJobPath&)
{
    KRT_RAISE(ErrorCode::NotImplemented, "SetFilePath doesn't make sense for ODS metadata");
}

void YOdsMetadata::SetFilePath(unsigned long, const YJobPath&)
{
    KRT_RAISE(ErrorCode::NotImplemented, "SetFilePath doesn't make sense for ODS metadata");
}

YJobPath YOdsMetadata::GetFilePath(unsigned long) const
{
    return m_jobPath;
}

unsigned long YOdsMetadata::GetFilePathCount() const
{
    return 1;
}

YJobPath YOdsMetadata::GetSanitizedNewPath(const YJobPath&, const YJobPath&, const YJobPath&)
{
    KRT_RAISE(ErrorCode::NotImplemented, "GetSanitizedNewPath doesn't make sense for ODS metadata");
}

} // namespace Backup::File
