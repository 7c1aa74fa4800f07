#include "Backup/File/YUnixFileMetadata.h"

#include "Backup/File/LegacyVamHeader.h"
#include "Backup/File/Unix/File.h"
#include "Backup/File/Unix/YFile.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/JSON/Members.h"
#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Util/YVariableStructureParser.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Backup::File {

using Krt::File::ExtendedAttributeMap;
using Krt::File::YPath;
using Krt::JSON::KeyMembers;
using Krt::JSON::MemberKey;
using Krt::JSON::ReadMembers;
using Krt::JSON::TextMembers;
using Krt::JSON::ValueMembers;
using Krt::JSON::YObject;
using Bytes = Krt::Memory::YHeap<unsigned char>;

namespace {

using LegacyVamHeader::_tagUNIX_FILE_HDR;
using LegacyVamHeader::ExtendedAttributeRecord;
constexpr const char* LegacyConversion = "PopulateFromLegacyUnixMetadata";

void WarnOfLegacyConflicts(const _tagUNIX_FILE_HDR& header)
{
    const int isLink = (header.modeFlags & Krt::File::FileTypeMask) == Krt::File::FileTypeSymbolicLink;
    if (isLink != header.isSymlink)
        KRT_LOG_FREE(MessageType::General, "Warning: legacy header isSymlink value "
                                               << header.isSymlink
                                               << " disaggrees with S_ISLNK(modeFlags) value " << isLink
                                               << ", using isSymlink");
    const int isDirectory = (header.modeFlags & Krt::File::FileTypeMask) == Krt::File::FileTypeDirectory;
    const int hasDirectoryBit = (header.attributes & Krt::File::AttributeDirectory) != 0;
    // This message has always shown the link byte.
    if (isDirectory != hasDirectoryBit)
        KRT_LOG_FREE(MessageType::General, "Warning: legacy header directory attribute value "
                                               << header.isSymlink
                                               << " disaggrees with S_ISDIR(modeFlags) value " << isDirectory
                                               << ", using directory attribute");
}

// Returns the NUL-terminated text at the offset. A text that does not end inside the buffer is not read.
YString ReadLegacyName(const Bytes& bytes, unsigned long offset)
{
    const unsigned long left = bytes.Size() - std::min(offset, bytes.Size());
    if (left == 0 || std::memchr(bytes.RawOffset<char>(offset, left), 0, left) == nullptr)
        KRT_RAISE_AS(LegacyConversion, MessageType::General, ErrorCode::InvalidArgument,
                     "Legacy unix file header parsing error: end of buffer reached while parsing filename");
    return YString(bytes.RawOffset<char>(offset, left));
}

void PopulateLegacyNames(YUnixFileMetadata& metadata, const Bytes& bytes, const _tagUNIX_FILE_HDR& header,
                         const JobPathMapper& mapper)
{
    constexpr unsigned long Names = offsetof(_tagUNIX_FILE_HDR, names);
    // An end before the names is not refused: the length wraps around and limits nothing.
    const unsigned long long length = static_cast<unsigned long long>(header.base.endOfNames) - Names;
    if (length == 0)
        KRT_RAISE_AS(LegacyConversion, MessageType::General, ErrorCode::InvalidArgument,
                     "Legacy unix file header does not contain any file paths");
    const YString first = ReadLegacyName(bytes, Names);
    if (header.isSymlink == 0) {
        metadata.SetFilePath(Krt::CallFunction(mapper, YPath(first), metadata.IsDirectoryForRestore()));
        return;
    }
    metadata.SetSymbolicLinkTarget(YPath(first));
    if (first.Bytes().size() >= length)
        KRT_RAISE_AS(LegacyConversion, MessageType::General, ErrorCode::InvalidArgument,
                     "Legacy unix file header parsing error: end of buffer reached while parsing filename");
    const YString path = ReadLegacyName(bytes, Names + first.Bytes().size() + 2);
    metadata.SetFilePath(Krt::CallFunction(mapper, YPath(path), false));
}

// Checks the attributes without storing them: they were never part of the object, but a damaged section fails
// the whole entry.
void CheckLegacyExtendedAttributes(const Bytes& bytes, unsigned int offset)
{
    const char* const section = bytes.RawOffset<char>(offset, 0);
    const unsigned int size = Krt::NumericCast<unsigned int>(bytes.Size());
    Krt::Util::YVariableStructureParser parser;
    parser.Initialize(0, section, size - offset, false, false);
    ExtendedAttributeMap attributes;
    while (const void* const found = parser.GetNextRecord()) {
        const unsigned long at =
            offset + static_cast<unsigned long>(static_cast<const char*>(found) - section);
        ExtendedAttributeRecord record;
        std::memcpy(&record, bytes.RawOffset<char>(at, sizeof(record)), sizeof(record));
        const unsigned int nameLength = record.nameLength;
        // A name longer than its record makes the value's length wrap around and exceed any buffer.
        const unsigned int valueLength =
            record.length - static_cast<unsigned int>(sizeof(record)) - nameLength;
        const char* const name = bytes.RawOffset<char>(at + sizeof(record), nameLength);
        const auto* const value =
            bytes.RawOffset<unsigned char>(at + sizeof(record) + nameLength, valueLength);
        attributes.insert_or_assign(YString(name, name + nameLength), Bytes(value, valueLength));
    }
}

void PopulateFromLegacyUnixMetadata(YUnixFileMetadata& metadata, const Bytes& bytes, JobPathMapper mapper)
{
    if (const YString damage = LegacyVamHeader::FindDamage(bytes, LegacyVamHeader::UnixFile);
        !damage.IsEmpty())
        KRT_RAISE(ErrorCode::InvalidArgument, damage);
    const _tagUNIX_FILE_HDR& header = *bytes.Cast<_tagUNIX_FILE_HDR>();
    WarnOfLegacyConflicts(header);
    metadata.SetFileSize(header.fileSize);
    metadata.SetIsDirectoryForRestore((header.attributes & Krt::File::AttributeDirectory) != 0);
    metadata.SetLastChangedTime(header.changeTime);
    metadata.SetLastAccessTime(header.accessTime);
    metadata.SetLastWriteTime(header.writeTime);
    metadata.SetModeFlags(header.modeFlags);
    metadata.SetUserId(header.userId);
    metadata.SetGroupId(header.groupId);
    PopulateLegacyNames(metadata, bytes, header, mapper);
    CheckLegacyExtendedAttributes(bytes, header.extendedAttributes);
}

} // namespace

