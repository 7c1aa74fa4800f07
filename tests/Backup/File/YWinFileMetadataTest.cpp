#include "Backup/File/YWinFileMetadata.h"

#include "testing/JobPaths.h"
#include "testing/Raises.h"

#include "Krt/JSON/YValue.h"

using namespace Backup::File;
using Backup::YJobPath;
using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::JSON::YObject;
using Testing::JobPath;

TEST(WinFileMetadata, TheAttributesChooseTheLastKey)
{
    const struct
    {
        unsigned int attributes;
        const char* written;
        const char* absent;
    } cases[] = {{0x20, "permission_change_time", "directory_hash"},
                 {0x30, "directory_hash", "permission_change_time"}};
    for (const auto& row : cases) {
        SCOPED_TRACE(row.written);
        YWinFileMetadata metadata;
        metadata.SetAttributes(row.attributes);
        metadata.SetDirectoryHash("hash");
        metadata.SetPermissionChangeTime(5);
        YObject json = metadata.ToJSON();
        ASSERT_EQ(json.Entries().size(), 9u);
        EXPECT_EQ(json.Entries().back().first.Bytes(), row.written);

        // The other key may stand in the document, and is not looked at.
        json.Set<YObject>(row.absent, YObject());
        EXPECT_EQ(YWinFileMetadata(json).ToJSON().Entries().size(), 9u);

        YObject stray;
        for (const auto& [key, value] : json.Entries()) {
            if (!(key == row.written))
                stray.Put(key, value);
        }
        const auto error = Testing::CatchError([&] { YWinFileMetadata{stray}; });
        EXPECT_TRUE(error && error->GetMessageType() == MessageType::Runtime);
    }
}

TEST(WinFileMetadata, PathsKeepOrLoseTheirShortNames)
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

    // Reading adds to what is there.
    metadata.FromJSON(metadata.ToJSON());
    EXPECT_EQ(
        metadata.GetPaths(),
        (YWinFileMetadata::Paths{{first, "ONE~1"}, {other, "TWO~1"}, {first, "ONE~1"}, {other, "TWO~1"}}));

    metadata.SetFilePath(second);
    EXPECT_EQ(metadata.GetPaths(), (YWinFileMetadata::Paths{{second, ""}}));
}

TEST(WinFileMetadata, NewPathsMakeADirectoryOfTheVolume)
{
    const YJobPath drive = JobPath({{0, "host:?"}, {0x602, "\\\\?\\C:/"}, {0x602, "a:?"}, {0x603, "b?"}});
    const YJobPath plain = JobPath({{0, "job:"}, {0, "x:"}});
    const YJobPath host = JobPath({{0, "host"}});
    const YJobPath volume = JobPath({{0, "host"}, {0x602, "C:"}});
    const YJobPath destination = JobPath({{0x602, "t:"}});
    const struct
    {
        const char* name;
        YJobPath original;
        YJobPath source;
        const char* expected;
    } cases[] = {{"the volume alone is cleaned", drive, host, "t:/C/a:?/b?"},
                 {"and no component in front of it", drive, YJobPath(), "t:/host:?/C/a:?/b?"},
                 {"nothing, when it is replaced", drive, volume, "t:/a:?/b?"},
                 {"without a volume the first counts", plain, YJobPath(), "t:/job/x:"},
                 {"unless it is replaced", plain, host, "t:/x:"},
                 {"nothing is left", drive, drive, "t:"}};
    YWinFileMetadata metadata;
    for (const auto& row : cases) {
        const YJobPath path = metadata.GetSanitizedNewPath(row.original, row.source, destination);
        EXPECT_EQ(path.GetDisplayPath().Bytes(), row.expected) << row.name;
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
