// Metadata of every kind: its JSON, its paths, and what each kind has of its own.
#include "Backup/File/YMetadataBase.h"

#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YOdsMetadata.h"
#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include "testing/JobPaths.h"
#include "testing/LogCapture.h"
#include "testing/ProcMounted.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/JSON/Members.h"
#include "Krt/JSON/YValue.h"

#include <algorithm>
#include <filesystem>
#include <sys/stat.h>
#include <tuple>

using namespace Backup::File;
using Backup::YJobPath;
using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using Testing::JobPath;
using Testing::RecordingMapper;

namespace {

std::string Text(const YObject& json)
{
    return YValue::FromObject(json).Stringify(true).Bytes();
}

// A kind that is not in the tables.
class YStranger : public YMetadataBase
{
public:
    YStranger() : YMetadataBase(static_cast<VAM_METADATA_TYPES>(9)) {}
    void SetFilePath(const YJobPath&) override {}
    void SetFilePath(unsigned long, const YJobPath&) override {}
    YJobPath GetFilePath(unsigned long) const override { return {}; }
    unsigned long GetFilePathCount() const override { return 0; }
    YJobPath GetSanitizedNewPath(const YJobPath&, const YJobPath&, const YJobPath&) override { return {}; }
};

// A document with one member replaced, or left out where the value is null.
YObject With(const YObject& json, const char* key, const boost::shared_ptr<YValue>& value)
{
    YObject changed;
    for (const auto& [name, old] : json.Entries()) {
        if (!(name == key) || value)
            changed.Put(name, name == key ? value : old);
    }
    return changed;
}

YUnixFileMetadata FromFile(const std::string& path, JobPathMapper mapper)
{
    YFile file(YFile::OPEN_MODE_READ, path.c_str(), YFile::OPT_NONE);
    return YUnixFileMetadata(file, mapper);
}

// Each key of the record, at any depth, must be among the keys, with the form of its value.
void ExpectListed(const YObject& record, const std::vector<Krt::JSON::MemberKey>& keys)
{
    using Krt::JSON::MemberForm;
    for (const auto& [name, value] : record.Entries()) {
        const auto key = std::find_if(keys.begin(), keys.end(), [&bytes = name.Bytes()](const auto& known) {
            return known.name == bytes;
        });
        ASSERT_NE(key, keys.end()) << name;
        EXPECT_EQ(value->IsObject(), key->form == MemberForm::Object) << name;
        EXPECT_EQ(value->IsArray(), key->form == MemberForm::Array) << name;
        if (value->IsObject())
            ExpectListed(value->AsObject(), key->inner);
        if (value->IsArray()) {
            for (const auto& item : value->AsArray())
                ExpectListed(item->AsObject(), key->inner);
        }
    }
}

} // namespace

TEST(MetadataGolden, RecordsAreWrittenAsRead)
{
    for (const std::string kind :
         {"unix-file", "unix-directory", "unix-link", "win-file", "win-directory", "ods"}) {
        SCOPED_TRACE(kind);
        const std::string golden = Testing::ReadFile(GOLDEN_DIRECTORY "/metadata-" + kind + ".json");
        RecordingMapper mapper;
        const auto document = YValue::Parse(golden);
        const auto metadata = YMetadataBase::ConstructFromJson(document->AsObject());
        EXPECT_EQ(Text(metadata->ToJSON()), golden);
        std::string text = "line ";
        metadata->StringifyTo(text);
        EXPECT_EQ(text, "line " + document->Stringify(true).Bytes());
        EXPECT_EQ(Text(YMetadataBase::ConstructFromJson(document->AsObject(), mapper)->ToJSON()), golden);
        EXPECT_TRUE(mapper.Calls().empty());
        ExpectListed(document->AsObject(), YMetadataBase::ListKeys());
    }
}

