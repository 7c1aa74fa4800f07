// Snapshots: the stored form is fixed, and one that isn't whole is refused.
#include "agent/Store/SnapshotWriter.h"

#include "testing/Raises.h"
#include "testing/StoreFiles.h"
#include "testing/TemporaryDirectory.h"

#include "Krt/JSON/YValue.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <tuple>

using namespace Agent;
using Krt::YString;
using Krt::JSON::YValue;
namespace fs = std::filesystem;

namespace {

SnapshotHeader Header()
{
    return {1700000000, "host", {"/home", YString("/caf\xE9")}};
}

std::vector<SnapshotEntry> Entries()
{
    std::vector<SnapshotEntry> entries(4);
    const char* const records[] = {"{\"file_size\":5,\"name\":\"a\\nb\"}", "{\"mode\":8630}",
                                   "{\"target\":\"x\"}", "{}"};
    for (std::size_t i = 0; i < entries.size(); ++i)
        entries[i].record = YValue::Parse(records[i])->AsObject();
    entries[0].content = Address::FromHex(YString(std::string(64, 'a').c_str()));
    entries[0].hardLinkGroup = 3;
    entries[0].readSize = 4;
    entries[1].device = DeviceNumbers{8, 4294967295u};
    entries[2].linkTarget = YString("x//\xFF");
    return entries;
}

class StoreSnapshot : public ::testing::Test
{
protected:
    std::string Write()
    {
        StoreSession session(store);
        SnapshotWriter writer(session, Header());
        for (const SnapshotEntry& entry : Entries())
            writer.Add(Testing::TextOf(entry.record), entry);
        return writer.Finish(4, 1);
    }

    std::string PathOf(const std::string& id) const { return directory / ("store/snapshots/" + id); }

    void WriteFile(const std::string& id, const std::string& bytes) const
    {
        std::ofstream(PathOf(id), std::ios::binary) << bytes;
    }

    // What reading raises, or nothing.
    std::string ErrorOf(const std::string& id) const
    {
        const std::string error = Testing::ErrorOf([&] {
            SnapshotReader reader(store, id);
            reader.Verify();
            for (SnapshotEntry entry; reader.Next(entry);)
                continue;
        });
        return error.empty() ? error : error.substr(error.find(": ") + 2);
    }

