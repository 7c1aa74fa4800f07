#include "agent/Restore/TargetLocation.h"

#include "Krt/Exception/Raise.h"

namespace Agent {

using Backup::YJobPath;
using Backup::File::YMetadataBase;
using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YPath;

namespace {

constexpr const char* NoPath = "The record has no path";

} // namespace

YJobPath RestoredPath(YMetadataBase& metadata, unsigned long index)
{
    const YJobPath path = metadata.GetFilePath(index);
    KRT_RAISE_UNLESS(path.GetComponentCount() != 0, ErrorCode::InvalidArgument, NoPath);
    if (metadata.GetMetadataType() == Backup::File::VAM_ODS_METADATA_TYPE)
        return path;
    return metadata.GetSanitizedNewPath(path, YJobPath(), YJobPath());
}

TargetLocation TargetLocationOf(YMetadataBase& metadata, unsigned long index)
{
    const YJobPath path = RestoredPath(metadata, index);
    TargetLocation location;
    for (unsigned long i = 0; i < path.GetComponentCount(); ++i) {
        const YString& name = path.GetComponent(i).m_name;
        const bool isSafe = !name.IsEmpty() && name != "." && name != ".." &&
                            name.Bytes().find_first_of(std::string_view("/\0", 2)) == std::string::npos;
        KRT_RAISE_UNLESS(isSafe, ErrorCode::InvalidArgument,
                         "Refused: the path has a component that no file may have: \"" << name << "\"");
        location.push_back(name);
    }
    return location;
}

YPath PathOf(const TargetLocation& location)
{
    std::string text;
    for (const YString& name : location)
        text += "/" + name.Bytes();
    return YPath(YString(text.empty() ? "/" : text));
}

void CheckHasPath(const YMetadataBase& metadata)
{
    KRT_RAISE_UNLESS(metadata.GetFilePathCount() != 0, ErrorCode::InvalidArgument, NoPath);
}

} // namespace Agent