TEST(MetadataBase, ObjectConvertsOnlyToItsKind)
{
    YWinFileMetadata windows;
    YUnixFileMetadata unix;
    EXPECT_EQ(&windows.AsWinFileMetadata(), &windows);
    EXPECT_EQ(&unix.AsUnixFileMetadata(), &unix);

    const Testing::LogCapture log({"General"});
    const auto fitsNeither = [](YMetadataBase& metadata) {
        EXPECT_RAISES(metadata.AsUnixFileMetadata(), ErrorCode::InvalidUse, "AsUnixFileMetadata",
                      "AsUnixFileMetadata may only be called on instances of YUnixFileMetadata");
        EXPECT_RAISES(metadata.AsWinFileMetadata(), ErrorCode::InvalidUse, "AsWinFileMetadata",
                      "AsWinFileMetadata may only be called on instances of YWinFileMetadata");
    };
    YOdsMetadata ods{YJobPath()};
    fitsNeither(ods);
    EXPECT_EQ(log.Texts(),
              (std::vector<std::string>{
                  "YOdsMetadata: Assertion failed for (GetMetadataType() == VAM_UNIX_METADATA_TYPE); "
                  "AsUnixFileMetadata may only be called on instances of YUnixFileMetadata",
                  "YOdsMetadata: Assertion failed for (GetMetadataType() == VAM_WINDOWS_METADATA_TYPE); "
                  "AsWinFileMetadata may only be called on instances of YWinFileMetadata"}));
    // The kind in a document can differ from the class.
    YObject json = unix.ToJSON();
    json.Set<YString>("metadata_type", "win");
    unix.FromJSON(json);
    fitsNeither(unix);
    json = windows.ToJSON();
    json.Set<YString>("metadata_type", "unix");
    windows.FromJSON(json);
    fitsNeither(windows);
    EXPECT_RAISES(YStranger().ToJSON(), ErrorCode::InvalidArgument, "MetadataTypeAsString",
                  "Invalid metadataType: 9");
}

TEST(MetadataRename, EmptySourceRaises)
{
    YUnixFileMetadata metadata;
    testing::internal::CaptureStderr();
    const auto error = Testing::CatchError([&] { metadata.RenamePath(YJobPath(), JobPath({{0, "t"}})); });
    const std::string banner = testing::internal::GetCapturedStderr();
    EXPECT_EQ(error.value().GetCode(), ErrorCode::InvalidUse);
    EXPECT_TRUE(banner.starts_with("******** Abort due to required check: 'source.GetComponentCount() > 0' "))
        << banner;
}

TEST(OdsMetadata, FileOperationsRaise)
{
    const YJobPath path = JobPath({{0x1000, "store"}, {0x1001, "item"}});
    YOdsMetadata metadata(path);
    EXPECT_EQ(metadata.GetFilePath(7), path);
    EXPECT_RAISES(metadata.SetFilePath(path), ErrorCode::NotImplemented, "SetFilePath",
                  "SetFilePath doesn't make sense for ODS metadata");
    EXPECT_RAISES(metadata.SetFilePath(0, path), ErrorCode::NotImplemented, "SetFilePath",
                  "SetFilePath doesn't make sense for ODS metadata");
    EXPECT_RAISES(metadata.FromJSON(YObject(), JobPathMapper()), ErrorCode::NotImplemented, "FromJSON",
                  "No legacy metadata conversion for ODS");
    EXPECT_FALSE(metadata.RenamePath(JobPath({{0x1000, "shop"}}), path));
    EXPECT_RAISES(metadata.RenamePath(JobPath({{0x1000, "store"}}), path), ErrorCode::NotImplemented,
                  "GetSanitizedNewPath", "GetSanitizedNewPath doesn't make sense for ODS metadata");
    EXPECT_EQ(metadata.GetFilePath(0), path);
}

TEST(UnixFileMetadata, FileStatusIsCaptured)
{
    const Testing::TemporaryDirectory directory;
    const std::string path = directory.Write("file", "12345");
    const std::string folder = directory.MakeDirectory("folder");
    const std::string link = directory / "link";
    std::filesystem::create_directory_symlink("folder", link);
    std::filesystem::last_write_time(path, {}); // so that the status changed at another time
    const struct stat status = Testing::StatusOf(path);

    RecordingMapper mapper;
    YUnixFileMetadata file = FromFile(path, mapper);
    EXPECT_EQ(file.GetFileSize(), 5u);
    EXPECT_EQ(file.GetModeFlags(), status.st_mode);
    EXPECT_EQ(file.GetLastChangedTime(), static_cast<unsigned long long>(status.st_ctime));
    EXPECT_EQ(file.GetLastAccessTime(), 0u);
    EXPECT_EQ(file.GetFilePath(0).GetFilesystemPortion().Bytes(), path);
    EXPECT_FALSE(file.IsDirectoryForRestore() || file.IsSymbolicLink());
    EXPECT_RAISES(file.GetFilePath(1), ErrorCode::InvalidArgument, "GetFilePath",
                  "Invalid index passed to GetFilePath: 1");
    EXPECT_RAISES(file.SetFilePath(2, YJobPath()), ErrorCode::InvalidArgument, "SetFilePath",
                  "Invalid index passed to SetFilePath: 2");

    EXPECT_TRUE(FromFile(folder, mapper).IsDirectoryForRestore());
    const YUnixFileMetadata toFolder = FromFile(link, mapper);
    EXPECT_EQ(toFolder.GetSymbolicLinkTarget().Bytes(), "folder");
    EXPECT_FALSE(toFolder.IsDirectoryForRestore());
    EXPECT_EQ(mapper.Calls(), (std::vector<std::string>{path + ":0", folder + ":1", link + ":0"}));

    EXPECT_RAISES(FromFile(path, JobPathMapper()), ErrorCode::InvalidArgument, "throw_exception",
                  "call to empty boost::function");
}

