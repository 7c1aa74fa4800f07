#include "Backup/File/YWinFileMetadata.h"

#include "Backup/File/LegacyVamHeader.h"

#include "Krt/Crypto/Base64.h"
#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"
#include "Krt/KrtFoundation/boostapi.h"

#include <algorithm>
#include <cstring>
#include <string_view>

namespace Backup::File {

using Krt::File::YPath;
using Krt::JSON::YArray;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Bytes = Krt::Memory::YHeap<unsigned char>;

namespace {

constexpr unsigned int AttributeDirectory = 0x10;

using LegacyVamHeader::_tagBASE_HDR;
using LegacyVamHeader::_tagWINDOWS_FILE_HDR;
constexpr const char* LegacyConversion = "PopulateFromLegacyWindowsMetadata";

const _tagWINDOWS_FILE_HDR& ReadLegacyHeader(const Bytes& bytes)
{
    if (bytes.Size() < sizeof(_tagBASE_HDR))
        KRT_RAISE_AS(LegacyConversion, MessageType::General, ErrorCode::InvalidArgument,
                     "Invalid legacy metadata: Buffer too small to contain a BASE_HDR");
    const unsigned int type = bytes.Cast<_tagBASE_HDR>()->type;
    if (type != LegacyVamHeader::WindowsFileType)
        KRT_RAISE_AS(LegacyConversion, MessageType::General, ErrorCode::InvalidArgument,
                     "Invalid legacy windows metadata: Expected type " << LegacyVamHeader::WindowsFileType
                                                                       << " but actual type is " << type);
    if (bytes.Size() < LegacyVamHeader::WindowsFileHeaderMinimum)
        KRT_RAISE_AS(LegacyConversion, MessageType::General, ErrorCode::InvalidArgument,
                     "Invalid legacy windows metadata: Buffer too small to contain a WINDOWS_FILE_HDR");
    return *bytes.Cast<_tagWINDOWS_FILE_HDR>();
}

void PopulateLegacyPaths(YWinFileMetadata& metadata, const Bytes& bytes, const _tagWINDOWS_FILE_HDR& header,
                         const JobPathMapper& mapper)
{
    constexpr unsigned long Names = offsetof(_tagWINDOWS_FILE_HDR, names);
    constexpr wchar_t EndOfList = 0x0A;
    // An end in front of the names is not refused: the length wraps around and bounds nothing.
    unsigned long long unitsLeft = (static_cast<unsigned long long>(header.base.endOfNames) - Names) >> 2;
    if (unitsLeft == 0)
        KRT_RAISE_AS(LegacyConversion, MessageType::General, ErrorCode::InvalidArgument,
                     "Legacy windows file header does not contain any file paths");
    // The units that the header promises and the buffer holds; running out of the latter means damage.
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
        // One unit of no meaning stands behind the NUL.
        unitsLeft -= std::min<unsigned long long>(length + 2, unitsLeft);
        list.remove_prefix(std::min(length + 2, list.size()));
    }
}

void PopulateFromLegacyWindowsMetadata(YWinFileMetadata& metadata, const Bytes& bytes, JobPathMapper mapper)
{
    const _tagWINDOWS_FILE_HDR& header = ReadLegacyHeader(bytes);
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

YObject YWinFileMetadata::ToJSON() const
{
    YObject json = YMetadataBase::ToJSON();
    PutNumber(json, "reparse_type", m_reparseType);
    PutNumber(json, "file_size", m_fileSize);
    PutNumber(json, "creation_time", m_creationTime);
    PutNumber(json, "last_write_time", m_lastWriteTime);
    PutNumber(json, "last_access_time", m_lastAccessTime);
    PutNumber(json, "file_attributes", m_attributes);
    YArray paths;
    paths.reserve(m_paths.size());
    for (const auto& [path, shortName] : m_paths) {
        YObject element;
        element.Put("long", YValue::Create<YObject>(path.ToJSON()));
        element.Put("short", YValue::Create<YString>(shortName));
        paths.push_back(YValue::Create<YObject>(std::move(element)));
    }
    json.Put("file_paths", YValue::Create<YArray>(std::move(paths)));
    if (IsDirectoryAttributeSet())
        json.Put("directory_hash", YValue::Create<YString>(m_directoryHash));
    else
        PutNumber(json, "permission_change_time", m_permissionChangeTime);
    return json;
}

void YWinFileMetadata::FromJSON(const YObject& json)
{
    YMetadataBase::FromJSON(json);
    KRT_RAISE_UNLESS(!json.FindOpt("legacy_metadata"), ErrorCode::InvalidArgument,
                     "1-argument version of FromJSON cannot convert legacy metadata.");
    m_reparseType = json.Get<unsigned int>("reparse_type", MessageType::Runtime);
    m_fileSize = json.Get<unsigned long long>("file_size", MessageType::Runtime);
    m_creationTime = json.Get<unsigned long long>("creation_time", MessageType::Runtime);
    m_lastWriteTime = json.Get<unsigned long long>("last_write_time", MessageType::Runtime);
    m_lastAccessTime = json.Get<unsigned long long>("last_access_time", MessageType::Runtime);
    m_attributes = json.Get<unsigned int>("file_attributes", MessageType::Runtime);
    for (const boost::shared_ptr<YValue>& value : json.Get<YArray>("file_paths", MessageType::Runtime)) {
        const YObject& element = value->AsObject();
        const YJobPath& path = element.Get<YJobPath>("long", MessageType::Runtime);
        m_paths.emplace_back(path, element.Get<YString>("short", MessageType::Runtime));
    }
    if (IsDirectoryAttributeSet())
        m_directoryHash = json.Get<YString>("directory_hash", MessageType::Runtime);
    else
        m_permissionChangeTime = json.Get<unsigned long long>("permission_change_time", MessageType::Runtime);
}

void YWinFileMetadata::FromJSON(const YObject& json, JobPathMapper mapper)
{
    YMetadataBase::FromJSON(json, mapper);
    if (!json.FindOpt("legacy_metadata")) {
        FromJSON(json);
        return;
    }
    const YString& text = json.Get<YString>("legacy_metadata", MessageType::Runtime);
    PopulateFromLegacyWindowsMetadata(*this, Krt::Crypto::Base64DecodeData(text), mapper);
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
    return (m_attributes & AttributeDirectory) != 0;
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
