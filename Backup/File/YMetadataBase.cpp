#include "Backup/File/YMetadataBase.h"

#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YOdsMetadata.h"
#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/Members.h"

#include <boost/make_shared.hpp>

namespace Backup::File {

using Krt::JSON::MemberForm;
using Krt::JSON::MemberKey;
using Krt::JSON::TextMembers;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

constexpr const char* KindKey = "metadata_type";
// The maximum number of keys in the JSON form of any class.
constexpr std::size_t MostKeys = 12;

VAM_METADATA_TYPES MetadataTypeAsEnum(const YString& text)
{
    if (text == "win")
        return VAM_WINDOWS_METADATA_TYPE;
    if (text == "unix")
        return VAM_UNIX_METADATA_TYPE;
    if (text == "ods")
        return VAM_ODS_METADATA_TYPE;
    KRT_RAISE(ErrorCode::InvalidArgument, "Invalid metadataType: " << text);
}

YString MetadataTypeAsString(VAM_METADATA_TYPES type)
{
    switch (type) {
    case VAM_WINDOWS_METADATA_TYPE:
        return "win";
    case VAM_UNIX_METADATA_TYPE:
        return "unix";
    case VAM_ODS_METADATA_TYPE:
        return "ods";
    }
    KRT_RAISE(ErrorCode::InvalidArgument, "Invalid metadataType: " << static_cast<unsigned int>(type));
}

VAM_METADATA_TYPES ReadMetadataType(const YObject& json)
{
    return MetadataTypeAsEnum(json.Get<YString>(KindKey, MessageType::Runtime));
}

} // namespace

YMetadataBase::YMetadataBase(VAM_METADATA_TYPES type) : m_type(type) {}

YMetadataBase::YMetadataBase(const YObject& json)
{
    YMetadataBase::FromJSON(json);
}

YMetadataBase::~YMetadataBase() = default;

YObject YMetadataBase::ToJSON() const
{
    YObject json;
    json.Reserve(MostKeys);
    json.Put(KindKey, YValue::Create<YString>(MetadataTypeAsString(m_type)));
    return json;
}

void YMetadataBase::StringifyTo(std::string& out) const
{
    YValue::Create<YObject>(ToJSON())->StringifyTo(out);
}

void YMetadataBase::WriteText(std::string& out, const std::function<void(TextMembers&)>& describe) const
{
    const YString word = MetadataTypeAsString(m_type);
    Krt::JSON::YTextWriter writer(out);
    TextMembers members(writer);
    writer.BeginObject();
    members.Text(KindKey, word);
    describe(members);
    writer.EndObject();
}

std::vector<MemberKey> YMetadataBase::ListKeys()
{
    std::vector<MemberKey> keys{{KindKey, MemberForm::Text, {}}, {"legacy_metadata", MemberForm::Text, {}}};
    YUnixFileMetadata::AppendKeys(keys);
    YWinFileMetadata::AppendKeys(keys);
    YOdsMetadata::AppendKeys(keys);
    return keys;
}

void YMetadataBase::FromJSON(const YObject& json)
{
    m_type = ReadMetadataType(json);
}

void YMetadataBase::FromJSON(const YObject& json, JobPathMapper)
{
    m_type = ReadMetadataType(json);
}

boost::shared_ptr<YMetadataBase> YMetadataBase::ConstructFromJson(const YObject& json)
{
    const VAM_METADATA_TYPES type = ReadMetadataType(json);
    switch (type) {
    case VAM_WINDOWS_METADATA_TYPE:
        return boost::make_shared<YWinFileMetadata>(json);
    case VAM_UNIX_METADATA_TYPE:
        return boost::make_shared<YUnixFileMetadata>(json);
    case VAM_ODS_METADATA_TYPE:
        return boost::make_shared<YOdsMetadata>(json);
    }
    KRT_RAISE(ErrorCode::InvalidArgument, "Invalid metadata type" << static_cast<unsigned int>(type));
}

boost::shared_ptr<YMetadataBase> YMetadataBase::ConstructFromJson(const YObject& json, JobPathMapper mapper)
{
    const VAM_METADATA_TYPES type = ReadMetadataType(json);
    switch (type) {
    case VAM_WINDOWS_METADATA_TYPE:
        return boost::make_shared<YWinFileMetadata>(json, mapper);
    case VAM_UNIX_METADATA_TYPE:
        return boost::make_shared<YUnixFileMetadata>(json, mapper);
    case VAM_ODS_METADATA_TYPE:
        // Without the mapper: ODS has no legacy form and refuses to be asked for it.
        return boost::make_shared<YOdsMetadata>(json);
    }
    KRT_RAISE(ErrorCode::InvalidArgument, "Invalid metadata type" << static_cast<unsigned int>(type));
}

boost::shared_ptr<YMetadataBase> YMetadataBase::ConstructFromFile(YFile& file, JobPathMapper mapper)
{
    return boost::make_shared<YUnixFileMetadata>(file, mapper);
}

// A document may name another kind than that of this object's class, so the cast is checked, too.
YWinFileMetadata& YMetadataBase::AsWinFileMetadata()
{
    constexpr const char* Detail = "AsWinFileMetadata may only be called on instances of YWinFileMetadata";
    KRT_ASSERT(GetMetadataType() == VAM_WINDOWS_METADATA_TYPE, Detail);
    auto* const self = dynamic_cast<YWinFileMetadata*>(this);
    KRT_RAISE_UNLESS(self, ErrorCode::InvalidUse, Detail);
    return *self;
}

YUnixFileMetadata& YMetadataBase::AsUnixFileMetadata()
{
    constexpr const char* Detail = "AsUnixFileMetadata may only be called on instances of YUnixFileMetadata";
    KRT_ASSERT(GetMetadataType() == VAM_UNIX_METADATA_TYPE, Detail);
    auto* const self = dynamic_cast<YUnixFileMetadata*>(this);
    KRT_RAISE_UNLESS(self, ErrorCode::InvalidUse, Detail);
    return *self;
}

bool YMetadataBase::RenamePath(const YJobPath& source, const YJobPath& destination)
{
    KRT_REQUIRE(source.GetComponentCount() > 0, "");
    YJobPath base = source;
    if (source.GetLeaf().IsFileSystem())
        base.RemoveLeaf();
    for (unsigned long i = 0; i < GetFilePathCount(); ++i) {
        const YJobPath path = GetFilePath(i);
        if (path.IsWithin(source)) {
            SetFilePath(GetSanitizedNewPath(path, base, destination));
            return true;
        }
    }
    return false;
}

} // namespace Backup::File
