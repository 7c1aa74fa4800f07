#include "Backup/File/YMetadataBase.h"

#include "Backup/File/YOdsMetadata.h"
#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include "testing/JobPaths.h"
#include "testing/LogCapture.h"
#include "testing/Raises.h"

#include "Krt/JSON/YValue.h"

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

// Of a kind that no table holds.
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

} // namespace

TEST(MetadataGolden, EveryRecordIsWrittenAsItWasRead)
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
    }
}

TEST(MetadataBase, KindsAreExactWords)
{
    for (const char* word : {"UNIX", "", "win "}) {
        YObject json;
        json.Set<YString>("metadata_type", word);
        EXPECT_RAISES(YMetadataBase::ConstructFromJson(json), ErrorCode::InvalidArgument,
                      "MetadataTypeAsEnum", std::string("Invalid metadataType: ") + word);
    }
    EXPECT_RAISES(YStranger().ToJSON(), ErrorCode::InvalidArgument, "MetadataTypeAsString",
                  "Invalid metadataType: 9");
}

TEST(MetadataBase, AnObjectIsOnlyItsOwnKind)
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
    // The word of a document can say otherwise than the class.
    YObject json = unix.ToJSON();
    json.Set<YString>("metadata_type", "win");
    unix.FromJSON(json);
    fitsNeither(unix);
    json = windows.ToJSON();
    json.Set<YString>("metadata_type", "unix");
    windows.FromJSON(json);
    fitsNeither(windows);
}

TEST(MetadataRename, MovesAnItemOrReplacesAWhole)
{
    const YJobPath root = JobPath({{0, "job"}});
    const YJobPath file = JobPath({{0, "job"}, {0x602, "a"}, {0x603, "f"}});
    const YJobPath folder = JobPath({{0, "job"}, {0x602, "a"}});
    const YJobPath target = JobPath({{0, "other"}, {0x602, "t"}});
    const struct
    {
        const char* name;
        YJobPath path;
        YJobPath source;
        const char* expected;
    } cases[] = {{"the file itself keeps its name", file, file, "other/t/f"},
                 {"a folder above keeps its name", file, folder, "other/t/a/f"},
                 {"anything else is replaced", file, root, "other/t/a/f"},
                 {"and so is all of the path", root, root, "other/t"},
                 {"not within", folder, file, nullptr},
                 {"another class", JobPath({{0, "job"}, {0x603, "a"}}), folder, nullptr}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.name);
        YUnixFileMetadata metadata;
        metadata.SetFilePath(row.path);
        EXPECT_EQ(metadata.RenamePath(row.source, target), row.expected != nullptr);
        const std::string expected = row.expected ? row.expected : row.path.GetDisplayPath().Bytes();
        EXPECT_EQ(metadata.GetFilePath(0).GetDisplayPath().Bytes(), expected);
    }
}

TEST(MetadataRename, OfSeveralPathsTheFirstWithinSurvivesAlone)
{
    YWinFileMetadata metadata;
    metadata.AddPath(JobPath({{0x602, "D:"}, {0x603, "x"}}), "X");
    metadata.AddPath(JobPath({{0x602, "C:"}, {0x603, "y"}}), "Y");
    metadata.AddPath(JobPath({{0x602, "C:"}, {0x603, "z"}}), "Z");
    ASSERT_TRUE(metadata.RenamePath(JobPath({{0x602, "C:"}}), JobPath({{0x602, "t"}})));
    ASSERT_EQ(metadata.GetFilePathCount(), 1u);
    EXPECT_EQ(metadata.GetFilePath(0).GetDisplayPath().Bytes(), "t/C/y");
    EXPECT_TRUE(metadata.GetPaths()[0].second.IsEmpty());
}

TEST(MetadataRename, NeedsASource)
{
    YUnixFileMetadata metadata;
    testing::internal::CaptureStderr();
    const auto error = Testing::CatchError([&] { metadata.RenamePath(YJobPath(), JobPath({{0, "t"}})); });
    const std::string banner = testing::internal::GetCapturedStderr();
    EXPECT_EQ(error.value().GetCode(), ErrorCode::InvalidUse);
    EXPECT_TRUE(banner.starts_with("******** Abort due to required check: 'source.GetComponentCount() > 0' "))
        << banner;
}

TEST(OdsMetadata, RefusesWhatOnlyAFileHas)
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
