// How content becomes chunks, blobs and packs, and how a restore loads them again.
#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/Chunker.h"
#include "agent/Repository/LocalBackend.h"
#include "agent/Restore/BlobLoader.h"

#include "testing/OnThreads.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <atomic>
#include <climits>
#include <map>
#include <random>
#include <thread>

using namespace Agent::Repo;
namespace json = boost::json;

namespace {

// The digests of "LABEL/0", "LABEL/1" and so on, without gaps, cut to the size.
std::string Generated(const std::string& label, std::size_t size)
{
    std::string content;
    for (int i = 0; content.size() < size; ++i)
        content += AsText(Id::Of(AsBytes(label + "/" + std::to_string(i))).bytes);
    content.resize(size);
    return content;
}

// The lengths of the chunks, if the content comes in pieces of these sizes, again and again.
std::vector<std::size_t> Lengths(const ChunkerTables& tables, std::string_view content,
                                 const std::vector<std::size_t>& pieces)
{
    Chunker chunker(tables);
    std::vector<std::size_t> lengths;
    std::size_t length = 0;
    std::size_t piece = 0;
    while (!content.empty()) {
        std::string_view rest = content.substr(0, pieces[piece++ % pieces.size()]);
        content.remove_prefix(rest.size());
        while (!rest.empty()) {
            bool isCut = false;
            const std::size_t used = chunker.Feed(AsBytes(rest), isCut);
            EXPECT_TRUE(isCut || used == rest.size());
            rest.remove_prefix(used);
            length += used;
            if (isCut)
                lengths.push_back(std::exchange(length, 0));
        }
    }
    if (length != 0)
        lengths.push_back(length);
    return lengths;
}

TEST(Chunker, CutsEqualThoseOfRestic)
{
    std::string text;
    while (text.size() < 8 << 20)
        text += "The same line, many times over.\n";
    const std::map<std::string_view, std::string> contents{
        {"random6m", Generated("chunk", 6 << 20)},
        {"small", Generated("small", 524287)},
        {"exactmin", Generated("exactmin", 524288)},
        {"minplus1", Generated("minplus1", 524289)},
        {"onebyte", "A"},
        {"mixed", Generated("mixa", 700001) + std::string(2000003, '\0') + Generated("mixb", 3000017)},
        {"text", text}};
    const json::value golden = json::parse(Testing::ReadFile(GOLDEN_DIRECTORY "/repository/chunker.json"));
    for (const auto& [digits, inputs] : golden.as_object()) {
        const ChunkerTables tables(std::stoull(std::string(digits), nullptr, 16));
        for (const auto& [name, lengths] : inputs.as_object()) {
            const auto expected = json::value_to<std::vector<std::size_t>>(lengths);
            EXPECT_EQ(Lengths(tables, contents.at(name), {SIZE_MAX}), expected) << name << " by " << digits;
            if (name == "mixed") {
                EXPECT_EQ(Lengths(tables, contents.at(name), {524287, 1, 63, 64, 65, 7}), expected) << digits;
            }
        }
    }
}

// A disk that is full after some packs, and takes its time for each. It may be unplugged.
class Disk : public LocalBackend
{
public:
    explicit Disk(const Testing::TemporaryDirectory& directory) : LocalBackend((directory / "repo").c_str())
    {}
    void Save(const FileName& file, ByteView content) override
    {
        if (file.kind == FileKind::Pack) {
            std::this_thread::sleep_for(timeOfPack);
            isFull = packsLeft-- <= 0;
        }
        REPOSITORY_RAISE_UNLESS(!isFull, Failure::Backend, "the disk is full");
        LocalBackend::Save(file, content);
    }

    void Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Bytes& out) override
    {
        ++loads;
        if (isUnplugged)
            throw std::runtime_error("the disk is gone");
        LocalBackend::Load(file, offset, length, out);
        bytes += length;
    }

    std::atomic<bool> isUnplugged{false};
    std::atomic<unsigned int> loads{0};
    std::atomic<std::uint64_t> bytes{0}; // that were loaded
    std::atomic<int> packsLeft{INT_MAX};
    std::atomic<bool> isFull{false};
    std::chrono::milliseconds timeOfPack{0};
};

