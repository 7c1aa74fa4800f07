#include "agent/Record/NodeRecord.h"

#include "agent/Repository/Failure.h"
#include "agent/Repository/Utf8.h"

#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include "Krt/JSON/YValue.h"

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cstring>
#include <iterator>
#include <sys/stat.h>

namespace Agent {

using Backup::YJobPath;
using Backup::File::YMetadataBase;
using Backup::File::YUnixFileMetadata;
using Krt::YString;
using Repo::JsonReader;
using Repo::JsonWriter;
using Repo::Node;
using Repo::NodeType;

namespace {

std::string BinaryText(JsonReader& reader)
{
    Repo::Bytes bytes;
    reader.Binary(bytes);
    return std::string(Repo::AsText(bytes));
}

// The kernel would take a name up to NUL.
bool IsAttributeName(const std::string& name)
{
    return !name.empty() && name.find('\0') == std::string::npos;
}

void ReadAttributes(JsonReader& reader, std::vector<Repo::NodeAttribute>& attributes)
{
    reader.BeginArray();
    while (reader.NextItem()) {
        Repo::NodeAttribute& attribute = attributes.emplace_back();
        std::string_view key;
        reader.BeginObject();
        while (reader.NextKey(key)) {
            if (key == "name")
                attribute.name = BinaryText(reader);
            else if (key == "value")
                reader.Binary(attribute.value);
            else
                reader.Skip();
        }
        if (!IsAttributeName(attribute.name))
            reader.RaiseDamaged("the name of an attribute is empty or contains NUL");
    }
}

// The version comes first, so that a later one may change all that follows.
KbagentMember ReadMember(std::string_view json)
{
    KbagentMember member;
    JsonReader reader(json);
    std::string_view key;
    reader.BeginObject();
    bool isVersionKnown = false;
    while (reader.NextKey(key)) {
        if (key == "version") {
            const std::uint64_t version = reader.Unsigned();
            REPOSITORY_RAISE_UNLESS(version == KbagentMember::Version, Repo::Failure::Damaged,
                                    "version " << static_cast<unsigned long long>(version)
                                               << " is not supported");
            isVersionKnown = true;
        } else if (!isVersionKnown)
            reader.RaiseDamaged("the version does not come first");
        else if (key == "record")
            member.record = reader.Skip();
        else if (key == "user")
            member.user = BinaryText(reader);
        else if (key == "group")
            member.group = BinaryText(reader);
        else if (key == "extended_attributes")
            ReadAttributes(reader, member.attributes);
        else
            reader.Skip();
    }
    reader.End();
    if (!isVersionKnown)
        reader.RaiseDamaged("there is no version");
    return member;
}

// Times before 1970 are negative numbers in an unsigned type.
unsigned long long SecondsOf(const Repo::Timestamp& time)
{
    const bool isKnown = time.seconds != Repo::Timestamp::UnknownSeconds;
    return isKnown ? static_cast<unsigned long long>(time.seconds) : 0;
}

unsigned int KindOf(NodeType type)
{
    switch (type) {
    case NodeType::Directory:
        return S_IFDIR;
    case NodeType::Symlink:
        return S_IFLNK;
    case NodeType::BlockDevice:
        return S_IFBLK;
    case NodeType::CharacterDevice:
        return S_IFCHR;
    case NodeType::Fifo:
        return S_IFIFO;
    case NodeType::Socket:
        return S_IFSOCK;
    case NodeType::File:
        return S_IFREG;
    default:
        return 0;
    }
}

// An ODS object is stored as a directory.
bool HasTypeOf(YMetadataBase& record, const Node& node)
{
    const bool isDirectory = node.type == NodeType::Directory;
    switch (record.GetMetadataType()) {
    case Backup::File::VAM_ODS_METADATA_TYPE:
        return isDirectory;
    case Backup::File::VAM_WINDOWS_METADATA_TYPE:
        return record.AsWinFileMetadata().IsDirectoryAttributeSet() ? isDirectory
                                                                    : node.type == NodeType::File;
    default:
        break;
    }
    const YUnixFileMetadata& metadata = record.AsUnixFileMetadata();
    if (metadata.IsSymbolicLink() || metadata.IsDirectoryForRestore())
        return node.type == (metadata.IsSymbolicLink() ? NodeType::Symlink : NodeType::Directory);
    const unsigned int kind = metadata.GetModeFlags() & S_IFMT;
    return (kind == S_IFDIR ? S_IFREG : kind) == KindOf(node.type);
}

unsigned long long SizeOf(const Node& node)
{
    if (node.type == NodeType::File)
        return node.size;
    return node.type == NodeType::Symlink ? node.linkTarget.size() : 0;
}

void AddAttributes(const std::vector<Repo::NodeAttribute>& attributes, Krt::File::ExtendedAttributeMap& map)
{
    for (const Repo::NodeAttribute& attribute : attributes)
        map.insert_or_assign(
            YString(std::string_view(attribute.name)),
            Krt::Memory::YHeap<unsigned char>(attribute.value.data(), attribute.value.size()));
}

boost::shared_ptr<YMetadataBase> UnixRecordOf(const Node& node, const std::string& path,
                                              const KbagentMember& member)
{
    const auto record = boost::make_shared<YUnixFileMetadata>();
    const bool isDirectory = node.type == NodeType::Directory;
    record->SetFileSize(SizeOf(node));
    record->SetLastChangedTime(SecondsOf(node.ctime));
    record->SetLastWriteTime(SecondsOf(node.mtime));
    record->SetLastAccessTime(SecondsOf(node.atime));
    record->SetIsDirectoryForRestore(isDirectory);
    const unsigned int mode = Repo::MakeStatMode(node.mode);
    record->SetModeFlags(KindOf(node.type) | (mode & ~static_cast<unsigned int>(S_IFMT)));
    record->SetUserId(node.uid);
    record->SetGroupId(node.gid);
    if (node.type == NodeType::Symlink)
        record->SetSymbolicLinkTarget(Krt::File::YPath(YString(std::string_view(node.linkTarget))));
    record->SetFilePath(
        YJobPath::FromFilePath(YJobPath(), Krt::File::YPath(YString(std::string_view(path))), isDirectory));
    Krt::File::ExtendedAttributeMap attributes;
    AddAttributes(node.attributes, attributes);
    AddAttributes(member.attributes, attributes);
    record->SetExtendedAttributeMap(std::move(attributes));
    return record;
}

void CheckAttributeNames(YMetadataBase& record)
{
    if (record.GetMetadataType() != Backup::File::VAM_UNIX_METADATA_TYPE)
        return;
    const Krt::File::ExtendedAttributeMap map = record.AsUnixFileMetadata().GetExtendedAttributeMap();
    REPOSITORY_RAISE_UNLESS(std::all_of(map.begin(), map.end(),
                                        [](const auto& each) { return IsAttributeName(each.first.Bytes()); }),
                            Repo::Failure::Damaged, "the name of an attribute is empty or contains NUL");
}

// The record of a member that has one; null if there is none, or if it can't be used, which is noted.
boost::shared_ptr<YMetadataBase> ReadRecord(const Node& node, const KbagentMember& member, std::string& note)
{
    if (member.record.empty())
        return nullptr;
    try {
        const auto json = Krt::JSON::YValue::Parse(member.record);
        auto record =
            YMetadataBase::ConstructFromJson(json->AsObject(), [](Krt::File::YPath name, bool isContainer) {
                return YJobPath::FromFilePath(YJobPath(), std::move(name), isContainer);
            });
        REPOSITORY_RAISE_UNLESS(HasTypeOf(*record, node), Repo::Failure::Damaged,
                                "it is of another type than the node");
        CheckAttributeNames(*record);
        return record;
    } catch (const Krt::Exception::YError& error) {
        note = "The record of the member \"kbagent\" can't be used, so the fields of the node are: " +
               error.GetMessage().Bytes();
        return nullptr;
    }
}

} // namespace

std::vector<Repo::NodeAttribute> AttributesOf(const Krt::File::ExtendedAttributeMap& map)
{
    std::vector<Repo::NodeAttribute> attributes;
    attributes.reserve(map.size());
    for (const auto& [name, value] : map) {
        Repo::Bytes bytes(value.Size());
        if (!bytes.empty())
            std::memcpy(bytes.data(), value.RawOffset<unsigned char>(0, value.Size()), bytes.size());
        attributes.push_back({name.Bytes(), std::move(bytes)});
    }
    return attributes;
}

std::vector<Repo::NodeAttribute> TakeOddAttributes(std::vector<Repo::NodeAttribute>& attributes)
{
    std::vector<Repo::NodeAttribute> odd;
    const auto first =
        std::stable_partition(attributes.begin(), attributes.end(), [](const Repo::NodeAttribute& attribute) {
            return Repo::IsUtf8(attribute.name);
        });
    odd.assign(std::make_move_iterator(first), std::make_move_iterator(attributes.end()));
    attributes.erase(first, attributes.end());
    return odd;
}

void AppendKbagentMember(const KbagentMember& member, std::vector<Repo::RawMember>& members)
{
    if (member.IsEmpty())
        return;
    std::string json;
    JsonWriter writer(json);
    const auto text = [&writer](const std::string& bytes) {
        writer.Binary(Repo::AsBytes(bytes));
    };
    writer.BeginObject();
    writer.Key("version");
    writer.Number(KbagentMember::Version);
    if (!member.record.empty()) {
        writer.Key("record");
        writer.Raw(member.record);
    }
    if (member.user) {
        writer.Key("user");
        text(*member.user);
    }
    if (member.group) {
        writer.Key("group");
        text(*member.group);
    }
    if (!member.attributes.empty()) {
        writer.Key("extended_attributes");
        writer.BeginArray();
        for (const Repo::NodeAttribute& attribute : member.attributes) {
            writer.BeginObject();
            writer.Key("name");
            text(attribute.name);
            writer.Key("value");
            writer.Binary(attribute.value);
            writer.EndObject();
        }
        writer.EndArray();
    }
    writer.EndObject();
    members.push_back({KbagentMember::Key, std::move(json)});
}

std::optional<KbagentMember> ReadKbagentMember(const Node& node, std::string& note)
{
    for (const Repo::RawMember& raw : node.unknown) {
        if (!Repo::IsKey(raw.key, KbagentMember::Key))
            continue;
        try {
            return ReadMember(raw.json);
        } catch (const Repo::RepositoryError& error) {
            note = "The member \"kbagent\" can't be used, so the fields of the node are: " +
                   error.GetMessage().Bytes();
            return std::nullopt;
        }
    }
    return std::nullopt;
}

boost::shared_ptr<YMetadataBase> RecordOf(const Node& node, const std::string& path, std::string& note)
{
    const KbagentMember member = ReadKbagentMember(node, note).value_or(KbagentMember());
    if (auto record = ReadRecord(node, member, note))
        return record;
    return UnixRecordOf(node, path, member);
}

std::string FaultOfKbagentMember(const Node& node)
{
    std::string note;
    if (const auto member = ReadKbagentMember(node, note))
        ReadRecord(node, *member, note);
    return note;
}

} // namespace Agent
