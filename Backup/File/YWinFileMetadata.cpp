#include "Backup/File/YWinFileMetadata.h"

#include "Backup/File/LegacyVamHeader.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/JSON/Members.h"
#include "Krt/KrtFoundation/boostapi.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace Backup::File {

using Krt::File::YPath;
using Krt::JSON::KeyMembers;
using Krt::JSON::MemberKey;
using Krt::JSON::ReadMembers;
using Krt::JSON::TextMembers;
using Krt::JSON::ValueMembers;
using Krt::JSON::YObject;
using Bytes = Krt::Memory::YHeap<unsigned char>;

namespace {

using LegacyVamHeader::_tagWINDOWS_FILE_HDR;
constexpr const char* LegacyConversion = "PopulateFromLegacyWindowsMetadata";

void PopulateLegacyPaths(YWinFileMetadata& metadata, const Bytes& bytes, const _tagWINDOWS_FILE_HDR& header,
                         const JobPathMapper& mapper)
{
    constexpr unsigned long Names = offsetof(_tagWINDOWS_FILE_HDR, names);
    constexpr wchar_t EndOfList = 0x0A;
    // An end before the names is not refused: the length wraps around and limits nothing.
    unsigned long long unitsLeft = (static_cast<unsigned long long>(header.base.endOfNames) - Names) >> 2;
    if (unitsLeft == 0)
        KRT_RAISE_AS(LegacyConversion, MessageType::General, ErrorCode::InvalidArgument,
                     "Legacy windows file header does not contain any file paths");
    // The units that the header announces and the buffer contains; a list that exceeds the buffer is damaged.
    std::wstring units((bytes.Size() - Names) / sizeof(wchar_t), L'\0');
    std::memcpy(units.data(), header.names, units.size() * sizeof(wchar_t));
    std::wstring_view list = std::wstring_view(units).substr(0, unitsLeft);
    while (unitsLeft > 0 && !list.starts_with(EndOfList)) {
        const std::size_t length = list.find(L'\0');
        if (length == std::wstring_view::npos)
            KRT_RAISE_AS(
                LegacyConversion, MessageType::General, ErrorCode::InvalidArgument,
                "Legacy windows file header parsing error: end of buffer reached while parsing filename");
        const auto [longPath, shortName] = YString(list.data()).Split('*', true, false);
        metadata.AddPath(Krt::CallFunction(mapper, YPath(longPath), metadata.IsDirectoryAttributeSet()),
                         shortName);
        // The NUL is followed by one unit without meaning.
        unitsLeft -= std::min<unsigned long long>(length + 2, unitsLeft);
        list.remove_prefix(std::min(length + 2, list.size()));
    }
}

void PopulateFromLegacyWindowsMetadata(YWinFileMetadata& metadata, const Bytes& bytes, JobPathMapper mapper)
{
    if (const YString damage = LegacyVamHeader::FindDamage(bytes, LegacyVamHeader::WindowsFile);
        !damage.IsEmpty())
        KRT_RAISE(ErrorCode::InvalidArgument, damage);
    const _tagWINDOWS_FILE_HDR& header = *bytes.Cast<_tagWINDOWS_FILE_HDR>();
    metadata.SetFileSize(header.fileSize);
    metadata.SetAttributes(header.attributes);
    metadata.SetCreationTime(header.creationTime);
    metadata.SetLastAccessTime(header.accessTime);
    metadata.SetLastWriteTime(header.writeTime);
    metadata.SetReparseType(header.reparseType);
    if (metadata.IsDirectoryAttributeSet())
        metadata.SetDirectoryHash(YString());
    else
        metadata.SetPermissionChangeTime(header.permissionChangeTime);
    PopulateLegacyPaths(metadata, bytes, header, mapper);
    const unsigned long found = metadata.GetFilePathCount();
    KRT_RAISE_UNLESS(found == header.pathCount, ErrorCode::InvalidArgument,
                     "Legacy windows file metadata parsing error. Expected "
                         << static_cast<unsigned int>(header.pathCount) << " paths but found " << found);
}

} // namespace

YWinFileMetadata::YWinFileMetadata() : YMetadataBase(VAM_WINDOWS_METADATA_TYPE) {}