    Testing::TemporaryDirectory directory;
    Store store = Store::OpenOrCreate(directory / "store");
};

std::string Golden()
{
    return Testing::ReadFile(GOLDEN_DIRECTORY "/snapshot.jsonl");
}

TEST_F(StoreSnapshot, StoredFormIsFixed)
{
    EXPECT_EQ(Testing::ReadCompressed(PathOf(Write())), Golden());

    Testing::WriteCompressed(PathOf("golden"), Golden());
    SnapshotReader reader(store, "golden");
    const SnapshotTrailer trailer = reader.Verify();
    std::string again;
    WriteLine(reader.GetHeader(), again);
    SnapshotEntry entry;
    while (reader.Next(entry))
        WriteLine(Testing::TextOf(entry.record), entry, again);
    EXPECT_FALSE(reader.Next(entry));
    WriteLine(trailer, again);
    EXPECT_EQ(again, Golden());
}

TEST_F(StoreSnapshot, TrailerIsFoundFromTheEnd)
{
    const std::string id = Write();
    EXPECT_EQ(SnapshotReader(store, id).PeekTrailer().failed, 1u);
    const std::string sound = Testing::ReadFile(PathOf(id));
    const std::string front = sound.substr(0, sound.size() - 8), locator = sound.substr(sound.size() - 8);
    const std::pair<const char*, std::string> cases[] = {
        {"no locator", front.substr(0, front.size() - 8)},
        {"half a locator", front},
        {"locator into the void", front + std::string(8, '\x7F')},
        {"locator to the begin", front + std::string(8, '\0')},
        {"locator into a frame", front + static_cast<char>(locator[0] + 1) + locator.substr(1)},
    };
    for (const auto& [name, bytes] : cases) {
        WriteFile(id, bytes);
        EXPECT_NE(Testing::ErrorOf([this, &id] { SnapshotReader(store, id).PeekTrailer(); }), "") << name;
    }
}

TEST_F(StoreSnapshot, NoShorterFileAndNoChangedByteChangesWhatIsRead)
{
    const std::string id = Write();
    const std::string sound = Testing::ReadFile(PathOf(id));
    // Some bits of the frames' headers say nothing about the content; all others must be missed.
    int harmless = 0;
    for (std::size_t at = 0; at < sound.size() - 16; ++at) {
        WriteFile(id, sound.substr(0, at));
        EXPECT_NE(ErrorOf(id), "") << "cut off after " << at;
        for (const int flip : {0x01, 0x20, 0x80, 0xFF}) {
            std::string bytes = sound;
            bytes[at] = static_cast<char>(bytes[at] ^ flip);
            WriteFile(id, bytes);
            if (!ErrorOf(id).empty())
                continue;
            ++harmless;
            EXPECT_EQ(Testing::ReadCompressed(PathOf(id)), Golden()) << "byte " << at << " by " << flip;
        }
    }
    EXPECT_LT(harmless, 16);
}

TEST_F(StoreSnapshot, ForgedLinesAreRefusedWithTheirPlace)
{
    const std::string golden = Golden();
    const std::string header = golden.substr(0, golden.find('\n') + 1);
    const std::string trailer = golden.substr(golden.rfind("{\"entries\""));
    const std::string body = golden.substr(header.size(), golden.size() - header.size() - trailer.size());
    const auto changed = [](std::string text, const std::string& from, const std::string& to) {
        return text.replace(text.find(from), from.size(), to);
    };
    const std::tuple<const char*, std::string, const char*> cases[] = {
        {"empty", "", "line 1: the file is empty"},
        {"no trailer", header + body, "line 6: the file ends before the snapshot does"},
        {"no line end", golden.substr(0, golden.size() - 1), "line 6: the line is cut off"},
        {"more behind the trailer", golden + body, "line 7: the file goes on behind the snapshot's end"},
        {"another format", changed(golden, "kbagent-snapshot", "other"), "line 1: This is no snapshot"},
        {"a later version", changed(golden, "\"version\":1", "\"version\":2"),
         "line 1: The snapshot has format 2"},
        {"an entry left out", header + body.substr(body.find('\n') + 1) + trailer,
         "line 5: the number of entries"},
        {"an entry changed", changed(golden, "\"read_size\":4", "\"read_size\":5"),
         "line 6: the lines before have"},
        {"a trailer without a digest", header + body + "{\"entries\":4}\n", "line 6: "},
        {"no JSON", "{\"format\"\n", "line 1: "},
        {"a line without end", header + std::string(20'000'000, 'x'), "line 2: the line is too long"},
    };
    for (const auto& [name, lines, expected] : cases) {
        SCOPED_TRACE(name);
        Testing::WriteCompressed(PathOf("forged"), lines);
        const std::string error = ErrorOf("forged");
        EXPECT_EQ(error.find("Snapshot forged is damaged at "), 0u) << error;
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

// The digest is right, so only the entry itself can tell.
TEST_F(StoreSnapshot, EntriesThatAreNoneRaise)
{
    for (const char* entry :
         {"{\"record\":5}", "{}", "[]", "{\"record\":{},\"content\":\"../../etc/passwd\"}",
          "{\"record\":{},\"content\":7}", "{\"record\":{},\"hard_link\":\"a\"}",
          "{\"record\":{},\"device\":{}}", "{\"record\":{},\"device\":{\"major\":4294967296,\"minor\":0}}",
          "{\"record\":{},\"read_size\":-1}", "{\"record\":{},\"link_target\":[]}"})
        EXPECT_TRUE(Testing::CatchError([&] { ReadEntry(entry); })) << entry;
}

TEST_F(StoreSnapshot, LinesOfEveryLengthPassBetweenBlocks)
{
    StoreSession session(store);
    SnapshotWriter writer(session, Header());
    const auto add = [&](std::size_t length) {
        writer.Add("{\"text\":\"" + std::string(length, 'x') + "\"}", Agent::EntryFacts());
    };
    for (std::size_t length = 0; length < 300'000; length = length * 2 + 4093)
        add(length);
    EXPECT_TRUE(Testing::CatchError([&] { add(SnapshotLineLimit); }));
    const std::string id = writer.Finish(0, 0);
    EXPECT_EQ(ErrorOf(id), "");
    EXPECT_EQ(SnapshotReader(store, id).Verify().entries, 7u);
}

} // namespace
