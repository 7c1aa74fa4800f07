#include "Backup/File/YSelectionPathDescriptor.h"

#include "Krt/File/File.h"
#include "Krt/JSON/YValue.h"
#include "Krt/Log/YStream.h"

namespace Backup::File {

using Krt::File::YPath;
using Krt::JSON::YObject;

YSelectionPathDescriptor::YSelectionPathDescriptor(const YPath& path,
                                                   const Krt::Match::Descriptor& descriptor,
                                                   RecursionType recursionType, SelectionType selectionType,
                                                   bool reportExclude)
    : YSelectionPathDescriptor(path,
                               YSelectionDescriptor(descriptor, recursionType, selectionType, reportExclude))
{}

YSelectionPathDescriptor::YSelectionPathDescriptor(const YPath& path, const YSelectionDescriptor& rule)
    : YSelectionDescriptor(rule), m_path(NormalizePathToPrimaryVolumeName(Krt::File::NormalizePathCase(path)))
{}

YPath YSelectionPathDescriptor::NormalizePathToPrimaryVolumeName(const YPath& path) const
{
    return path;
}

YObject YSelectionPathDescriptor::ToJSON() const
{
    YObject json = YSelectionDescriptor::ToJSON();
    json.Set<YString>("path", m_path);
    return json;
}

void YSelectionPathDescriptor::FromJSON(const YObject& json)
{
    YSelectionDescriptor::FromJSON(json);
    m_path = YPath(json.Get<YString>("path", MessageType::Runtime));
}

bool YSelectionPathDescriptor::operator<(const YSelectionPathDescriptor& other) const
{
    const auto order = m_path <=> other.m_path;
    return order != 0 ? order < 0 : YSelectionDescriptor::operator<(other);
}

Krt::YStream& operator<<(Krt::YStream& stream, const YSelectionPathDescriptor& rule)
{
    return stream << "path: " << rule.GetPath() << " " << static_cast<const YSelectionDescriptor&>(rule);
}

} // namespace Backup::File
