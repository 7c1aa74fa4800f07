// Reading records of each form, and converting and renaming them.
#include "agent/Convert/Convert.h"
#include "agent/Convert/RecordReader.h"
#include "agent/Run/Interrupt.h"

#include "testing/Program.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <thread>
#include <tuple>

using namespace Agent;
using namespace std::string_literals;
using Backup::YJobPath;
using Backup::File::YMetadataBase;
using Krt::JSON::YValue;
using Testing::ReadFile;
using Testing::RunProgram;
using Lines = std::vector<std::string>;

namespace {

std::string Golden(const std::string& name)
{
    return ReadFile(GOLDEN_DIRECTORY "/" + name + ".json");
}

struct Case
{
    const char* name;
    std::string text;
    std::string records; // "LINE RECORD", or "LINE: REASON" for damage, separated by " | "
};

void Check(const std::vector<Case>& cases)
{
    const Testing::TemporaryDirectory directory;
    for (const Case& row : cases) {
        RecordReader reader(directory.Write("input", row.text));
        std::string records;
        for (InputRecord record; reader.Next(record);)
            records +=
                (records.empty() ? "" : " | ") + std::to_string(record.line) +
                (record.json ? " " + record.json->Stringify(true).Bytes() : ": " + record.reason.Bytes());
        EXPECT_EQ(records, row.records) << row.name;
    }
}

// Components separated by "|", files in brackets.
std::string Text(const YJobPath& path)
{
    std::string text;
    for (unsigned long i = 0; i < path.GetComponentCount(); ++i) {
        const YJobPath::Component& component = path.GetComponent(i);
        const bool isFile = component.m_classId == YJobPath::ClassFileSystemFile;
        text +=
            (i == 0 ? "" : "|") + (isFile ? "[" + component.m_name.Bytes() + "]" : component.m_name.Bytes());
    }
    return text;
}

std::string UnixRecord(const std::string& components)
{
    return R"({"metadata_type":"unix","file_size":0,"last_changed_time":0,"last_write_time":0,)"
           R"("last_access_time":0,"mode_flags":33188,"is_directory":0,"user_id":0,"group_id":0,)"
           R"("file_path":{"components":[)" +
           components + R"(]},"symbolic_link_target":"","extended_attributes":[]})";
}

std::string Component(int classId, const std::string& name)
{
    return "{\"class_id\":" + std::to_string(classId) + ",\"subclass_id\":0,\"name\":\"" + name + "\"}";
}

TEST(RecordReader, ReadsEachForm)
{
    Check({
        {"nothing", "\n \r\n", ""},
        {"lines", "{\"a\":1}\n\n{\"a\":2}\r\n  {\"a\":3}", "1 {\"a\":1} | 3 {\"a\":2} | 4 {\"a\":3}"},
        {"byte order mark", "\xEF\xBB\xBF{\"a\":1}", "1 {\"a\":1}"},
        {"documents", "\n{\n  \"a\": [\n    {},\n    1\n  ]\n}\n{\n\"b\":\n{}\n}\n{\"c\":3}\n",
         "2 {\"a\":[{},1]} | 8 {\"b\":{}} | 12 {\"c\":3}"},
        {"documents in one line", "{\"a\":1}{\"a\":\"}\\\"{\"} \n{\n} {}",
         "1 {\"a\":1} | 1 {\"a\":\"}\\\"{\"} | 2 {} | 3 {}"},
        {"array in a line", "[{\"a\":1},{\"a\":\"[,]}\"}]", "1 {\"a\":1} | 1 {\"a\":\"[,]}\"}"},
        {"array over lines", "[\n  {\n    \"a\": [\n      {}\n    ]\n  },\n  {}\n]\n",
         "2 {\"a\":[{}]} | 7 {}"},
        {"empty array", " [ ]", ""},
    });
}

TEST(RecordReader, DamagedLineIsSkipped)
{
    const std::string syntax = "Invalid JSON text: syntax error at offset ";
    const std::string cut = "Invalid JSON text: incomplete JSON at offset ";
    const std::string notAnObject = "This is not a JSON object", text(RecordReader::RecordLimit, 'x');
    const std::string longest = "{\"a\":\"" + text.substr(8) + "\"}";
    Check({
        {"words", "{}\ngarbage\n{}", "1 {} | 2: " + syntax + "0 | 3 {}"},
        {"other values", "null\n[1]\n\"{\"\n{}",
         "1: Invalid JSON text: null that is not a member of an object at offset 0 | 2: " + notAnObject +
             " | 3: " + notAnObject + " | 4 {}"},
        {"cut off in the first line", "{\"a\":\"b\n{}", "1: " + cut + "7 | 2 {}"},
        {"brackets that don't match", "{\"a\":[1}\n{}", "1: " + syntax + "7 | 2 {}"},
        {"more in the line", "{}\n{} x\n{}", "1 {} | 2: Invalid JSON text: extra data at offset 3 | 3 {}"},
        {"number out of range", "{\"a\":-1}\n{}", "1: Invalid JSON text: negative number at offset 5 | 2 {}"},
        {"NUL", "{\"a\":\"\0\"}\n\0\n{}"s, "1: " + syntax + "6 | 2: " + syntax + "0 | 3 {}"},
        {"cut off by the end of the input", "{}\n{\"a\":", "1 {} | 2: " + cut + "5"},
        {"longest record", longest + "\n{}", "1 " + longest + " | 2 {}"},
        {"longer", "{\"a\":\"" + text + "\"}\n{}", "1: This record is longer than 16777216 bytes | 2 {}"},
    });
}

TEST(RecordReader, DamageEndsArrayAndDocuments)
{
    const auto end = [](int offset) {
        return "; reading ends here, at byte " + std::to_string(offset);
    };
    const std::string text(RecordReader::RecordLimit, 'x');
    Check({
        {"document that can't be parsed", "{\n}\n{\"a\n\":1}\n{}",
         "1 {} | 3: Invalid JSON text: syntax error at offset 3" + end(4)},
        {"document cut off", "{\n}\n{\"a\":\n", "1 {} | 3: The input ends within this record" + end(4)},
        {"document with more after it", "{\n} x\n{}", "1 {} | 2: This is not a JSON object" + end(4)},
        {"document too long", "{\n\"a\":\"" + text + "\"\n}\n{}",
         "1: This record is longer than 16777216 bytes" + end(0)},
        {"element that is not an object", "[{}, 1, {}]", "1 {} | 1: This is not a JSON object" + end(5)},
        {"element cut off", "[{},\n{", "1 {} | 2: The input ends within this record" + end(5)},
        {"array cut off", "[{},\n", "1 {} | 2: The input ends within an array" + end(5)},
        {"array cut off after an element", "[{}", "1 {} | 1: The input ends within an array" + end(3)},
        {"comma missing", "[{}{}]", "1 {} | 1: There is no comma before this record" + end(3)},
        {"comma before the end", "[{},]", "1 {} | 1: This is not a JSON object" + end(4)},
        {"more after the array", "[{}]\n{}", "1 {} | 2: There is more after the end of the array" + end(5)},
    });
}

TEST(PathMapping, WindowsPathsBecomeComponents)
{
    const std::string guid = "\\\\?\\Volume{b75e2c83-0000-0000-0000-602f00000000}";
    const std::string shadow = "\\\\?\\GLOBALROOT\\Device\\HarddiskVolumeShadowCopy3";
    // What becomes of a path, shown for that of a file.
    const std::tuple<const char*, std::string, std::string> cases[] = {
        {"drive", "C:\\dir\\f", "C:|dir|[f]"},
        {"drive alone", "C:\\", "C:"},
        {"drive without a separator", "C:f", "C:|[f]"},
        {"drive after a slash", "/C:/dir/f", "C:|dir|[f]"},
        {"both separators", "C:\\dir/x\\\\y\\", "C:|dir|x|[y]"},
        {"name like a drive", "C:\\D:\\f", "C:|D:|[f]"},
        {"name like a drive, at once", "C:D:\\f", "C:|D:|[f]"},
        {"long form", "\\\\?\\d:\\dir\\f", "\\\\?\\d:|dir|[f]"},
        {"volume", guid + "\\dir\\f", guid + "|dir|[f]"},
        {"volume alone", guid + "\\", guid},
        {"volume with slashes", guid + "/dir/f", guid + "|dir|[f]"},
        {"shadow copy", shadow + "\\dir\\f", shadow + "|dir|[f]"},
        {"server", "\\\\server\\share\\f", "server|share|[f]"},
        {"server in the long form", "\\\\?\\UNC\\server\\share\\f", "UNC|server|share|[f]"},
        {"names of dots", "C:\\.\\..\\...", "C:|..|[...]"},
    };
    const auto mapper = MakeWindowsMapper(YJobPath("job"));
    for (const auto& [name, path, text] : cases) {
        SCOPED_TRACE(name);
        EXPECT_EQ(Text(mapper(Krt::File::YPath(path.c_str()), false)), "job|" + text);
        std::string directory = text;
        std::erase_if(directory, [](char byte) { return byte == '[' || byte == ']'; });
        EXPECT_EQ(Text(mapper(Krt::File::YPath(path.c_str()), true)), "job|" + directory);
    }
    // A Unix name is never taken apart.
    EXPECT_EQ(Text(MakeUnixMapper(YJobPath())("/a/C:\\b\\c", false)), "a|[C:\\b\\c]");
}

class Convert : public ::testing::Test
{
protected:
    Testing::ProgramResult Run(const std::string& text, Lines arguments = {"convert"}) const
    {
        arguments.push_back(directory.Write("input", text));
        return RunProgram(arguments);
    }

