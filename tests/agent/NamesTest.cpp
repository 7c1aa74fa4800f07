// Names of any bytes are recovered from records, repositories, logs and terminals, and do not forge lines.
#include "agent/Run/Text.h"

#include "testing/AwkwardNames.h"
#include "testing/LogCapture.h"
#include "testing/Records.h"
#include "testing/RepositoryFixture.h"
#include "testing/SelectionText.h"

#include "Krt/File/YDirectory.h"
#include "Krt/Log/LogSite.h"

#include <algorithm>
#include <filesystem>
#include <sstream>

namespace fs = std::filesystem;
using Backup::File::YMetadataBase;
using Krt::JSON::YValue;
using namespace Testing;

namespace {

NameSet NamesInDirectory(const std::string& path)
{
    NameSet names;
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
        names.insert(entry.path().filename().string());
    return names;
}

// Shorter in a failure than two sets.
NameSet Difference(const NameSet& a, const NameSet& b)
{
    NameSet difference;
    std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(),
                                  std::inserter(difference, difference.end()));
    return difference;
}

TEST(Names, AwkwardNamesSurviveRecords)
{
    NameSet all = AwkwardNames();
    EXPECT_GE(all.size(), 500u);
    all.merge(ShortNames(1));
    EXPECT_GE(all.size(), 254u * 255u);
    for (auto name = all.begin(); name != all.end();) {
        Names path;
        for (; name != all.end() && path.size() < 250; ++name)
            path.push_back(*name);
        const std::string line = Line(UnixRecord(path, S_IFLNK, 0, path.front()).ToJSON());
        const auto record = YMetadataBase::ConstructFromJson(YValue::Parse(line)->AsObject());
        ASSERT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
        EXPECT_EQ(Line(record->ToJSON()), line);
        EXPECT_EQ(record->AsUnixFileMetadata().GetSymbolicLinkTarget(), path.front().c_str());
        const Backup::YJobPath back = record->GetFilePath(0);
        const Krt::File::YPath file = back.GetFilesystemPortion();
        ASSERT_EQ(file.PopulateComponents().size(), path.size());
        for (unsigned int i = 0; i < path.size(); ++i) {
            ASSERT_EQ(back.GetComponent(i).m_name.Bytes(), path[i]);
            ASSERT_EQ(file.GetComponent(i).Bytes(), path[i]);
        }
        std::string printed = Agent::PrintableJson(line);
        EXPECT_EQ(YValue::Parse(printed)->Stringify(true).Bytes() + "\n", line);
        printed.pop_back();
        EXPECT_TRUE(IsSteady(printed)) << printed;
    }
}

TEST(Names, TerminalAndLogDistinguishThem)
{
    NameSet names = AwkwardNames();
    names.merge(ShortNames(1));
    std::string shown;
    for (const std::string& name : names)
        shown += "/x/" + Agent::Printable(name) + "\n";
    EXPECT_EQ(Difference(NamesIn(shown, "/x", ""), names), NameSet());

    const LogCapture log({"General"});
    for (const std::string& name : AwkwardNames())
        KRT_LOG_FREE(Krt::MessageType::General, "/x/" << Krt::YString(name) << ".");
    EXPECT_EQ(Difference(NamesIn(log.Text(), "/x", "."), AwkwardNames()), NameSet());
}

class NamesOnDisk : public RepositoryFixture
{
protected:
    NamesOnDisk() { Create(); }

    void Make(const NameSet& made)
    {
        names = made;
        const auto directoryOfAll = Krt::File::YDirectory::Open(Krt::File::YPath(source.c_str()));
        for (const std::string& name : names)
            directoryOfAll.CreateFile(Krt::YString(name));
    }
    // What the program says on either stream.
    std::string OutputOf(int exitCode, const std::vector<std::string>& arguments) const
    {
        const auto result = Run(exitCode, arguments);
        return result.output + result.errors;
    }
    void ExpectAllPrinted(const std::string& text, const std::string& ending = "") const
    {
        EXPECT_EQ(Difference(NamesIn(text, source, ending), names), NameSet());
    }
    void BackUpListAndRestore() const
    {
        Run(0, {"backup", source});
        ExpectAllPrinted(OutputOf(0, {"ls", "latest"}));
        Run(0, {"restore", "latest", "--target", target});
        EXPECT_EQ(Difference(NamesInDirectory(target + source), names), NameSet());
    }

    NameSet names;
};

TEST_F(NamesOnDisk, AwkwardNamesAreRestoredAndForgeNoLine)
{
    Make(AwkwardNames());
    BackUpListAndRestore();

    std::istringstream documents(Run(0, "ls latest --json").output);
    for (std::string line; std::getline(documents, line);)
        EXPECT_TRUE(YValue::Parse(line) && IsSteady(line)) << line;

    for (const std::string& name : names)
        fs::create_directories(directory / "full" + source + "/" + name);
    ExpectAllPrinted(OutputOf(3, {"restore", "latest", "--target", directory / "full"}),
                     ": There is a directory at its path; --delete replaces it");

    const std::string rules = "include " + source + " recursive any; exclude " + source + " recursive glob=*";
    const std::string job = directory.Write("job", JobText(rules));
    const std::string said = "FileStat,FileIo,FileInfo,FileClose",
                      more = ",General,Runtime,Volume,SelectionBuild,SelectionQuery";
    ExpectAllPrinted(
        Run(-1, {"--log", directory / "log", "--debug", said + more, "backup", "--verbose", "--job", job})
            .errors);
    Run(0, {"--log", directory / "log", "--debug", said, "backup", source});
    std::istringstream log(ReadFile(directory / "log"));
    for (std::string line; std::getline(log, line);) {
        const bool begins = line.size() > 40 && line[4] == '-' && line[10] == 'T' &&
                            (line.substr(29, 6) == " INFO " || line.substr(29, 7) == " TRACE ");
        ASSERT_TRUE(begins && IsSteady(line)) << line;
    }
}

// Every name of one byte or two; without optimisation every sixteenth.
TEST_F(NamesOnDisk, ShortNamesAreRestored)
{
#ifdef NDEBUG
    Make(ShortNames(1));
#else
    Make(ShortNames(16));
#endif
    BackUpListAndRestore();
}

TEST_F(NamesOnDisk, ComposedAndDecomposedNamesStayDistinct)
{
    Make({"\u00e9", "e\u0301"});
    for (const std::string& name : names) {
        const std::string job = directory.Write("job", JobText("include " + source + " exact=" + name));
        Run(0, {"backup", "--job", job});
        EXPECT_EQ(Stored(), std::vector<std::string>{"/" + name});
    }
}

} // namespace
