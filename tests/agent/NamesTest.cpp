// Names of any bytes come back from records, stores, logs and terminals, and none forges a line on the way.
#include "agent/Cli/Text.h"

#include "testing/LogCapture.h"
#include "testing/Program.h"
#include "testing/Records.h"
#include "testing/SelectionText.h"
#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/Log/LogSite.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <fcntl.h>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>

namespace fs = std::filesystem;
using namespace std::string_literals;
using Backup::File::YMetadataBase;
using Krt::JSON::YValue;
using Testing::RunProgram;

namespace {

using Names = std::set<std::string>;

// clang-format off
const std::string Pieces[] = {
    // controls, and what steers terminals
    "\x01", "\a", "\b", "\t", "\n", "\v", "\f", "\r", "\x1b", "\x1f", "\x7f", "\n\n", "\r\n", "\x1b[2J",
    "\x1b]0;t\a", "\r\x1b[K", "\x1b[1A\x1b[2K", "\u0080", "\u0085", "\u009b2J", "\u009f",
    "\n2026-11-21T07:23:58.041+00:00 INFO forged",
    // what some parser takes for its own
    "\"", "'", "`", "$HOME", "$(id)", "${serviceName}", "%", "%s%n", "%2F", "\\", "\\\\", "\\n", "\\x41",
    "\\u0041", "\\\"", "&amp;", "<!--", "]]>", "*", "?", "[a]", "{}", "[]", "!", "|", ";", "&", "~", "#",
    "-", "--", "--=", "=", ":", "C:", "\\\\?\\C:", "\\\\?\\Volume{0}", " ", "  ", "...", ". ", " .", ",",
    "null", "0", "(", ")", "-> ", "^", "@",
    // the same to the eye, in two forms
    "\u00e9", "e\u0301", "\u00c5", "\u212b", "A\u030a", "\ud55c", "\u1112\u1161\u11ab", "\ufb01", "\u0130",
    "\u017f", "\u1e9b\u0323", "\u00df", "\u212a", "\u03c2", "\u0430",
    // direction, joining, lines, byte order, no characters
    "\u202e", "\u202a", "\u202d", "\u202c", "\u2066", "\u2067", "\u2068", "\u2069", "\u200e", "\u200f",
    "\u061c", "\u2028", "\u2029", "\u00a0", "\u00ad", "\u200b", "\u200d", "\u2060", "\u3000", "\ufeff",
    "\ufff9", "\ufffd", "\uffff", "\ufdd0", "\u05d0", "\u0627", "\U0001f600", "\U0001f468\u200d\U0001f469",
    "\U0010ffff", "\U0001fffe", "\U000e0041",
    // what stands for bytes in documents
    "\uef80", "\uefff", "\uef7f", "\uf000",
    // no UTF-8: alone, too long, surrogates, beyond the last, cut short
    "\x80", "\xbf", "\x9b", "\xc0\xaf", "\xc1\xbf", "\xe0\x80\xaf", "\xe0\x9f\xbf", "\xf0\x80\x80\xaf",
    "\xf0\x8f\xbf\xbf", "\xf8\x88\x80\x80\x80", "\xfc\x84\x80\x80\x80\x80", "\xed\xa0\x80", "\xed\xbf\xbf",
    "\xed\xa0\xbd\xed\xb8\x80", "\xf4\x90\x80\x80", "\xf5\x80\x80\x80", "\xfe", "\xff", "\xff\xfe", "\xc3",
    "\xe2\x82", "\xf0\x9f\x98", "\xe2\x28\xa1", "\xc3\x28", "\xee\xbe", "\xc2\xc2\x9b",
};
// clang-format on

bool IsName(const std::string& text)
{
    return !text.empty() && text.size() <= 255 && text != "." && text != ".." &&
           text.find_first_of("/\0"s) == std::string::npos;
}

Names AwkwardNames()
{
    Names names;
    for (const std::string& piece : Pieces) {
        for (const std::string& name : {piece, "a" + piece, piece + "z", "a" + piece + "z", piece + piece})
            names.insert(name);
        for (const std::size_t length : {254, 255}) {
            std::string longest;
            while (longest.size() < length)
                longest += piece;
            names.insert(longest.substr(0, length));
        }
    }
    std::erase_if(names, [](const std::string& name) { return !IsName(name); });
    return names;
}

// All of one byte and of two, of which the second is one of `step` from the first one's own place on.
Names ShortNames(int step)
{
    Names names;
    for (int first = 1; first < 256; ++first) {
        names.insert(std::string(1, static_cast<char>(first)));
        for (int second = 1 + first % step; second < 256; second += step)
            names.insert({static_cast<char>(first), static_cast<char>(second)});
    }
    std::erase_if(names, [](const std::string& name) { return !IsName(name); });
    return names;
}

// The text that Printable showed.
std::string Unescaped(const std::string& shown)
{
    std::string text;
    for (std::size_t i = 0; i < shown.size(); ++i) {
        if (shown[i] != '\\') {
            text += shown[i];
            continue;
        }
        const char kind = i + 1 < shown.size() ? shown[++i] : 0;
        const std::size_t digits = kind == 'x' ? 2 : kind == 'u' ? 4 : 0;
        const auto number = digits == 0 ? 0 : std::stoul(shown.substr(i + 1, digits), nullptr, 16);
        const wchar_t unit[] = {static_cast<wchar_t>(number), 0};
        i += digits;
        text += kind == 'n'   ? "\n"
                : kind == 'r' ? "\r"
                : kind == 't' ? "\t"
                : kind == 'x' ? std::string(1, static_cast<char>(number))
                : kind == 'u' ? Krt::YString(unit).Bytes()
                              : std::string(1, kind);
    }
    return text;
}

// Whether a terminal shows the line as it stands: UTF-8 without controls and what reorders or breaks lines.
bool IsSteady(const std::string& line)
{
    const auto harms = [](wchar_t unit) {
        return unit < 0x20 || (unit >= 0x7f && unit < 0xa0) || (unit >= 0x2028 && unit <= 0x202e) ||
               (unit >= 0x2066 && unit <= 0x2069) || unit == 0x200e || unit == 0x200f || unit == 0x61c;
    };
    try {
        const std::wstring units(Krt::YString(line).AsWide());
        return std::none_of(units.begin(), units.end(), harms);
    } catch (const Krt::Exception::YError&) {
        return false;
    }
}

// The names that the lines tell of entries below `parent`, each line up to what may stand `behind` the name.
Names NamesIn(const std::string& text, const std::string& parent, const std::string& behind)
{
    Names names;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(IsSteady(line)) << line;
        const std::size_t at = line.find(parent + "/");
        if (at == std::string::npos || !line.ends_with(behind))
            continue;
        line.erase(line.size() - behind.size());
        names.insert(Unescaped(line.substr(at + parent.size() + 1)));
    }
    return names;
}