using UnixFileMetadataOfAMount = Testing::ProcMounted;

TEST_F(UnixFileMetadataOfAMount, MapperGetsFalseForMountNotEntered)
{
    RecordingMapper mapper;
    EXPECT_TRUE(FromFile("/proc", mapper).IsDirectoryForRestore()) << "all the same";
    EXPECT_EQ(mapper.Calls(), std::vector<std::string>{"/proc:0"});
}

TEST(UnixFileMetadata, MissingKeyRaises)
{
    const YObject json = YUnixFileMetadata().ToJSON();
    ASSERT_EQ(json.Entries().size(), 12u);
    const auto flag = boost::make_shared<YValue>(YValue::FromBool(true));
    EXPECT_TRUE(YUnixFileMetadata(With(json, "is_directory", flag)).IsDirectoryForRestore());
    for (const auto& entry : json.Entries()) {
        const char* const key = entry.first.CStr();
        const auto error = Testing::CatchError([&] { YUnixFileMetadata{With(json, key, nullptr)}; });
        EXPECT_TRUE(error && error->GetMessageType() == MessageType::Runtime) << key;
    }
}

TEST(UnixFileMetadata, StringifyToMatchesJson)
{
    YUnixFileMetadata metadata;
    YJobPath path = JobPath({{0x602, "a\"b\\\n"}, {0x603, "\xff\xee\xbe\x80"}});
    path.AppendComponent({"", "shown", 7, 8});
    metadata.SetFilePath(path);
    metadata.SetFileSize(~0ull);
    metadata.SetIsDirectoryForRestore(true);
    metadata.SetSymbolicLinkTarget("to/\x01");
    metadata.SetExtendedAttributeMap({{"user.a", {}}, {"user.b", {"value", 5}}});
    for (const YUnixFileMetadata& each : {metadata, YUnixFileMetadata()}) {
        std::string text;
        each.StringifyTo(text);
        EXPECT_EQ(text, YValue::FromObject(each.ToJSON()).Stringify(true).Bytes());
    }
}

TEST(UnixFileMetadata, FailedReadKeepsEarlierFields)
{
    YUnixFileMetadata source;
    source.SetFileSize(7);
    source.SetSymbolicLinkTarget("target");
    YUnixFileMetadata metadata;
    metadata.SetExtendedAttributeMap({{"user.old", {}}});

    EXPECT_NE(Testing::ErrorOf([&] { metadata.FromJSON(With(source.ToJSON(), "group_id", nullptr)); }), "");
    EXPECT_EQ(metadata.GetFileSize(), 7u);
    EXPECT_FALSE(metadata.IsSymbolicLink());
    EXPECT_EQ(metadata.GetExtendedAttributeMap().size(), 1u);

    const YObject noAttributes = With(source.ToJSON(), "extended_attributes", nullptr);
    EXPECT_NE(Testing::ErrorOf([&] { metadata.FromJSON(noAttributes); }), "");
    EXPECT_TRUE(metadata.IsSymbolicLink());
    EXPECT_TRUE(metadata.GetExtendedAttributeMap().empty());
}

TEST(UnixFileMetadata, NewPathKeepsEveryCharacter)
{
    const YJobPath original = JobPath({{0x602, "a:?\\"}, {0x602, "b:"}, {0x603, "c?"}});
    const YJobPath destination = JobPath({{0x602, "t"}});
    const std::pair<YJobPath, const char*> cases[] = {{YJobPath(), "t/a:?\\/b:/c?"},
                                                      // Only the number of components counts.
                                                      {JobPath({{0, "x"}}), "t/b:/c?"},
                                                      {original, "t"}};
    YUnixFileMetadata metadata;
    for (const auto& [source, expected] : cases)
        EXPECT_EQ(metadata.GetSanitizedNewPath(original, source, destination).GetDisplayPath().Bytes(),
                  expected);
    EXPECT_RAISES(metadata.GetSanitizedNewPath(destination, original, destination), ErrorCode::InvalidUse,
                  "GetSanitizedNewPath", "replaceSource: a:?\\/b:/c? originalPath: t");
}

