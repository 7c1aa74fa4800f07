#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include "testing/JobPaths.h"
#include "testing/LegacyHeaderBuilder.h"
#include "testing/LogCapture.h"
#include "testing/Raises.h"

#include "Krt/JSON/YValue.h"

#include <tuple>

using namespace Backup::File;
using namespace std::string_literals;
using Krt::ErrorCode;
using Krt::MessageType;
using Krt::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;
using namespace Testing;

namespace {

YUnixFileMetadata ConvertUnix(const std::string& header, JobPathMapper mapper = RecordingMapper())
{
    return YUnixFileMetadata(LegacyDocument("unix", header), mapper);
}

YWinFileMetadata ConvertWindows(const std::string& header, JobPathMapper mapper = RecordingMapper())
{
    return YWinFileMetadata(LegacyDocument("win", header), mapper);
}

const std::wstring OnePath = L"/C:/dir/long na\u00EFve*LONGNA~1\0\r"s;
const std::wstring TwoPaths = OnePath + L"/C:/other\0\r"s;

template <class Header, class Change>
std::string Changed(Header header, Change change)
{
    change(header);
    return header.Bytes();
}

} // namespace

TEST(LegacyGolden, EveryHeaderBecomesModernRecord)
{
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        {"unix-file", {"/home/ä file:0"}},
        // Never true for a link, though this one has the directory bit.
        {"unix-link", {"/home/link:0"}},
        {"win-file", {"/C:/dir/long naïve💾:0", "/C:/other:0"}},
        {"win-directory", {"/D:/dir:1"}}};
    for (const auto& [kind, calls] : cases) {
        SCOPED_TRACE(kind);
        RecordingMapper mapper;
        const auto document = YValue::Parse(ReadFile(GOLDEN_DIRECTORY "/legacy-" + kind + ".json"));
        const auto metadata = YMetadataBase::ConstructFromJson(document->AsObject(), mapper);
        EXPECT_EQ(YValue::FromObject(metadata->ToJSON()).Stringify(true).Bytes(),
                  ReadFile(GOLDEN_DIRECTORY "/legacy-" + kind + "-converted.json"));
        EXPECT_EQ(mapper.Calls(), calls);
    }
}

TEST(LegacyGolden, HeaderWithoutMapperRaises)
{
    // The header overrides all other keys.
    YObject json = YUnixFileMetadata().ToJSON();
    json.Set<YString>("legacy_metadata", "");
    EXPECT_RAISES(YUnixFileMetadata(json, RecordingMapper()), ErrorCode::InvalidArgument,
                  "PopulateFromLegacyUnixMetadata",
                  "Invalid legacy metadata: Buffer too small to contain a BASE_HDR");
    EXPECT_RAISES(ConvertUnix(SampleUnixFile().Bytes(), {}), ErrorCode::InvalidArgument, "throw_exception",
                  "call to empty boost::function");
    for (const char* type : {"unix", "win"}) {
        json.Set<YString>("metadata_type", type);
        EXPECT_RAISES(YMetadataBase::ConstructFromJson(json), ErrorCode::InvalidArgument, "FromJSON",
                      "1-argument version of FromJSON cannot convert legacy metadata.");
    }
}

TEST(LegacyUnixHeader, OwnFieldsOverrideMode)
{
    // Both lines show the link byte.
    const auto link = [](const std::string& byte, const std::string& mode) {
        return "General: Warning: legacy header isSymlink value " + byte +
               " disaggrees with S_ISLNK(modeFlags) value " + mode + ", using isSymlink";
    };
    const auto directory = [](const std::string& byte, const std::string& mode) {
        return "General: Warning: legacy header directory attribute value " + byte +
               " disaggrees with S_ISDIR(modeFlags) value " + mode + ", using directory attribute";
    };
    const auto expect = [](unsigned int mode, unsigned int attributes, unsigned char isSymlink,
                           const std::vector<std::string>& warnings) {
        const LogCapture log({"General"});
        const YUnixFileMetadata metadata = ConvertUnix(Changed(SampleUnixLink(), [&](auto& header) {
            header.modeFlags = mode;
            header.attributes = attributes;
            header.isSymlink = isSymlink;
        }));
        EXPECT_EQ(log.Texts(), warnings) << mode;
        EXPECT_EQ(metadata.IsDirectoryForRestore(), attributes == 0x10) << mode;
        EXPECT_EQ(metadata.IsSymbolicLink(), isSymlink != 0) << mode;
        EXPECT_EQ(metadata.GetModeFlags(), mode);
    };
    expect(0040755, 0x10, 0, {});
    expect(0100644, 0x10, 0, {directory("0", "0")});
    expect(0120777, 0, 2, {link("2", "1")});
    expect(0040755, 0, 1, {link("1", "0"), directory("1", "1")});
}