class BlobSaverTest : public ::testing::Test
{
protected:
    static Repository Create(const std::shared_ptr<Disk>& disk)
    {
        CreateOptions options;
        options.cost = {16, 1, 1};
        return Repository::Create(disk, Secret(AsBytes("secret")), options);
    }

    const Testing::TemporaryDirectory directory;
    const std::shared_ptr<Disk> disk = std::make_shared<Disk>(directory);
    Repository repository = Create(disk);
    SaveOptions options{.packSize = 256 << 10};
};

constexpr int Blobs = 150;

// The blobs of the tests: some compress, some do not, and one is empty.
const std::string& BlobContent(int number)
{
    static const std::vector<std::string> contents = [] {
        std::vector<std::string> made;
        std::mt19937 random(1);
        for (int i = 0; i < Blobs; ++i) {
            made.emplace_back(i == 0 ? 0 : 1000 + random() % 100000, 'x');
            if (i % 3 == 0)
                std::generate(made.back().begin(), made.back().end(),
                              [&] { return static_cast<char>(random()); });
            made.back() += i == 0 ? "" : std::to_string(i);
        }
        return made;
    }();
    return contents[static_cast<std::size_t>(number)];
}

BlobHandle HandleOf(int number, const std::string& content)
{
    return {number % 5 == 0 ? BlobType::Tree : BlobType::Data, Id::Of(AsBytes(content))};
}

// Saves all blobs on each of four threads, in different orders. Returns how many were new. A failure ends a
// thread and is counted.
int SaveOnThreads(BlobSaver& saver, std::atomic<int>& failures)
{
    std::atomic<int> added{0};
    Testing::OnThreads(4, [&](int thread) {
        const auto error = Testing::CatchError([&] {
            for (int i = 0; i < Blobs; ++i) {
                const int number = i * std::array{1, 7, 11, 13}[static_cast<std::size_t>(thread)] % Blobs;
                const std::string& content = BlobContent(number);
                if (saver.Save(HandleOf(number, content), AsBytes(content)))
                    ++added;
            }
        });
        failures += error ? 1 : 0;
    });
    return added;
}

constexpr int Parts = 12;

// Each part has most of its blobs in common with the next one.
void StartParts(Agent::BlobLoader& loader)
{
    for (int part = 0; part < Parts; ++part) {
        std::vector<Id> ids;
        for (int number = part * 10; number < part * 10 + 40; ++number) {
            const BlobHandle handle = HandleOf(number, BlobContent(number));
            if (handle.type == BlobType::Data)
                ids.push_back(handle.id);
        }
        loader.Start(ids);
    }
}