YUnixFileMetadata::YUnixFileMetadata() : YMetadataBase(VAM_UNIX_METADATA_TYPE) {}

YUnixFileMetadata::YUnixFileMetadata(YFile& file, JobPathMapper mapper) : YUnixFileMetadata()
{
    m_fileSize = file.GetSize();
    m_lastChangedTime = file.GetLastChangedTime();
    m_lastWriteTime = file.GetLastWriteTime();
    m_modeFlags = file.GetModeFlags();
    m_isDirectory = (m_modeFlags & Krt::File::FileTypeMask) == Krt::File::FileTypeDirectory;
    m_userId = file.GetUID();
    m_groupId = file.GetGID();
    m_lastAccessTime = 0;
    if (file.IsSymbolicLink())
        m_symbolicLinkTarget = file.GetSymbolicLinkTarget();
    YPath path = file.GetPath();
    const bool followable = IsFollowableDirectoryFromKrtAttributes(path, file.LookUpAttributes());
    m_filePath = Krt::CallFunction(mapper, std::move(path), followable);
    m_extendedAttributes = file.GetExtendedAttributeMap();
}

YUnixFileMetadata::YUnixFileMetadata(const YObject& json) : YMetadataBase(json)
{
    FromJSON(json);
}

YUnixFileMetadata::YUnixFileMetadata(const YObject& json, JobPathMapper mapper)
    : YMetadataBase(VAM_UNIX_METADATA_TYPE)
{
    FromJSON(json, mapper);
}