    Testing::TemporaryDirectory directory;
};

TEST_F(Convert, LegacyFormsBecomeModern)
{
    for (const std::string kind : {"unix-file", "unix-link", "win-file", "win-directory"}) {
        const auto result = Run(Golden("legacy-" + kind), {"convert", "--base", "job"});
        EXPECT_EQ(result.output, Golden("legacy-" + kind + "-converted") + "\n");
        EXPECT_EQ(result.errors, "") << kind;
        EXPECT_EQ(result.exitCode, 0) << kind;
    }
}

TEST_F(Convert, FailedRecordsAreReportedAndOthersConverted)
{
    const std::string good = Golden("metadata-unix-file");
    const auto result = Run("{\"metadata_type\":\"UNIX\"}\n" + good + "\n{}\n" +
                            R"({"metadata_type":"unix","legacy_metadata":"AAAA"})" + "\n{\n" + good + "\n" +
                            UnixRecord(R"({"class_id":4294967296,"subclass_id":0,"name":"a"})"));
    EXPECT_EQ(result.output, good + "\n" + good + "\n");
    EXPECT_EQ(result.exitCode, 3);
    EXPECT_EQ(result.errors,
              "kbagent: line 1: Invalid metadataType: UNIX\n"
              "kbagent: line 3: JSON object has no key \"metadata_type\"\n"
              "kbagent: line 4: Invalid legacy metadata: Buffer too small to contain a BASE_HDR\n"
              "kbagent: line 5: Invalid JSON text: incomplete JSON at offset 1\n"
              "kbagent: line 7: file_path.components.class_id: bad numeric conversion: positive overflow\n");
    const auto missing = RunProgram({"convert", directory / "missing"});
    EXPECT_EQ(missing.exitCode, 1);
    EXPECT_NE(missing.errors.find("missing: No such file"), std::string::npos) << missing.errors;
    EXPECT_EQ(RunProgram({"convert", directory.Path()}).exitCode, 1);
}

TEST_F(Convert, UnknownKeysAreReportedOnce)
{
    const std::string record = UnixRecord(R"({"class_id":0,"subclass_id":0,"name":"a","colour":1})")
                                   .insert(1, R"("colour":{"name":1},)");
    const auto result = Run(record + "\n" + record + "\n" + Golden("metadata-win-file"));
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_EQ(std::count(result.output.begin(), result.output.end(), '\n'), 3);
    EXPECT_EQ(result.errors,
              "kbagent: Warning: no record has a key \"colour\"; it is left out (first in line 1)\n"
              "kbagent: Warning: no record has a key \"file_path.components.colour\"; it is left out (first "
              "in line 1)\n");
    std::string many = "{";
    for (int i = 0; i < 20000; ++i)
        many += "\"key" + std::to_string(i) + "\":1,";
    const auto limited = Run(many + "\"metadata_type\":\"ods\"}");
    EXPECT_NE(limited.errors.find("more keys are unknown than can be reported"), std::string::npos);
    EXPECT_LT(limited.errors.size(), 1000000u);
}

TEST_F(Convert, RenameMovesPathsBelow)
{
    const std::string home = Component(0x602, "home");
    const std::string file = Component(0x603, "f");
    const std::string job = Component(0x1000, "job");
    const std::string ofHome = UnixRecord(home + "," + file),
                      ofJob = UnixRecord(job + "," + home + "," + file);
    const std::string ods = R"({"metadata_type":"ods","job_path":{"components":[)" + job + "]}}";
    const std::string jobPath = "{\"components\":[" + job + "]}", windows = Golden("metadata-win-file");
    const std::tuple<const char*, std::string, std::string, std::string> cases[] = {
        // what is renamed, and its only path then; "" for a record that stays as it is
        {"directory keeps its name", "/home", ofHome, "srv|home|[f]"},
        {"file by its path", "/home/f", ofHome, "srv|[f]"},
        {"outside", "/homes", ofHome, ""},
        {"below", "/home/f/x", ofHome, ""},
        {"another class gives way", jobPath, ofJob, "srv|home|[f]"},
        {"all of the path gives way", jobPath, UnixRecord(job), "srv"},
        {"another class is not a directory", "/job", ofJob, ""},
        {"volume and all paths but one", "C:\\", windows, "srv|C|[Long name.txt]"},
        {"second path", "C:\\hard link", windows, "srv|[hard link]"},
        {"ODS outside", "/job", ods, ""},
    };
    for (const auto& [name, from, record, path] : cases) {
        SCOPED_TRACE(name);
        const auto result = Run(record, {"rename", "--from", from, "--to", "/srv"});
        ASSERT_EQ(result.exitCode, 0) << result.errors;
        if (path.empty()) {
            EXPECT_EQ(result.output, record + "\n");
        } else {
            const auto renamed = YMetadataBase::ConstructFromJson(YValue::Parse(result.output)->AsObject());
            EXPECT_EQ(Text(renamed->GetFilePath(0)), path);
            EXPECT_EQ(renamed->GetFilePathCount(), 1u);
        }
        EXPECT_EQ(result.errors.find("No record was renamed") != std::string::npos, path.empty());
        EXPECT_EQ(result.errors.find("now dropped: 1\n") != std::string::npos, record == windows);
    }
    EXPECT_EQ(Run(ods, {"rename", "--from", jobPath, "--to", "/srv"}).exitCode, 3);
    EXPECT_EQ(Run(ofHome, {"rename", "--from", "/home", "--to", "/srv/../etc"}).exitCode, 2);
    EXPECT_EQ(Run("", {"rename", "--from", "/", "--to", "/srv"}).exitCode, 2);
    EXPECT_EQ(Run("", {"rename", "--from", "/a", "--to", "{\"components\":1}"}).exitCode, 2);
}

TEST(InputFile, InterruptEndsWaitForWriter)
{
    const Testing::TemporaryDirectory directory;
    const std::string pipe = directory / "pipe";
    ASSERT_EQ(mkfifo(pipe.c_str(), 0600), 0);
    const auto wait = [&pipe] {
        CatchInterrupts();
        std::thread([] {
            for (int tries = 0; tries < 2000; ++tries, usleep(1000))
                kill(getpid(), SIGTERM);
            _exit(1);
        }).detach();
        _exit(Testing::CatchError([&pipe] { InputFile{pipe}; }) ? 0 : 2); // the caller may have to clean up
    };
    EXPECT_EXIT(wait(), testing::ExitedWithCode(0), "");
}

} // namespace