TEST(LegacyUnixHeader, EndBeforeNamesIsIgnored)
{
    const auto early = [](auto& header) {
        header.endOfNames = 0;
    };
    EXPECT_EQ(ConvertUnix(Changed(SampleUnixLink(), early)).GetSymbolicLinkTarget(), "abc");
    EXPECT_EQ(ConvertWindows(Changed(SampleWindowsFile(OnePath + L"\n", 1), early)).GetFilePathCount(), 1u);
}

TEST(LegacyUnixHeader, DamagedAttributesFailAfterOtherFields)
{
    YUnixFileMetadata metadata;
    const auto header = Changed(SampleUnixFile(), [](auto& file) { file.trailing = "\0\0\0\0"s; });
    EXPECT_RAISES_ON(metadata.FromJSON(LegacyDocument("unix", header), RecordingMapper()),
                     MessageType::Runtime, ErrorCode::InvalidArgument, "Initialize", "");
    EXPECT_EQ(metadata.GetFilePath(0).GetDisplayPath(), "job/home/a file");
}

TEST(LegacyWindowsHeader, ListEndsAtLineFeedOrEnd)
{
    const std::tuple<const char*, std::wstring, unsigned int> cases[] = {
        {"a line feed where an entry would begin", OnePath + L"\nrest", 1},
        {"a line feed at once", L"\n", 0},
        {"one inside an entry is text", L"a\nb\0\r"s, 1},
        {"the last NUL may lack the unit after it", L"a*b\0"s, 1}};
    for (const auto& [name, names, expected] : cases) {
        const std::string header = SampleWindowsFile(names, expected).Bytes();
        EXPECT_EQ(ConvertWindows(header).GetFilePathCount(), expected) << name;
    }
}