TEST(WinFileMetadata, DirectoryAttributeChoosesLastKey)
{
    const std::tuple<unsigned int, const char*, const char*> cases[] = {
        {0x20, "permission_change_time", "directory_hash"},
        {0x30, "directory_hash", "permission_change_time"}};
    for (const auto& [attributes, written, absent] : cases) {
        SCOPED_TRACE(written);
        YWinFileMetadata metadata;
        metadata.SetAttributes(attributes);
        metadata.SetDirectoryHash("hash");
        metadata.SetPermissionChangeTime(5);
        YObject json = metadata.ToJSON();
        ASSERT_EQ(json.Entries().size(), 9u);
        EXPECT_EQ(json.Entries().back().first.Bytes(), written);

        // The document may contain the other key, which is ignored.
        json.Set<YObject>(absent, YObject());
        EXPECT_EQ(YWinFileMetadata(json).ToJSON().Entries().size(), 9u);

        const YObject stray = With(json, written, nullptr);
        const auto error = Testing::CatchError([&] { YWinFileMetadata{stray}; });
        EXPECT_TRUE(error && error->GetMessageType() == MessageType::Runtime);
    }
}

TEST(WinFileMetadata, ShortNameIsKeptOnlyByIndex)
{
    const YJobPath first = JobPath({{0x602, "C:"}, {0x603, "one"}});
    const YJobPath second = JobPath({{0x602, "C:"}, {0x603, "two"}});
    const YJobPath other = JobPath({{0x602, "D:"}});
    YWinFileMetadata metadata;
    EXPECT_EQ(metadata.GetFilePathCount(), 0u);
    metadata.AddPath(first, "ONE~1");
    metadata.AddPath(second, "TWO~1");
    metadata.SetFilePath(1, other);
    EXPECT_EQ(metadata.GetPaths(), (YWinFileMetadata::Paths{{first, "ONE~1"}, {other, "TWO~1"}}));

    // Reading adds to the existing paths.
    metadata.FromJSON(metadata.ToJSON());
    EXPECT_EQ(
        metadata.GetPaths(),
        (YWinFileMetadata::Paths{{first, "ONE~1"}, {other, "TWO~1"}, {first, "ONE~1"}, {other, "TWO~1"}}));

    metadata.SetFilePath(second);
    EXPECT_EQ(metadata.GetPaths(), (YWinFileMetadata::Paths{{second, ""}}));
}

TEST(WinFileMetadata, NewPathHasVolumeAsDirectory)
{
    const YJobPath drive = JobPath({{0, "host:?"}, {0x602, "\\\\?\\C:/"}, {0x602, "a:?"}, {0x603, "b?"}});
    const YJobPath plain = JobPath({{0, "job:"}, {0, "x:"}});
    const YJobPath host = JobPath({{0, "host"}});
    const YJobPath volume = JobPath({{0, "host"}, {0x602, "C:"}});
    const YJobPath destination = JobPath({{0x602, "t:"}});
    const std::tuple<const char*, YJobPath, YJobPath, const char*> cases[] = {
        {"the volume alone is cleaned", drive, host, "t:/C/a:?/b?"},
        {"and no component in front of it", drive, YJobPath(), "t:/host:?/C/a:?/b?"},
        {"nothing, when it is replaced", drive, volume, "t:/a:?/b?"},
        {"without a volume the first counts", plain, YJobPath(), "t:/job/x:"},
        {"unless it is replaced", plain, host, "t:/x:"},
        {"nothing is left", drive, drive, "t:"}};
    YWinFileMetadata metadata;
    for (const auto& [name, original, source, expected] : cases) {
        const YJobPath path = metadata.GetSanitizedNewPath(original, source, destination);
        EXPECT_EQ(path.GetDisplayPath().Bytes(), expected) << name;
    }
    EXPECT_RAISES(metadata.GetSanitizedNewPath(host, volume, destination), ErrorCode::InvalidUse,
                  "GetSanitizedNewPath", "replaceSource: host/C: originalPath: host");

    YJobPath shown;
    shown.AppendComponent({"C:", "Disk C:", 0x602, 3});
    const YJobPath cleaned = metadata.GetSanitizedNewPath(shown, YJobPath(), YJobPath());
    EXPECT_EQ(cleaned.GetLeaf().m_name.Bytes(), "C");
    EXPECT_EQ(cleaned.GetLeaf().m_displayName.Bytes(), "Disk C:");
    EXPECT_EQ(cleaned.GetLeaf().m_subclassId, 3u);
}
