// Four bytes for the length of the blobs, which are also taken for the end of a pack, then a header.
#include "fuzz/Input.h"

#include "agent/Repository/Pack.h"

using namespace Agent::Repo;

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    constexpr std::size_t LengthSize = 4;
    if (size < LengthSize)
        return 0;
    (void)Fuzz::Raises([&] {
        Fuzz::Expect(ReadPackHeaderLength({data, LengthSize}, size) + LengthSize <= size,
                     "a header is inside of its pack");
    });
    std::uint64_t blobBytes = 0;
    for (std::size_t i = 0; i < LengthSize; ++i)
        blobBytes |= std::uint64_t(data[i]) << 8 * i;
    (void)Fuzz::Raises([&] {
        std::uint64_t place = 0;
        for (const PackedBlob& blob : ParsePackHeader({data + LengthSize, size - LengthSize}, blobBytes)) {
            Fuzz::Expect(blob.offset == place && blob.length >= SealOverhead, "blobs follow each other");
            place += blob.length;
        }
        Fuzz::Expect(place == blobBytes, "blobs fill the pack");
    });
    return 0;
}