TEST(LegacyHeader, DamageRaises)
{
    constexpr const char* Unix = "PopulateFromLegacyUnixMetadata";
    constexpr const char* Windows = "PopulateFromLegacyWindowsMetadata";
    const std::string unixName =
        "Legacy unix file header parsing error: end of buffer reached while parsing filename";
    const std::string windowsName =
        "Legacy windows file header parsing error: end of buffer reached while parsing filename";
    LegacyUnixHeader plain = SampleUnixFile();
    plain.extendedAttributes.clear();
    const std::string unixFile = plain.Bytes(), link = SampleUnixLink().Bytes();
    const std::string windowsFile = SampleWindowsFile(OnePath, 1).Bytes();
    const auto ending = [](auto header, unsigned int end) {
        header.endOfNames = end;
        return header.Bytes();
    };
    const auto section = [&](const std::string& bytes) {
        return Changed(plain, [&](auto& header) { header.trailing = bytes; });
    };
    struct Row
    {
        const char* name;
        const char* type;
        std::string header;
        const char* function;
        std::string text;
        unsigned int channel = MessageType::General;
    };
    const std::vector<Row> rows = {
        {"no base header", "unix", unixFile.substr(0, 19), Unix,
         "Invalid legacy metadata: Buffer too small to contain a BASE_HDR"},
        {"another type", "unix", windowsFile.substr(0, 20), Unix,
         "Invalid legacy unix metadata: Expected type 1179995736 but actual type is 1093874483"},
        {"no file header", "unix", unixFile.substr(0, 77), Unix,
         "Invalid legacy unix metadata: Buffer too small to contain a UNIX_FILE_HDR"},
        {"no byte of a name, first limit", "unix", unixFile.substr(0, 78), "Cast", ""},
        {"no byte of a name, last", "unix", unixFile.substr(0, 81), "Cast", ""},
        {"an empty list", "unix", ending(plain, 0x51), Unix,
         "Legacy unix file header does not contain any file paths"},
        {"a path without an end", "unix", unixFile.substr(0, unixFile.size() - 1), Unix, unixName},
        {"a target without an end", "unix", link.substr(0, 0x54), Unix, unixName},
        {"a target as long as the list", "unix", ending(SampleUnixLink(), 0x54), Unix, unixName},
        {"a link without a path", "unix", link.substr(0, 0x55), Unix, unixName},
        {"a link's path without an end", "unix", link.substr(0, link.size() - 1), Unix, unixName},
        {"attributes after the buffer", "unix",
         Changed(plain, [](auto& header) { header.attributesOffset = 0xFFFFFFFF; }), "RawOffset", ""},
        {"a record of no length", "unix", section(LegacyAttributeRecord("a", "b", 0)), "Initialize", "",
         MessageType::Runtime},
        {"a record past the end", "unix", section(LegacyAttributeRecord("a", "b", 100)), "Initialize",
         "Current offset 100 total data 10"},
        {"a length that would wrap around", "unix", section(LegacyAttributeRecord("a", "b", 0xFFFFFFFF)),
         "Initialize", "Current offset 4294967295 total data 10"},
        {"a record shorter than its head", "unix", section("\x02\0"s), "RawOffset", ""},
        {"a name past the buffer", "unix", section(LegacyAttributeRecord("a", "b", {}, 1000)), "RawOffset",
         ""},
        {"a name past its record", "unix",
         section(LegacyAttributeRecord("a", "b", {}, 3) + LegacyAttributeRecord("c", "d")), "RawOffset", ""},
        {"another type", "win", unixFile, Windows,
         "Invalid legacy windows metadata: Expected type 1093874483 but actual type is 1179995736"},
        {"no file header", "win", windowsFile.substr(0, 135), Windows,
         "Invalid legacy windows metadata: Buffer too small to contain a WINDOWS_FILE_HDR"},
        {"no unit of a name, first limit", "win", windowsFile.substr(0, 136), "Cast", ""},
        {"no unit of a name, last", "win", windowsFile.substr(0, 139), "Cast", ""},
        {"not one whole unit", "win", ending(SampleWindowsFile(OnePath, 1), 0x8B), Windows,
         "Legacy windows file header does not contain any file paths"},
        {"an entry as long as the list", "win", ending(SampleWindowsFile(OnePath, 1), 0x88 + 4 * 3), Windows,
         windowsName},
        {"an entry without an end", "win", windowsFile.substr(0, 0x88 + 4 * 3), Windows, windowsName},
        {"a list after the buffer", "win", ending(SampleWindowsFile(OnePath, 1), 0xFFFFFFFF), Windows,
         windowsName},
        {"too few paths", "win", SampleWindowsFile(OnePath, 2).Bytes(), Windows,
         "Legacy windows file metadata parsing error. Expected 2 paths but found 1"},
        {"too many paths", "win", SampleWindowsFile(TwoPaths, 1).Bytes(), Windows,
         "Legacy windows file metadata parsing error. Expected 1 paths but found 2"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(std::string(row.type) + ": " + row.name);
        EXPECT_RAISES_ON(
            YMetadataBase::ConstructFromJson(LegacyDocument(row.type, row.header), RecordingMapper()),
            row.channel, ErrorCode::InvalidArgument, row.function, row.text);
    }
    EXPECT_RAISES(ConvertWindows(SampleWindowsFile(L"a\xDC00z\0\r"s, 1).Bytes()), ErrorCode::InvalidUtf16,
                  "Convert", "Invalid UTF-16 Sequence 56320");
}