Names NamesInDirectory(const std::string& path)
{
    Names names;
    for (const fs::directory_entry& entry : fs::directory_iterator(path))
        names.insert(entry.path().filename().string());
    return names;
}

// Where one is missing or one too many, that tells more than two sets.
Names Difference(const Names& a, const Names& b)
{
    Names difference;
    std::set_symmetric_difference(a.begin(), a.end(), b.begin(), b.end(),
                                  std::inserter(difference, difference.end()));
    return difference;
}

TEST(Names, RecordsKeepThem)
{
    Names all = AwkwardNames();
    EXPECT_GE(all.size(), 500u);
    all.merge(ShortNames(1));
    EXPECT_GE(all.size(), 254u * 255u);
    for (auto name = all.begin(); name != all.end();) {
        Testing::Names path;
        for (; name != all.end() && path.size() < 250; ++name)
            path.push_back(*name);
        const std::string line = Testing::Line(Testing::UnixRecord(path, S_IFLNK, 0, path.front()).ToJSON());
        const auto record = YMetadataBase::ConstructFromJson(YValue::Parse(line)->AsObject());
        ASSERT_EQ(std::count(line.begin(), line.end(), '\n'), 1) << line;
        EXPECT_EQ(Testing::Line(record->ToJSON()), line);
        EXPECT_EQ(record->AsUnixFileMetadata().GetSymbolicLinkTarget(), path.front().c_str());
        const Backup::YJobPath back = record->GetFilePath(0);
        const Krt::File::YPath file = back.GetFilesystemPortion();
        ASSERT_EQ(back.GetComponentCount(), path.size());
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

TEST(Names, TerminalAndLogTellThemApart)
{
    Names names = AwkwardNames();
    names.merge(ShortNames(1));
    std::string shown;
    for (const std::string& name : names)
        shown += "/x/" + Agent::Printable(name) + "\n";
    EXPECT_EQ(Difference(NamesIn(shown, "/x", ""), names), Names());

    const Testing::LogCapture log({"General"});
    for (const std::string& name : AwkwardNames())
        KRT_LOG_FREE(Krt::MessageType::General, "/x/" << Krt::YString(name) << ".");
    std::string lines;
    for (const std::string& line : log.Lines())
        lines += line + "\n";
    EXPECT_EQ(Difference(NamesIn(lines, "/x", "."), AwkwardNames()), Names());
}

class NamesOnDisk : public ::testing::Test
{
protected:
    void Make(const Names& made)
    {
        names = made;
        for (const std::string& name : names) {
            const int file = open((source + "/" + name).c_str(), O_WRONLY | O_CREAT | O_EXCL, 0600);
            ASSERT_GE(file, 0) << name;
            close(file);
        }
    }
    // What the program says on either stream.
    std::string Run(int exitCode, std::vector<std::string> arguments)
    {
        const auto result = RunProgram(arguments);
        EXPECT_EQ(result.exitCode, exitCode) << result.errors;
        return result.output + result.errors;
    }
    void ExpectAllTold(const std::string& text, const std::string& behind = "")
    {
        EXPECT_EQ(Difference(NamesIn(text, source, behind), names), Names());
    }
    void BackUpListAndRestore()
    {
        Run(0, {"backup", "--store", store, source});
        ExpectAllTold(Run(0, {"list", "--store", store, "--snapshot", "latest"}));
        Run(0, {"restore", "--store", store, "--to", directory / "to"});
        EXPECT_EQ(Difference(NamesInDirectory((directory / "to") + source), names), Names());
    }

    const Testing::TemporaryDirectory directory;
    const std::string source = directory.MakeDirectory("source"), store = directory / "store";
    Names names;
};

TEST_F(NamesOnDisk, AwkwardOnesComeBackAndForgeNoLine)
{
    Make(AwkwardNames());
    BackUpListAndRestore();

    Names listed;
    std::istringstream documents(Run(0, {"list", "--store", store, "--snapshot", "latest", "--json"}));
    for (std::string line; std::getline(documents, line);) {
        EXPECT_TRUE(IsSteady(line)) << line;
        const auto entry = YValue::Parse(line);
        const auto& record = entry->AsObject().Get<Krt::JSON::YObject>("record", Krt::MessageType::Runtime);
        listed.insert(YMetadataBase::ConstructFromJson(record)->GetFilePath(0).GetLeaf().m_name.Bytes());
    }
    listed.erase("source");
    EXPECT_EQ(Difference(listed, names), Names());

    for (const std::string& name : names)
        fs::create_directories(directory / "full" + source + "/" + name);
    ExpectAllTold(Run(3, {"restore", "--store", store, "--to", directory / "full"}),
                  ": A directory stands in its place");

    const std::string rules = "include " + source + " recursive any; exclude " + source + " recursive glob=*";
    const std::string job =
        directory.Write("job", YValue::FromObject(Testing::Tree(rules).ToJSON("/")).Stringify(true).Bytes());
    ExpectAllTold(
        Run(0, {"--log", directory / "log", "--debug",
                "General,Runtime,Volume,FileStat,FileIo,FileInfo,FileClose,SelectionBuild,SelectionQuery",
                "backup", "--store", store, "--verbose", "--job", job}));
    Run(0, {"--log", directory / "log", "--debug", "FileStat,FileIo,FileInfo,FileClose", "backup", "--store",
            store, source});
    std::istringstream log(Testing::ReadFile(directory / "log"));
    for (std::string line; std::getline(log, line);) {
        const bool begins = line.size() > 40 && line[4] == '-' && line[10] == 'T' &&
                            (line.substr(29, 6) == " INFO " || line.substr(29, 7) == " TRACE ");
        ASSERT_TRUE(begins && IsSteady(line)) << line;
    }
}

// Every name of one byte or two; without optimisation every seventh.
TEST_F(NamesOnDisk, ShortOnesComeBack)
{
#ifdef NDEBUG
    Make(ShortNames(1));
#else
    Make(ShortNames(7));
#endif
    BackUpListAndRestore();
}

TEST_F(NamesOnDisk, ComposedAndDecomposedStayTwo)
{
    Make({"\u00e9", "e\u0301"});
    for (const std::string& name : names) {
        const std::string rules = "include " + source + " exact=" + name;
        const std::string job = directory.Write(
            "job", YValue::FromObject(Testing::Tree(rules).ToJSON("/")).Stringify(true).Bytes());
        Run(0, {"backup", "--store", store, "--job", job});
        EXPECT_EQ(Testing::StoredPaths(store, source), std::vector<std::string>{"/" + name});
    }
}

} // namespace
