#include "Backup/File/YUnixFileMetadata.h"

#include "Backup/File/Unix/YFile.h"

#include "testing/JobPaths.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/JSON/YValue.h"

#include <filesystem>
#include <sys/stat.h>

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

} // namespace

TEST(UnixFileMetadata, TakesTheStatusOfALiveFile)
{
    const Testing::TemporaryDirectory directory;
    const std::string path = directory.Write("file", "12345");
    const std::string folder = directory.MakeDirectory("folder");
    const std::string link = directory / "link";
    std::filesystem::create_directory_symlink("folder", link);
    std::filesystem::last_write_time(path, {}); // so that the status changed at another time
    struct stat status;
    ASSERT_EQ(stat(path.c_str(), &status), 0);

    RecordingMapper mapper;
    const YUnixFileMetadata file = FromFile(path, mapper);
    EXPECT_EQ(file.GetFileSize(), 5u);
    EXPECT_EQ(file.GetModeFlags(), status.st_mode);
    EXPECT_EQ(file.GetLastChangedTime(), static_cast<unsigned long long>(status.st_ctime));
    EXPECT_EQ(file.GetLastAccessTime(), 0u);
    EXPECT_EQ(file.GetFilePath(0).GetFilesystemPortion().Bytes(), path);
    EXPECT_FALSE(file.IsDirectoryForRestore() || file.IsSymbolicLink());

    EXPECT_TRUE(FromFile(folder, mapper).IsDirectoryForRestore());
    const YUnixFileMetadata toFolder = FromFile(link, mapper);
    EXPECT_EQ(toFolder.GetSymbolicLinkTarget().Bytes(), "folder");
    EXPECT_FALSE(toFolder.IsDirectoryForRestore());
    EXPECT_EQ(mapper.Calls(), (std::vector<std::string>{path + ":0", folder + ":1", link + ":0"}));

    EXPECT_RAISES(FromFile(path, JobPathMapper()), ErrorCode::InvalidArgument, "throw_exception",
                  "call to empty boost::function");
}

TEST(UnixFileMetadata, TellsTheMapperWhatMayBeEntered)
{
    RecordingMapper mapper;
    struct stat own;
    struct stat above;
    if (stat("/proc", &own) != 0 || stat("/", &above) != 0 || own.st_dev == above.st_dev)
        GTEST_SKIP() << "/proc is not mounted here";
    // A directory for the restore all the same.
    EXPECT_TRUE(FromFile("/proc", mapper).IsDirectoryForRestore());
    EXPECT_EQ(mapper.Calls(), std::vector<std::string>{"/proc:0"});
}

TEST(UnixFileMetadata, EachKeyIsRequired)
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

TEST(UnixFileMetadata, ItsTextIsThatOfItsJson)
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

TEST(UnixFileMetadata, AFailureKeepsWhatWasReadBefore)
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

TEST(UnixFileMetadata, HasOnePath)
{
    const YJobPath path = JobPath({{0x603, "f"}});
    YUnixFileMetadata metadata;
    metadata.SetFilePath(0, path);
    EXPECT_EQ(metadata.GetFilePath(0), path);
    EXPECT_RAISES(metadata.GetFilePath(1), ErrorCode::InvalidArgument, "GetFilePath",
                  "Invalid index passed to GetFilePath: 1");
    EXPECT_RAISES(metadata.SetFilePath(2, path), ErrorCode::InvalidArgument, "SetFilePath",
                  "Invalid index passed to SetFilePath: 2");
}

TEST(UnixFileMetadata, NewPathsKeepEveryCharacter)
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