YWinFileMetadata::YWinFileMetadata(const YObject& json) : YMetadataBase(json)
{
    YWinFileMetadata::FromJSON(json);
}

YWinFileMetadata::YWinFileMetadata(const YObject& json, JobPathMapper mapper)
    : YMetadataBase(VAM_WINDOWS_METADATA_TYPE)
{
    YWinFileMetadata::FromJSON(json, mapper);
}

template <class Members, class Self>
void YWinFileMetadata::Describe(Members& members, Self& self)
{
    members.Number("reparse_type", self.m_reparseType);
    members.Number("file_size", self.m_fileSize);
    members.Number("creation_time", self.m_creationTime);
    members.Number("last_write_time", self.m_lastWriteTime);
    members.Number("last_access_time", self.m_lastAccessTime);
    members.Number("file_attributes", self.m_attributes);
    members.Objects("file_paths", self.m_paths, [](auto& element, auto& path) {
        element.Object("long", path.first);
        element.Text("short", path.second);
    });
    if (Members::ListsKeys || self.IsDirectoryAttributeSet())
        members.Text("directory_hash", self.m_directoryHash);
    if (Members::ListsKeys || !self.IsDirectoryAttributeSet())
        members.Number("permission_change_time", self.m_permissionChangeTime);
}

YObject YWinFileMetadata::ToJSON() const
{
    YObject json = YMetadataBase::ToJSON();
    ValueMembers members(json);
    Describe(members, *this);
    return json;
}

void YWinFileMetadata::StringifyTo(std::string& out) const
{
    WriteText(out, [this](TextMembers& members) { Describe(members, *this); });
}

void YWinFileMetadata::AppendKeys(std::vector<MemberKey>& keys)
{
    KeyMembers members(keys);
    const YWinFileMetadata record;
    Describe(members, record);
}

void YWinFileMetadata::FromJSON(const YObject& json)
{
    YMetadataBase::FromJSON(json);
    KRT_RAISE_UNLESS(!json.FindOpt("legacy_metadata"), ErrorCode::InvalidArgument,
                     "1-argument version of FromJSON cannot convert legacy metadata.");
    ReadMembers members(json);
    Describe(members, *this);
}

void YWinFileMetadata::FromJSON(const YObject& json, JobPathMapper mapper)
{
    YMetadataBase::FromJSON(json, mapper);
    if (const std::optional<Bytes> legacy = LegacyVamHeader::Extract(json))
        PopulateFromLegacyWindowsMetadata(*this, *legacy, mapper);
    else
        FromJSON(json);
}

void YWinFileMetadata::SetFilePath(const YJobPath& path)
{
    m_paths.clear();
    AddPath(path, YString());
}

void YWinFileMetadata::SetFilePath(unsigned long index, const YJobPath& path)
{
    m_paths[index].first = path;
}

YJobPath YWinFileMetadata::GetFilePath(unsigned long index) const
{
    return m_paths[index].first;
}

unsigned long YWinFileMetadata::GetFilePathCount() const
{
    return m_paths.size();
}

bool YWinFileMetadata::IsDirectoryAttributeSet() const
{
    return (m_attributes & Krt::File::AttributeDirectory) != 0;
}

void YWinFileMetadata::AddPath(YJobPath path, YString shortName)
{
    m_paths.emplace_back(std::move(path), std::move(shortName));
}

YJobPath YWinFileMetadata::GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                               const YJobPath& replaceDestination)
{
    KRT_ASSERT(replaceSource.GetComponentCount() <= originalPath.GetComponentCount(),
               "replaceSource: " << replaceSource.GetDisplayPath()
                                 << " originalPath: " << originalPath.GetDisplayPath());
    YJobPath result = replaceDestination;
    const unsigned long count = originalPath.GetComponentCount();
    unsigned long volume = originalPath.Find(0, YJobPath::ClassFileSystemContainer);
    if (volume == count)
        volume = 0;
    for (unsigned long i = replaceSource.GetComponentCount(); i < count; ++i) {
        YJobPath::Component component = originalPath.GetComponent(i);
        if (i == volume) {
            for (const char* const character : {":", "/", "\\", "?"})
                component.m_name.Replace(character, "", 0, 0xFFFFFFFF, true);
        }
        result.AppendComponent(component);
    }
    return result;
}

} // namespace Backup::File
