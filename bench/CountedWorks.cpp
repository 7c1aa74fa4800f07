// CountedWorks NAME: repeats one of the operations that are executed for every file, or for its parts, with
// collecting enabled only for these; prints the number of repetitions. See tests/performance/instructions.sh.
#include "Backup/File/YSelectionManager.h"
#include "bench/Records.h"
#include "bench/SelectionInputs.h"
#include "testing/LegacyHeaderBuilder.h"

#include "agent/Repository/Chunker.h"
#include "agent/Repository/Index.h"
#include "agent/Repository/Tree.h"

#include "Krt/JSON/YValue.h"
#include "Krt/Log/LogSite.h"
#include "Krt/Thread/YReadWriteMutex.h"

#include <algorithm>
#include <cstdio>
#include <functional>
#include <map>
#include <random>
#include <string>
#include <utility>
#include <valgrind/callgrind.h>
#include <vector>

namespace {

namespace Repo = Agent::Repo;
using Backup::YJobPath;
using Backup::File::YMetadataBase;
using Backup::File::YSelectionManager;
using Backup::File::YUnixFileMetadata;
using Krt::YString;
using Krt::JSON::YValue;
using Krt::Time::YDuration;

// The first time fills what is kept for the next one. Each repetition counts as `units` operations.
void Count(int times, const std::function<void(int)>& work, int units = 1)
{
    work(0);
    CALLGRIND_TOGGLE_COLLECT;
    for (int i = 0; i < times; ++i)
        work(i);
    CALLGRIND_TOGGLE_COLLECT;
    std::printf("%d\n", times * units);
}

void CountQueries(const YSelectionManager& tree, const std::vector<std::string>& paths)
{
    Count(static_cast<int>(paths.size()), [&](int i) { tree.GetPathSelectionType(paths[i].c_str()); });
}

template <std::size_t RuleCount>
void Query()
{
    const Bench::SelectionInputs inputs(2000);
    YSelectionManager tree;
    for (const auto& rule : inputs.MixedRules(RuleCount))
        tree.Add(rule.AsDescriptor());
    CountQueries(tree, inputs.GetPaths());
}

void QueryAmongGlobs()
{
    using Rule = Backup::File::YSelectionDescriptor;
    constexpr int Globs = 1000;
    YSelectionManager tree;
    std::vector<std::string> paths;
    for (int i = 0; i < Globs; ++i) {
        const std::string pattern = "*infix" + std::to_string(i) + "*";
        tree.Add("/usr/lib", Krt::Match::GlobDescriptor(pattern.c_str(), true), Rule::NonRecursive,
                 Rule::Exclude, true);
        paths.push_back("/usr/lib/an infix" + std::to_string(i * 7919 % (2 * Globs)) + ".txt");
    }
    CountQueries(tree, paths);
}

// The rules are at the root and recursive.
void QueryBelowGlobs()
{
    using Rule = Backup::File::YSelectionDescriptor;
    YSelectionManager tree;
    for (int i = 0; i < 1000; ++i) {
        const std::string pattern = "*.ext" + std::to_string(i);
        tree.Add("/", Krt::Match::GlobDescriptor(pattern.c_str(), true), Rule::Recursive, Rule::Exclude,
                 true);
    }
    CountQueries(tree, Bench::SelectionInputs(2000).GetPaths());
}

// Each rule is added at the root after 10,000 others.
void LateRule()
{
    using Rule = Backup::File::YSelectionDescriptor;
    YSelectionManager tree;
    for (const auto& rule : Bench::SelectionInputs(0).MixedRules(10000))
        tree.Add(rule.AsDescriptor());
    Count(500, [&](int i) {
        const std::string pattern = "*late" + std::to_string(i) + "*";
        tree.Add("/", Krt::Match::GlobDescriptor(pattern.c_str(), true), Rule::Recursive, Rule::Exclude,
                 true);
    });
}

void QueryOfLevels()
{
    const auto [tree, path] = Bench::ExplicitLevels(120);
    CountQueries(tree, std::vector<std::string>(100, path));
}

// The name begins to match at each of its positions.
void LongGlob()
{
    const YString name(std::string(255, 'a'));
    const YString pattern("*" + std::string(127, 'a') + "b*");
    const Krt::Match::Descriptor glob(Krt::Match::MatchType::Glob, pattern, true);
    Count(100, [&](int) { (void)Krt::Match::Check(name, glob); });
}

void CharacterAt()
{
    constexpr int Characters = 4000;
    std::string bytes;
    for (int i = 0; i < Characters; ++i)
        bytes += "\xC3\xA9";
    const YString text(std::move(bytes));
    Count(Characters, [&](int i) { (void)text.At(i); });
}

// Of 1,000 bytes in front of the match, whose characters were not counted yet.
void FindAtEnd()
{
    const YString text(std::string(100000, 'a') + "needle");
    Count(
        10, [&](int) { (void)text.Find("needle", 0, true); }, 100);
}

void NestedReadLock()
{
    const Krt::Thread::YReadWriteMutex mutex;
    const auto outer = mutex.ReadLock(YDuration::Zero());
    Count(1000, [&](int) { mutex.ReadLock(YDuration::Zero()); });
}

void DisabledLogSite()
{
    Count(1000, [](int i) { KRT_LOG_FREE(Krt::MessageType::SelectionQuery, "Asked for " << i); });
}

void RecordFromText()
{
    const auto texts = Bench::TextOf(Bench::MakeRecords(100));
    Count(100, [&](int i) { YUnixFileMetadata(YValue::Parse(texts[i])->AsObject()); });
}

void RecordToText()
{
    const auto records = Bench::MakeRecords(100);
    std::string text;
    Count(100, [&](int i) {
        text.clear();
        records[i].StringifyTo(text);
    });
}

void LegacyHeader()
{
    Testing::LegacyUnixHeader header;
    header.names = std::string("/usr/share/doc/package/file.txt") + '\0';
    const auto document = Testing::LegacyDocument("unix", header.Bytes());
    Count(100, [&](int) {
        YMetadataBase::ConstructFromJson(document, [](const Krt::File::YPath& path, bool isDirectory) {
            return YJobPath::FromFilePath(YJobPath(), path, isDirectory);
        });
    });
}

// Bytes at the beginning of a chunk need no digest; they are counted as well.
void ChunkByte()
{
    constexpr int Size = 4 << 20;
    std::mt19937 random(1);
    Repo::Bytes content(Size);
    std::generate(content.begin(), content.end(), [&] { return static_cast<unsigned char>(random()); });
    const Repo::ChunkerTables tables(0x3DA3358B4DC173);
    Repo::Chunker chunker(tables);
    const auto cut = [&](int) {
        bool isCut = false;
        for (Repo::ByteView rest = content; !rest.empty();)
            rest = rest.subspan(chunker.Feed(rest, isCut));
    };
    Count(1, cut, Size);
}

Repo::Node MakeNode(int number)
{
    Repo::Node node;
    node.name = "file-of-a-package-" + std::to_string(1000 + number);
    node.mode = Repo::MakeNodeMode(0100644);
    node.user = node.group = "root";
    node.size = 4096;
    node.links = 1;
    node.content.emplace(1, Repo::Id::Of(Repo::AsBytes(node.name)));
    return node;
}

void NodeFromText()
{
    constexpr int Nodes = 100;
    Repo::TreeWriter writer;
    for (int i = 0; i <= Nodes; ++i)
        writer.Add(MakeNode(i));
    const std::string text = writer.Finish();
    Repo::TreeReader reader(text);
    Repo::Node node;
    Count(Nodes, [&](int) { reader.Next(node); });
}

void NodeToText()
{
    const Repo::Node node = MakeNode(0);
    std::string text;
    Count(100, [&](int) {
        text.clear();
        Repo::AppendNode(node, text);
    });
}

constexpr int BlobsOfFile = 4000;

Repo::BlobHandle HandleOf(int number)
{
    return {Repo::BlobType::Data, Repo::Id::Of(Repo::AsBytes("blob " + std::to_string(number)))};
}

std::string IndexFile(int firstBlob)
{
    constexpr int BlobsOfPack = 40;
    Repo::IndexFileWriter writer;
    std::vector<Repo::PackedBlob> ofPack;
    for (int i = 0; i < BlobsOfFile; ++i) {
        ofPack.push_back({HandleOf(firstBlob + i), static_cast<std::uint32_t>(ofPack.size()) * 5000, 5000});
        if (ofPack.size() == BlobsOfPack) {
            writer.Add(Repo::Id::Of(Repo::AsBytes("pack " + std::to_string(firstBlob + i))), ofPack);
            ofPack.clear();
        }
    }
    return writer.Finish();
}

void IndexEntry()
{
    const std::string files[] = {IndexFile(0), IndexFile(BlobsOfFile)};
    Repo::Index index;
    const std::string* next = files;
    Count(
        1, [&](int) { index.AddFile(*next++); }, BlobsOfFile);
}

void IndexFind()
{
    Repo::Index index;
    index.AddFile(IndexFile(0));
    std::vector<Repo::BlobHandle> handles;
    for (int i = 0; i < BlobsOfFile; ++i)
        handles.push_back(HandleOf(i));
    Count(BlobsOfFile, [&](int i) { (void)index.Find(handles[i]); });
}

} // namespace

int main(int argc, char** argv)
{
    const std::map<std::string, void (*)()> works = {
        {"query.10", Query<10>},
        {"query.10000", Query<10000>},
        {"query.infix.1000", QueryAmongGlobs},
        {"query.levels.120", QueryOfLevels},
        {"query.root.1000", QueryBelowGlobs},
        {"rule.late", LateRule},
        {"glob.long", LongGlob},
        {"string.at", CharacterAt},
        {"string.find.1000", FindAtEnd},
        {"lock.nested", NestedReadLock},
        {"log.disabled", DisabledLogSite},
        {"record.from.text", RecordFromText},
        {"record.to.text", RecordToText},
        {"legacy.header", LegacyHeader},
        {"chunk.byte", ChunkByte},
        {"node.from.text", NodeFromText},
        {"node.to.text", NodeToText},
        {"index.entry", IndexEntry},
        {"index.find", IndexFind},
    };
    Krt::Log::InstallGlobalLogger();
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({});
    const auto work = argc == 2 ? works.find(argv[1]) : works.end();
    if (work == works.end()) {
        for (const auto& each : works)
            std::printf("%s\n", each.first.c_str());
        return 2;
    }
    work->second();
    return 0;
}
