// Rules, records and JSON while each call and each allocation fails in its turn.
#include "Backup/File/Unix/YFile.h"
#include "Backup/File/YUnixFileMetadata.h"
#include "Backup/File/YWinFileMetadata.h"

#include "testing/Configuration.h"
#include "testing/Faults.h"
#include "testing/JobPaths.h"
#include "testing/LegacyHeaderBuilder.h"
#include "testing/LogCapture.h"
#include "testing/SelectionText.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/JSON/YValue.h"

#include <gtest/gtest.h>

#include <tuple>

using namespace Testing;
using namespace std::string_literals;
using Backup::File::YMetadataBase;
using Backup::File::YSelectionManager;
using Krt::File::YPath;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

// More than twenty rules at one place, so that they have an index.
std::string ManyRules()
{
    std::string rules = "include / recursive exact=home explicit; exclude /home recursive glob=*.o; "
                        "silent /home/user any; include /var/lib/a/place/far/below any";
    for (int i = 0; i < 20; ++i)
        rules += "; include /data/directory exact=a-name-of-some-length-" + std::to_string(i);
    return rules;
}

const char* const Asked[] = {"/home",           "/home/user/file",
                             "/home/x/y.o",     "/data/directory/a-name-of-some-length-7",
                             "/data/directory", "/var/lib/a/place/far/below/it"};

using Answers = std::vector<YSelectionManager::SelectionType>;

Answers AnswersOf(const YSelectionManager& rules)
{
    Answers answers;
    for (const char* const path : Asked)
        answers.push_back(rules.GetPathSelectionType(path));
    return answers;
}

TEST(RecordFaults, SelectionIsLoadedCopiedAndAsked)
{
    const YSelectionManager all = Testing::Tree(ManyRules()), old = Testing::Tree("include /old any");
    const std::string text = YValue::FromObject(all.ToJSON("/")).Stringify(true).Bytes();
    const LogCapture log({"SelectionQuery"});
    const auto ask = [](const YSelectionManager& rules) {
        return std::tuple(AnswersOf(rules), rules.GetIncludeTops("/"), rules.GetSelections("/data").size());
    };
    const auto right = ask(all);
    CheckWithFaults([&](Faults& faults) {
        YSelectionManager rules = old, assigned = old, copied;
        bool isAssigned = false;
        decltype(ask(rules)) answers;
        const auto load = [&] {
            rules.FromJSON(YValue::Parse(text)->AsObject());
        };
        const bool isDone = faults.TryAll([&] {
            load();
            copied.CopyDescriptorsFromPath(all, "/data", "/elsewhere");
            assigned = all;
            isAssigned = true;
            answers = ask(all);
        });
        EXPECT_EQ(assigned, isAssigned ? all : old);
        AnswersOf(rules);
        if (isDone) {
            EXPECT_EQ(rules, all);
            EXPECT_EQ(answers, right);
            EXPECT_TRUE(copied.IsPathSelected("/elsewhere/directory/a-name-of-some-length-7"));
        }
        load();
        EXPECT_EQ(rules, all);
        EXPECT_EQ(ask(rules), right);
        EXPECT_EQ(ask(all), right) << "the source cannot be locked any more";
    });
}

// Either the rule that replaces others is present, or they are.
TEST(RecordFaults, SelectionLosesNoRule)
{
    const YSelectionManager before = Testing::Tree(ManyRules() + "; include /data exact=directory");
    const LogCapture log({"SelectionBuild"});
    const auto added = Testing::Rule("include /data recursive any");
    const auto atOnce = Testing::Rule("include /data/directory glob=a-name*");
    YSelectionManager after = before;
    after.Add(atOnce);
    after.Add(added);
    CheckWithFaults([&](Faults& faults) {
        YSelectionManager rules = before;
        const auto add = [&] {
            rules.Add(atOnce);
            rules.Add(added);
        };
        const bool isDone = faults.TryAll(add);
        EXPECT_TRUE(!isDone || rules == after);
        const Answers answers = AnswersOf(rules), were = AnswersOf(before), are = AnswersOf(after);
        for (std::size_t i = 0; i < answers.size(); ++i) {
            EXPECT_TRUE(answers[i] == were[i] || answers[i] == are[i]) << Asked[i];
        }
        add();
        EXPECT_EQ(AnswersOf(rules), are);
        EXPECT_EQ(rules.GetIncludeTops("/"), after.GetIncludeTops("/"));
    });
}

TEST(RecordFaults, RecordOfFile)
{
    const TemporaryDirectory directory;
    const YPath path(directory.Write("a file with a name of some length", "content").c_str());
    const NoConfiguration configuration;
    CheckResultWithFaults([&] {
        using Backup::File::YFile;
        YFile file(YFile::OPEN_MODE_READ, path, YFile::OPT_NONE);
        std::string text;
        YMetadataBase::ConstructFromFile(file, RecordingMapper())->StringifyTo(text);
        return text;
    });
}

TEST(RecordFaults, RecordFromJson)
{
    const std::string golden = ReadFile(GOLDEN_DIRECTORY "/metadata-unix-file.json");
    CheckResultWithFaults([&] {
        const auto record = YMetadataBase::ConstructFromJson(YValue::Parse(golden)->AsObject());
        record->RenamePath(record->GetFilePath(0),
                           JobPath({{1538, "elsewhere"}, {1538, "with a long name"}}));
        return YValue::FromObject(record->ToJSON()).Stringify(true).Bytes();
    });
}

TEST(RecordFaults, LegacyHeaders)
{
    const YObject documents[] = {
        LegacyDocument("unix", SampleUnixFile().Bytes()), LegacyDocument("unix", SampleUnixLink().Bytes()),
        LegacyDocument("win", SampleWindowsFile(L"/C:/dir/long na\u00EFve*LONGNA~1\0\r"s, 1).Bytes())};
    CheckResultWithFaults([&] {
        std::string text;
        for (const YObject& document : documents)
            YMetadataBase::ConstructFromJson(document, RecordingMapper())->StringifyTo(text);
        return text;
    });
}

TEST(RecordFaults, JsonText)
{
    std::string text = "{\"deep\":";
    for (int i = 0; i < 30; ++i)
        text += "[{\"a key of some length\":";
    text += "1";
    for (int i = 0; i < 30; ++i)
        text += "}]";
    for (int i = 0; i < 40; ++i)
        text += ",\"key number " + std::to_string(i) + "\":[true,\"text of a certain length\"]";
    text += "}";
    CheckResultWithFaults([&] {
        const auto value = YValue::Parse(text);
        return value->Stringify(false).Bytes() +
               value->AsObject().Get<Krt::JSON::YArray>("key number 39", 15).at(1)->AsString().Bytes();
    });
}

} // namespace
