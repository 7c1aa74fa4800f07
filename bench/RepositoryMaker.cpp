// RepositoryMaker: repositories that benchmarks of whole programs work on.
//   RepositoryMaker create DIRECTORY PASSWORD         creates one whose key takes almost no time to open
//   RepositoryMaker fill DIRECTORY PASSWORD BLOBS     adds that many blobs to its index. Their packs are
//   holes
#include "agent/Repository/LocalBackend.h"
#include "agent/Repository/Pack.h"
#include "agent/Repository/Repository.h"

#include <cstdio>
#include <cstdlib>
#include <exception>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace {

using namespace Agent::Repo;

constexpr std::size_t BlobsOfPack = 4000; // which are 16 MB
constexpr std::size_t BlobsOfFile = 50000;

std::shared_ptr<IBackend> BackendOf(const std::string& directory)
{
    return std::make_shared<LocalBackend>(directory.c_str());
}

Secret SecretOf(const std::string& password)
{
    return Secret(AsBytes(password));
}

void Create(const std::string& directory, const std::string& password)
{
    CreateOptions options;
    options.cost = {1024, 8, 1};
    Repository::Create(BackendOf(directory), SecretOf(password), options);
}

// Creates a file of the pack's size that is one hole, since a pack without a file counts as lost.
void MakePack(const std::string& directory, const Id& id, std::span<const PackedBlob> blobs)
{
    std::uintmax_t size = PackOverhead;
    for (const PackedBlob& blob : blobs)
        size += blob.length + PackEntrySize(blob.isCompressed);
    const std::string path = directory + "/" + FileName{FileKind::Pack, id}.Path();
    std::ofstream(path).close();
    std::filesystem::resize_file(path, size);
}

// All blobs have the length of a small file.
void Fill(const std::string& directory, const std::string& password, std::size_t blobs)
{
    constexpr std::uint32_t PlainLength = 4096;
    constexpr std::uint32_t Length = PlainLength + SealOverhead;
    const Repository repository = Repository::Open(BackendOf(directory), SecretOf(password));
    IndexFileWriter writer;
    for (std::size_t made = 0; made < blobs;) {
        std::vector<PackedBlob> ofPack;
        while (ofPack.size() < BlobsOfPack && made < blobs) {
            PackedBlob blob;
            blob.handle.id = Id::Of(AsBytes("blob " + std::to_string(made++)));
            blob.offset = static_cast<std::uint32_t>(ofPack.size()) * Length;
            blob.length = Length;
            blob.plainLength = PlainLength;
            ofPack.push_back(blob);
        }
        const Id pack = Id::Of(AsBytes("pack " + std::to_string(made)));
        MakePack(directory, pack, ofPack);
        writer.Add(pack, ofPack);
        if (writer.CountBlobs() >= BlobsOfFile || made == blobs)
            repository.SaveText(FileKind::Index, writer.Finish());
    }
}

int Run(const std::vector<std::string>& arguments)
{
    if (arguments.size() == 3 && arguments[0] == "create") {
        Create(arguments[1], arguments[2]);
    } else if (arguments.size() == 4 && arguments[0] == "fill") {
        Fill(arguments[1], arguments[2], std::strtoull(arguments[3].c_str(), nullptr, 10));
    } else {
        std::fprintf(stderr,
                     "Usage: RepositoryMaker create DIRECTORY PASSWORD | fill DIRECTORY PASSWORD BLOBS\n");
        return 2;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return Run({argv + 1, argv + argc});
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "RepositoryMaker: %s\n", failure.what());
        return 1;
    }
}
