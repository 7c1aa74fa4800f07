#include "Backup/File/YOdsMetadata.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/Members.h"

namespace Backup::File {

using Krt::JSON::KeyMembers;
using Krt::JSON::MemberKey;
using Krt::JSON::ReadMembers;
using Krt::JSON::TextMembers;
using Krt::JSON::ValueMembers;
using Krt::JSON::YObject;

YOdsMetadata::YOdsMetadata(const YJobPath& jobPath) : YMetadataBase(VAM_ODS_METADATA_TYPE), m_jobPath(jobPath)
{}

YOdsMetadata::YOdsMetadata(const YObject& json) : YMetadataBase(json)
{
    FromJSON(json);
}

template <class Members, class Self>
void YOdsMetadata::Describe(Members& members, Self& self)
{
    members.Object("job_path", self.m_jobPath);
}

YObject YOdsMetadata::ToJSON() const
{
    YObject json = YMetadataBase::ToJSON();
    ValueMembers members(json);
    Describe(members, *this);
    return json;
}

void YOdsMetadata::StringifyTo(std::string& out) const
{
    WriteText(out, [this](TextMembers& members) { Describe(members, *this); });
}

void YOdsMetadata::AppendKeys(std::vector<MemberKey>& keys)
{
    KeyMembers members(keys);
    const YOdsMetadata record{YJobPath()};
    Describe(members, record);
}

void YOdsMetadata::FromJSON(const YObject& json)
{
    YMetadataBase::FromJSON(json);
    ReadMembers members(json);
    Describe(members, *this);
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
