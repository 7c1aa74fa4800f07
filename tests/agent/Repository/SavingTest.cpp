// How content becomes chunks, blobs and packs.
#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/Chunker.h"

#include "testing/OnThreads.h"
#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include <boost/json.hpp>
#include <gtest/gtest.h>

#include <map>
#include <random>

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

TEST(Chunker, CutsWhereResticDoes)
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

// Keeps files in memory, and fails to save from one pack on.
class MemoryBackend : public IBackend
{
public:
    Krt::YString Describe() const override { return "memory"; }
    void Prepare() override {}
    void Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Bytes& out) override
    {
        LoadWhole(file, UINT64_MAX, out);
        out = Bytes(out.begin() + static_cast<std::ptrdiff_t>(offset),
                    out.begin() + static_cast<std::ptrdiff_t>(offset + length));
    }
    void LoadWhole(const FileName& file, std::uint64_t, Bytes& out) override
    {
        const std::lock_guard guard(m_mutex);
        const auto found = m_files.find(file.Path());
        REPOSITORY_RAISE_UNLESS(found != m_files.end(), Failure::Missing, "no such file");
        out = found->second;
    }
    std::uint64_t Size(const FileName& file) override
    {
        Bytes content;
        LoadWhole(file, UINT64_MAX, content);
        return content.size();
    }
    void List(FileKind kind, const std::function<void(const Id&, std::uint64_t)>& visit) override
    {
        const std::string path = FileName{kind, {}}.Path();
        std::vector<std::pair<Id, std::uint64_t>> found;
        {
            const std::lock_guard guard(m_mutex);
            for (const auto& [name, content] : m_files) {
                const auto id = Id::FromHex(name.substr(name.rfind('/') + 1));
                if (id && name[0] == path[0])
                    found.emplace_back(*id, content.size());
            }
        }
        for (const auto& [id, size] : found)
            visit(id, size);
    }
    void Save(const FileName& file, ByteView content) override
    {
        const std::lock_guard guard(m_mutex);
        if (file.kind == FileKind::Pack && packsLeft-- <= 0) {
            isFailing = true;
            REPOSITORY_RAISE(Failure::Backend, "the disk is full");
        }
        savedAfterFailure += isFailing ? 1 : 0;
        m_files[file.Path()] = Bytes(content.begin(), content.end());
    }
    void Remove(const FileName& file) override { m_files.erase(file.Path()); }

    int packsLeft = INT_MAX;
    bool isFailing = false;
    int savedAfterFailure = 0;

private:
    std::mutex m_mutex;
    std::map<std::string, Bytes> m_files;
};

// A disk on which packs take their time.
class SlowBackend : public MemoryBackend
{
public:
    void Save(const FileName& file, ByteView content) override
    {
        if (file.kind == FileKind::Pack)
            std::this_thread::sleep_for(std::chrono::milliseconds(500));
        MemoryBackend::Save(file, content);
    }
};

Repository CreateIn(const std::shared_ptr<MemoryBackend>& backend)
{
    CreateOptions options;
    options.cost = {16, 1, 1};
    return Repository::Create(backend, Secret(AsBytes("secret")), options);
}

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

TEST(BlobSaver, StoresEachBlobOnceFromAllThreads)
{
    for (const Compression compression : {Compression::Auto, Compression::Off, Compression::Max}) {
        const auto backend = std::make_shared<MemoryBackend>();
        Repository repository = CreateIn(backend);
        SaveOptions options;
        options.compression = compression;
        options.packSize = 256 << 10;
        SavedBlobs data, trees;
        {
            BlobSaver saver(repository, options);
            std::atomic<int> failures{0};
            EXPECT_EQ(SaveOnThreads(saver, failures), Blobs);
            EXPECT_EQ(failures, 0);
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
            EXPECT_EQ(backend->Size({FileKind::Pack, pack.id}), pack.size);
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
            const bool isCompressed = handle.type == BlobType::Tree
                                          ? !content.empty()
                                          : compression != Compression::Off && !isNoise;
            EXPECT_EQ(index.Find(handle)->blob.isCompressed, isCompressed) << number;
        }
        // What the index has is not saved again.
        BlobSaver again(repository, options);
        std::atomic<int> failures{0};
        EXPECT_EQ(SaveOnThreads(again, failures), 0);
        again.Finish();
        EXPECT_EQ(again.GetSaved(BlobType::Data).stored, 0u);
    }
}

TEST(BlobSaver, WritesNothingAfterAFailure)
{
    for (const int packs : {0, 1, 3}) {
        const auto backend = std::make_shared<MemoryBackend>();
        Repository repository = CreateIn(backend);
        backend->packsLeft = packs;
        SaveOptions options;
        options.packSize = 256 << 10;
        options.writers = 1;
        {
            BlobSaver saver(repository, options);
            std::atomic<int> failures{0};
            SaveOnThreads(saver, failures);
            EXPECT_TRUE(packs != 0 || failures != 0);
            const auto error = Testing::CatchError([&] { saver.Finish(); });
            ASSERT_TRUE(error) << packs;
            EXPECT_EQ(error->GetMessage().Bytes(), "the disk is full");
            EXPECT_TRUE(Testing::CatchError([&] { saver.Save({BlobType::Data, Id::Of({})}, {}); }));
        }
        EXPECT_EQ(backend->savedAfterFailure, 0);
        EXPECT_TRUE(repository.ListIds(FileKind::Index).empty());
        EXPECT_EQ(repository.ListIds(FileKind::Pack).size(), static_cast<std::size_t>(packs));
    }
}

TEST(BlobSaver, EndsWhenAWaitingCallerIsToEnd)
{
    SaveOptions options;
    options.packSize = 1;
    options.writers = 1;
    std::atomic<int> waits{0};
    options.onWait = [&] {
        ++waits;
        KRT_RAISE(Krt::ErrorCode::InvalidState, "enough");
    };
    Repository slow = CreateIn(std::make_shared<SlowBackend>());
    BlobSaver saver(slow, options);
    const auto error = Testing::CatchError([&] {
        for (int number = 1; number < 10; ++number)
            saver.Save({BlobType::Data, Id::Of(AsBytes(std::to_string(number)))},
                       AsBytes(std::to_string(number)));
    });
    ASSERT_TRUE(error);
    EXPECT_EQ(error->GetMessage().Bytes(), "enough");
    EXPECT_GT(waits, 0);
}

} // namespace