template <class Members, class Self>
void YUnixFileMetadata::Describe(Members& members, Self& self)
{
    members.Number("file_size", self.m_fileSize);
    members.Number("last_changed_time", self.m_lastChangedTime);
    members.Number("last_write_time", self.m_lastWriteTime);
    members.Number("last_access_time", self.m_lastAccessTime);
    members.Number("mode_flags", self.m_modeFlags);
    members.Number("is_directory", self.m_isDirectory);
    members.Number("user_id", self.m_userId);
    members.Number("group_id", self.m_groupId);
    members.Object("file_path", self.m_filePath);
    members.Text("symbolic_link_target", self.m_symbolicLinkTarget);
    if constexpr (Members::Reads)
        self.m_extendedAttributes.clear();
    members.Objects("extended_attributes", self.m_extendedAttributes, [](auto& element, auto& attribute) {
        // A reader reads the value first, so damage in it is reported before damage in the name.
        if constexpr (Members::Reads)
            element.Binary("value", attribute.second);
        element.Text("name", attribute.first);
        if constexpr (!Members::Reads)
            element.Binary("value", attribute.second);
    });
}

YObject YUnixFileMetadata::ToJSON() const
{
    YObject json = YMetadataBase::ToJSON();
    ValueMembers members(json);
    Describe(members, *this);
    return json;
}

void YUnixFileMetadata::StringifyTo(std::string& out) const
{
    WriteText(out, [this](TextMembers& members) { Describe(members, *this); });
}

void YUnixFileMetadata::AppendKeys(std::vector<MemberKey>& keys)
{
    KeyMembers members(keys);
    const YUnixFileMetadata record;
    Describe(members, record);
}

void YUnixFileMetadata::FromJSON(const YObject& json)
{
    YMetadataBase::FromJSON(json);
    KRT_RAISE_UNLESS(!json.FindOpt("legacy_metadata"), ErrorCode::InvalidArgument,
                     "1-argument version of FromJSON cannot convert legacy metadata.");
    ReadMembers members(json);
    Describe(members, *this);
}

void YUnixFileMetadata::FromJSON(const YObject& json, JobPathMapper mapper)
{
    YMetadataBase::FromJSON(json, mapper);
    if (const std::optional<Bytes> legacy = LegacyVamHeader::Extract(json))
        PopulateFromLegacyUnixMetadata(*this, *legacy, mapper);
    else
        FromJSON(json);
}

void YUnixFileMetadata::SetFilePath(const YJobPath& path)
{
    m_filePath = path;
}

void YUnixFileMetadata::SetFilePath(unsigned long index, const YJobPath& path)
{
    KRT_RAISE_UNLESS(index == 0, ErrorCode::InvalidArgument,
                     "Invalid index passed to SetFilePath: " << index);
    m_filePath = path;
}

YJobPath YUnixFileMetadata::GetFilePath(unsigned long index) const
{
    KRT_RAISE_UNLESS(index == 0, ErrorCode::InvalidArgument,
                     "Invalid index passed to GetFilePath: " << index);
    return m_filePath;
}

unsigned long YUnixFileMetadata::GetFilePathCount() const
{
    return 1;
}

YJobPath YUnixFileMetadata::GetSanitizedNewPath(const YJobPath& originalPath, const YJobPath& replaceSource,
                                                const YJobPath& replaceDestination)
{
    KRT_ASSERT(replaceSource.GetComponentCount() <= originalPath.GetComponentCount(),
               "replaceSource: " << replaceSource.GetDisplayPath()
                                 << " originalPath: " << originalPath.GetDisplayPath());
    YJobPath result = replaceDestination;
    result.Append(
        YJobPath(originalPath, replaceSource.GetComponentCount(), originalPath.GetComponentCount()));
    return result;
}

} // namespace Backup::File