TEST_F(BlobSaverTest, PartsOfRestoreLoadConcurrently)
{
    constexpr unsigned int Threads = 5;
    std::atomic<int> failures{0};
    {
        BlobSaver saver(repository, options);
        SaveOnThreads(saver, failures);
        saver.Finish();
    }
    repository.LoadIndex();
    const Index& index = repository.GetIndex();
    const auto lost = std::find_if(index.GetPacks().begin(), index.GetPacks().end(),
                                   [](const IndexedPack& pack) { return pack.hasData; });
    disk->Remove({FileKind::Pack, lost->id});
    Agent::BlobLoader loader(repository, Threads, 100'000);
    StartParts(loader);
    std::size_t loaded = 0, failed = 0;
    for (int part = 0; part < Parts; ++part) {
        for (const auto& [id, blob] : loader.Take()) {
            const bool isLost = index.GetPacks()[index.Find({BlobType::Data, id})->pack].id == lost->id;
            EXPECT_EQ(blob->failure != nullptr, isLost);
            EXPECT_TRUE(isLost || Id::Of(blob->content) == id);
            ++(isLost ? failed : loaded);
        }
    }
    EXPECT_GT(failed, 0u);
    EXPECT_EQ(loaded + failed, Parts * 32u);
    std::uint64_t stored = 0;
    for (const IndexedPack& pack : index.GetPacks())
        stored += pack.size;
    EXPECT_LT(disk->bytes, stored * 3) << "blobs in common are loaded once";

    StartParts(loader);
    loader.Drop();
    disk->isUnplugged = true;
    StartParts(loader);
    EXPECT_THROW(loader.Take(), std::runtime_error);
    loader.Drop();
    const unsigned int loads = disk->loads;
    StartParts(loader);
    EXPECT_THROW(loader.Take(), std::runtime_error);
    loader.Drop();
    EXPECT_EQ(disk->loads, loads) << "the first failure ends all";
}

class EachCompression : public BlobSaverTest, public ::testing::WithParamInterface<Compression>
{};

TEST_P(EachCompression, BlobsOfAllThreadsAreStoredOnce)
{
    options.compression = GetParam();
    std::atomic<int> failures{0};
    SavedBlobs data, trees;
    {
        BlobSaver saver(repository, options);
        EXPECT_EQ(SaveOnThreads(saver, failures), Blobs);
        saver.Finish();
        data = saver.GetSaved(BlobType::Data);
        trees = saver.GetSaved(BlobType::Tree);
    }
    repository.LoadIndex();
    const Index& index = repository.GetIndex();
    EXPECT_EQ(index.CountBlobs(), static_cast<std::size_t>(Blobs));
    EXPECT_EQ(data.blobs + trees.blobs, static_cast<std::uint64_t>(Blobs));
    EXPECT_GT(index.GetPacks().size(), 4u);
    std::uint64_t stored = 0;
    for (const IndexedPack& pack : index.GetPacks()) {
        EXPECT_NE(pack.hasData, pack.hasTrees);
        EXPECT_EQ(disk->Size({FileKind::Pack, pack.id}), pack.size);
        EXPECT_EQ(repository.LoadPackHeader(pack.id, pack.size).size(), pack.blobs);
        stored += pack.size - PackOverhead;
    }
    EXPECT_EQ(data.stored + trees.stored, stored);
    Bytes read;
    for (int number = 0; number < Blobs; ++number) {
        const std::string& content = BlobContent(number);
        const BlobHandle handle = HandleOf(number, content);
        repository.LoadBlob(handle, read);
        EXPECT_EQ(AsText(read), content);
        const bool isNoise = number % 3 == 0;
        const bool isCompressed =
            handle.type == BlobType::Tree ? !content.empty() : GetParam() != Compression::Off && !isNoise;
        EXPECT_EQ(index.Find(handle)->blob.isCompressed, isCompressed) << number;
    }
    // What the index has is not saved again.
    BlobSaver again(repository, options);
    EXPECT_EQ(SaveOnThreads(again, failures), 0);
    EXPECT_EQ(failures, 0);
}

INSTANTIATE_TEST_SUITE_P(BlobSaver, EachCompression,
                         ::testing::Values(Compression::Auto, Compression::Off, Compression::Max));

TEST_F(BlobSaverTest, FailureEndsWriting)
{
    disk->packsLeft = 3;
    BlobSaver saver(repository, options);
    std::atomic<int> failures{0};
    SaveOnThreads(saver, failures);
    EXPECT_EQ(failures, 4);
    for (int i = 0; i < 2; ++i) {
        const auto error = Testing::CatchError([&] { saver.Finish(); });
        ASSERT_TRUE(error);
        EXPECT_EQ(error->GetMessage().Bytes(), "the disk is full");
    }
    disk->isFull = false;
    EXPECT_TRUE(Testing::CatchError([&] { saver.Save({BlobType::Data, Id::Of({})}, {}); }));
    EXPECT_TRUE(repository.ListIds(FileKind::Index).empty());
    EXPECT_LE(repository.ListIds(FileKind::Pack).size(), 3u);
}

TEST_F(BlobSaverTest, InterruptedWaitEndsSaving)
{
    disk->timeOfPack = std::chrono::milliseconds(500);
    const BlobSaver* waiting = nullptr;
    options.onWait = [&waiting] {
        waiting->GetSaved(BlobType::Data); // as progress does
        KRT_RAISE(Krt::ErrorCode::InvalidState, "interrupted");
    };
    BlobSaver saver(repository, options);
    waiting = &saver;
    std::atomic<int> failures{0};
    SaveOnThreads(saver, failures);
    EXPECT_EQ(failures, 4);
}

} // namespace
