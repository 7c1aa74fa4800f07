// A first byte chooses what the others are: the text of a key file, of the configuration, of an index file,
// of a snapshot or of a lock, or compressed content.
#include "fuzz/Input.h"

#include "agent/Repository/Config.h"
#include "agent/Repository/Index.h"
#include "agent/Repository/KeyFile.h"
#include "agent/Repository/Lock.h"
#include "agent/Repository/Snapshot.h"
#include "agent/Repository/Zstd.h"

using namespace Agent::Repo;

namespace {

// What can be read is written in a form that is read as the same.
template <class Document>
void RoundTrip(std::string_view text)
{
    const std::string once = Document::Parse(text).ToJson();
    std::string twice;
    Fuzz::Expect(!Fuzz::Raises([&] { twice = Document::Parse(once).ToJson(); }) && once == twice,
                 "a document is written and read again unchanged");
}

void ReadIndex(std::string_view text)
{
    Index index;
    IndexFileWriter writer;
    ReadIndexFile(text, [&](const Id& pack, std::span<const PackedBlob> blobs) {
        index.AddPack(pack, blobs);
        writer.Add(pack, blobs);
    });
    const std::size_t count = index.CountBlobs(), duplicates = index.CountDuplicates();
    index.AddFile(writer.Finish());
    Fuzz::Expect(index.CountBlobs() == count && index.CountDuplicates() == 2 * duplicates + count,
                 "an index that is added again has only duplicates");
    for (std::uint32_t number = 0; number < count; ++number) {
        const IndexedBlob blob = index.At(number);
        Fuzz::Expect(index.Has(blob.blob.handle) && index.GetPacks().at(blob.pack).size > blob.blob.length,
                     "a blob is found and has a pack");
    }
}

void ReadCompressed(ByteView frames)
{
    constexpr std::size_t Limit = 1 << 20;
    Bytes content, again;
    DecompressUpTo(frames, Limit, content);
    Fuzz::Expect(content.size() <= Limit, "no more than the limit");
    Decompress(frames, content.size(), again);
    Fuzz::Expect(content == again, "both ways to decompress agree");
}

} // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0)
        return 0;
    const ByteView bytes(data + 1, size - 1);
    const std::string_view text = AsText(bytes);
    (void)Fuzz::Raises([&] {
        switch (data[0]) {
        case 'k':
            return RoundTrip<KeyFile>(text);
        case 'c':
            return RoundTrip<Config>(text);
        case 'i':
            return ReadIndex(text);
        case 's':
            return RoundTrip<Snapshot>(text);
        case 'l':
            return RoundTrip<Lock>(text);
        default:
            return ReadCompressed(bytes);
        }
    });
    return 0;
}
