// The pages agree with the tree: codes, channels, configuration keys, the programs of the examples, a port's
// seams.
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>
#include <set>

using Testing::ReadFile;

namespace {

std::string Page(const char* name)
{
    return ReadFile(SOURCE_DIRECTORY "/docs/" + std::string(name));
}

// The enumerators of a header as the page's tables begin with them: "| 17 | `InvalidUse` |".
std::set<std::string> RowsOfEnumerators(const char* header, const std::string& enumeration)
{
    const std::string text = ReadFile(SOURCE_DIRECTORY "/libkrt/Krt/" + std::string(header));
    const std::string body = text.substr(text.find(enumeration));
    const std::regex shape(R"((\w+) = (\w+),?(?: *///<.*)?\n)");
    std::set<std::string> rows;
    for (std::sregex_iterator at(body.begin(), body.end(), shape), end; at != end; ++at)
        rows.insert("| " + std::to_string(std::stoul((*at)[2], nullptr, 0)) + " | `" + (*at)[1].str() +
                    "` |");
    return rows;
}

std::set<std::string> ConfigurationKeys()
{
    const std::regex shape(R"re(\(\s*"configuration",\s*"(\w+)")re");
    std::set<std::string> keys;
    for (const char* const folder : {"/libkrt", "/Backup", "/agent"}) {
        for (const auto& entry :
             std::filesystem::recursive_directory_iterator(SOURCE_DIRECTORY + std::string(folder))) {
            if (entry.path().extension() != ".cpp")
                continue;
            const std::string text = ReadFile(entry.path());
            for (std::sregex_iterator at(text.begin(), text.end(), shape), end; at != end; ++at)
                keys.insert((*at)[1]);
        }
    }
    return keys;
}

// Without what stands in front of and behind each line, so that a page may indent in its own way.
std::string Stripped(const std::string& text)
{
    return std::regex_replace(text, std::regex(R"(\s*\n\s*)"), "\n");
}

} // namespace

TEST(PagesTest, ErrorsAndLoggingNamesEachCodeAndChannel)
{
    const std::string page = Page("errors-and-logging.md");
    const auto codes = RowsOfEnumerators("Exception/ErrorCode.h", "struct ErrorCode");
    const auto channels = RowsOfEnumerators("Log/MessageType.h", "struct MessageType");
    EXPECT_GE(codes.size(), 18U);
    EXPECT_GE(channels.size(), 9U);
    for (const auto& rows : {codes, channels}) {
        for (const std::string& row : rows)
            EXPECT_NE(page.find(row), std::string::npos) << row;
    }
}

TEST(PagesTest, ConfigurationNamesEachKey)
{
    const std::string page = Page("configuration.md");
    const auto keys = ConfigurationKeys();
    EXPECT_GE(keys.size(), 5U);
    for (const std::string& key : keys)
        EXPECT_NE(page.find("| `" + key + "` |"), std::string::npos) << key;
}

// Each program of the pages stands in the example that is linked last before it.
TEST(PagesTest, ProgramsAreThoseOfTheExamples)
{
    std::set<std::string> shown;
    for (const char* const page : {"docs/api.md", "README.md"}) {
        const std::string text = ReadFile(SOURCE_DIRECTORY "/" + std::string(page));
        const std::regex shape(R"(\]\((?:\.\./)?(examples/[\w-]+\.cpp)\)|```cpp\n([^`]*)```)");
        std::string example;
        for (std::sregex_iterator at(text.begin(), text.end(), shape), end; at != end; ++at) {
            if ((*at)[1].matched) {
                example = (*at)[1];
                continue;
            }
            shown.insert(example);
            const std::string source = Stripped(ReadFile(SOURCE_DIRECTORY "/" + example));
            EXPECT_NE(source.find(Stripped("\n" + (*at)[2].str())), std::string::npos)
                << page << " shows what isn't in " << example << ":\n"
                << (*at)[2];
        }
    }
    for (const auto& entry : std::filesystem::directory_iterator(SOURCE_DIRECTORY "/examples")) {
        if (entry.path().extension() == ".cpp") {
            EXPECT_EQ(shown.count("examples/" + entry.path().filename().string()), 1U) << entry.path();
        }
    }
}

// What stands for one platform alone has a counterpart; systemd's and launchd's own classes have one seam
// together.
TEST(PagesTest, PortingNamesEachSeam)
{
    namespace fs = std::filesystem;
    const std::string page = Page("porting.md");
    std::set<std::string> folders;
    for (const char* const top : {"/libkrt/Krt", "/Backup", "/agent"}) {
        for (const auto& entry : fs::recursive_directory_iterator(SOURCE_DIRECTORY + std::string(top))) {
            const fs::path folder = entry.path().parent_path();
            if (entry.path().extension() != ".cpp" || folder.filename() != "Linux")
                continue;
            const std::string name = entry.path().filename().string();
            EXPECT_TRUE(name.find("ystemd") != std::string::npos ||
                        fs::exists(folder.parent_path() / "Mac" / name))
                << entry.path();
            folders.insert(fs::relative(folder.parent_path(), SOURCE_DIRECTORY "/libkrt/Krt").string());
        }
    }
    EXPECT_GE(folders.size(), 8U);
    for (std::string folder : folders) {
        folder.erase(0, folder.find_first_not_of("./"));
        EXPECT_NE(page.find("`" + folder + "/{Linux,Mac}`"), std::string::npos) << folder;
    }
    const std::regex row(R"(\n\| `([\w/]+\.h)` \|)");
    for (std::sregex_iterator at(page.begin(), page.end(), row), end; at != end; ++at) {
        const std::string header = (*at)[1];
        EXPECT_TRUE(fs::exists(SOURCE_DIRECTORY "/" + header) ||
                    fs::exists(SOURCE_DIRECTORY "/libkrt/" + header))
            << header;
    }
}
