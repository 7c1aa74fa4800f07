// The number of allocations in the operations that every file needs, and the memory held at once; neither
// depends on the load of the machine.
#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/LocalBackend.h"
#include "agent/Repository/Tree.h"
#include "agent/Walk/Roots.h"

#include "Backup/File/YSelectionManager.h"
#include "Backup/File/YUnixFileMetadata.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"
#include "Krt/Log/LogSite.h"

#include "testing/Raises.h"
#include "testing/SelectionText.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <functional>
#include <malloc.h>
#include <new>

namespace {

std::size_t g_allocations = 0;
std::size_t g_held = 0, g_mostHeld = 0; // in bytes

} // namespace

void* operator new(std::size_t size)
{
    ++g_allocations;
    void* const memory = std::malloc(size);
    if (memory == nullptr)
        throw std::bad_alloc();
    g_held += malloc_usable_size(memory);
    g_mostHeld = std::max(g_mostHeld, g_held);
    return memory;
}

void operator delete(void* memory) noexcept
{
    g_held -= malloc_usable_size(memory);
    std::free(memory);
}

void operator delete(void* memory, std::size_t) noexcept
{
    operator delete(memory);
}

namespace {

using Backup::File::YUnixFileMetadata;
using Krt::JSON::YValue;

// Counts the second of two runs, since the first fills the caches.
std::size_t AllocationsOf(const std::function<void()>& work)
{
    work();
    const std::size_t before = g_allocations;
    work();
    return g_allocations - before;
}

TEST(Allocations, RecordNeedsFew)
{
    YUnixFileMetadata record;
    record.SetFilePath(
        Backup::YJobPath::FromFilePath(Backup::YJobPath(), "/usr/share/doc/a/b/c/d.txt", false));
    std::string text;
    YValue::FromObject(record.ToJSON()).StringifyTo(text);
    const auto value = YValue::Parse(text);
    std::string out;
    out.reserve(2000);

    // The containers, and the texts that are longer than 15 bytes.
    EXPECT_LE(AllocationsOf([&] { YValue::Parse(text); }), 20u);
    EXPECT_LE(AllocationsOf([&] { YUnixFileMetadata(YValue::Parse(text)->AsObject()); }), 24u);
    EXPECT_LE(AllocationsOf([&] { record.ToJSON(); }), 17u);
    EXPECT_EQ(AllocationsOf([&] {
                  out.clear();
                  value->StringifyTo(out);
                  record.StringifyTo(out);
              }),
              0u);
}

TEST(Allocations, QueryNeedsThoseOfItsPath)
{
    using Rule = Backup::File::YSelectionDescriptor;
    Backup::File::YSelectionManager tree;
    tree.Add("/usr", Krt::Match::AnyDescriptor(), Rule::Recursive, Rule::Include, true);
    for (int i = 0; i < 100; ++i) {
        const std::string name = "name" + std::to_string(i);
        tree.Add("/usr/share", Krt::Match::ExactDescriptor(name.c_str(), true), Rule::NonRecursive,
                 Rule::Exclude, true);
        tree.Add("/usr/share/doc", Krt::Match::GlobDescriptor(("*." + name).c_str(), true), Rule::Recursive,
                 Rule::Exclude, true);
    }
    for (const char* const text :
         {"/usr/share/name5", "/usr/share/doc/package/a.name99", "/usr/lib/of/a/longer/path.so"}) {
        SCOPED_TRACE(text);
        const std::size_t ofPath = AllocationsOf([&] { Krt::File::YPath(text).PopulateComponents(); });
        EXPECT_LE(ofPath, 2u); // the text, and the components
        EXPECT_EQ(AllocationsOf([&] { tree.GetPathSelectionType(text); }), ofPath);
    }
    EXPECT_EQ(AllocationsOf([&] { tree.Delete("/"); }), 0u);
}

TEST(Allocations, LogSiteNeedsThoseOfItsPrefix)
{
    Krt::Log::InstallGlobalLogger();
    const std::string text(100, 'x');
    const auto log = [&] {
        KRT_LOG_FREE(Krt::MessageType::SelectionQuery, text.c_str());
    };
    EXPECT_EQ(AllocationsOf(log), 0u);
    const Testing::TemporaryDirectory directory;
    Krt::Log::GetGlobalLogger()->Open(Krt::Log::YLog::Param((directory.Path() + "/log").c_str()));
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({"SelectionQuery"});
    log();
    EXPECT_LE(AllocationsOf(log), 1u);
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({});
    Krt::Log::GetGlobalLogger()->Close();
}

Agent::Repo::BlobHandle HandleOf(int number)
{
    using namespace Agent::Repo;
    return {BlobType::Data, Id::Of(AsBytes("blob " + std::to_string(number)))};
}

TEST(Allocations, EntriesOfRepositoryNeedFew)
{
    using namespace Agent::Repo;
    TreeWriter writer;
    for (int i = 0; i < 2; ++i) {
        Node node;
        node.name = "file of a package " + std::to_string(i);
        node.user = node.group = "a name of a user";
        node.content.emplace(1, HandleOf(i).id);
        writer.Add(node);
    }
    const std::string text = writer.Finish();
    TreeReader reader(text);
    Node node;
    EXPECT_LE(AllocationsOf([&] { reader.Next(node); }), 1u); // the list of its content

    constexpr int Blobs = 2000;
    IndexFileWriter files[2];
    for (int i = 0; i < 2 * Blobs; ++i) {
        const PackedBlob blob{HandleOf(i), 0, 5000};
        files[i / Blobs].Add(blob.handle.id, {&blob, 1});
    }
    const std::string indexFiles[] = {files[0].Finish(), files[1].Finish()};
    Index index;
    const std::string* next = indexFiles;
    EXPECT_LE(AllocationsOf([&] { index.AddFile(*next++); }), 20u);

    const Testing::TemporaryDirectory directory;
    CreateOptions options;
    options.cost = {16, 1, 1};
    const Repository repository =
        Repository::Create(std::make_shared<LocalBackend>((directory.Path() + "/repository").c_str()),
                           Secret(AsBytes("password")), options);
    BlobSaver saver(repository, {});
    int blob = 0;
    const auto saveHundred = [&] {
        for (const int end = blob + 100; blob < end; ++blob)
            saver.Save(HandleOf(blob), AsBytes(text));
    };
    EXPECT_LE(AllocationsOf(saveHundred), 4u); // the pack's list and the table of saved blobs, which grow
    EXPECT_EQ(AllocationsOf([&] { saver.Save(HandleOf(0), AsBytes(text)); }), 0u);
}

struct Failing
{
    explicit Failing(bool asserts)
    {
        if (asserts)
            KRT_ASSERT(false, "detail");
        KRT_RAISE(Krt::ErrorCode::InvalidUse, "detail");
    }
};

TEST(Allocations, UnloggedAssertionNeedsThoseOfItsError)
{
    const auto ofError = [](bool asserts) {
        return AllocationsOf([=] { Testing::CatchError([=] { Failing{asserts}; }); });
    };
    EXPECT_EQ(ofError(true), ofError(false));
}

// Returns the peak of the memory that the second of two runs of the work allocates, in bytes.
std::size_t MostHeldBy(const std::function<void()>& work)
{
    work();
    const std::size_t before = g_mostHeld = g_held;
    work();
    return g_mostHeld - before;
}

TEST(Allocations, LoadedJobKeepsNoText)
{
    const Testing::TemporaryDirectory directory;
    std::string rules = "include /directory exact=name-0";
    for (int i = 1; i < 500; ++i)
        rules += "; include /directory exact=name-" + std::to_string(i);
    const std::string text = YValue::FromObject(Testing::Tree(rules).ToJSON("/")).Stringify(true).Bytes();
    const std::string file = directory.Write("job", text);
    const std::size_t fromText =
        MostHeldBy([&] { Backup::File::YSelectionManager().FromJSON(YValue::Parse(text)->AsObject()); });
    EXPECT_LT(MostHeldBy([&] { Agent::LoadJob(file, {}); }), fromText + text.size());
}

TEST(Allocations, RuleAndMemberTakeLittleMemory)
{
    using Rule = Backup::File::YSelectionDescriptor;
    constexpr int Rules = 10000, Objects = 10000, Members = 3;
    std::string text = "[";
    for (int i = 0; i < Objects; ++i)
        text += R"({"identifier":1000000,"name":"entry number 1000000","is_file":true},)";
    text.back() = ']';

    std::size_t before = g_held;
    Backup::File::YSelectionManager tree;
    for (int i = 0; i < Rules; ++i) {
        const std::string place = "/home/user/folder" + std::to_string(i) + "/cache";
        tree.Add(place.c_str(), Krt::Match::AnyDescriptor(), Rule::Recursive, Rule::Exclude, true);
        tree.GetPathSelectionType(place.c_str());
    }
    EXPECT_LE((g_held - before) / Rules, 800u);
    before = g_held;
    const auto document = YValue::Parse(text);
    EXPECT_LE((g_held - before) / (Objects * Members), 290u);
}

TEST(Allocations, RulesAbovePathGrowWithDepth)
{
    const auto tree = Testing::Tree("exclude / recursive exact=a");
    const auto gather = [&](int depth) {
        std::string text;
        for (int level = 0; level < depth; ++level)
            text += "/d";
        return MostHeldBy([&, path = Krt::File::YPath(text.c_str())] {
            EXPECT_EQ(tree.GetSelections(path).size(), 1u);
            Backup::File::YSelectionManager().CopyDescriptorsFromPath(tree, path, "/copy");
        });
    };
    EXPECT_LT(gather(600), 3 * gather(300));
}

} // namespace
