#include "agent/Repository/Pack.h"

#include "agent/Repository/Failure.h"
#include "agent/Repository/Zstd.h"

#include <algorithm>

namespace Agent::Repo {

namespace {

constexpr std::size_t LengthSize = 4;
constexpr unsigned char CompressedFlag = 2; // in the type byte of an entry

std::uint32_t ReadLength(const unsigned char* at)
{
    return at[0] | std::uint32_t(at[1]) << 8 | std::uint32_t(at[2]) << 16 | std::uint32_t(at[3]) << 24;
}

void AppendLength(std::uint32_t length, Bytes& out)
{
    for (int shift = 0; shift < 32; shift += 8)
        out.push_back(static_cast<unsigned char>(length >> shift));
}

[[noreturn]] void RaiseDamaged(std::size_t offset, const char* reason)
{
    REPOSITORY_RAISE(Failure::Damaged, "damaged at offset " << offset << " of the header: " << reason);
}

// Reads the entry at the beginning of `rest`, and takes it from there.
PackedBlob TakeEntry(ByteView& rest, std::size_t offset)
{
    const unsigned char type = rest[0];
    if (type > (CompressedFlag | 1))
        RaiseDamaged(offset, "the type of a blob is not known");
    PackedBlob blob;
    blob.isCompressed = (type & CompressedFlag) != 0;
    const std::size_t size = PackEntrySize(blob.isCompressed);
    if (rest.size() < size)
        RaiseDamaged(offset, "an entry is cut off");
    blob.handle.type = (type & 1) != 0 ? BlobType::Tree : BlobType::Data;
    blob.length = ReadLength(&rest[1]);
    if (blob.length < SealOverhead)
        RaiseDamaged(offset, "a blob is too short to be sealed");
    blob.plainLength =
        blob.isCompressed ? ReadLength(&rest[1 + LengthSize]) : blob.length - std::uint32_t(SealOverhead);
    const ByteView id = rest.subspan(size - Id::Size, Id::Size);
    std::copy(id.begin(), id.end(), blob.handle.id.bytes.begin());
    rest = rest.subspan(size);
    return blob;
}

} // namespace

std::vector<PackedBlob> ParsePackHeader(ByteView header, std::uint64_t blobBytes)
{
    std::vector<PackedBlob> blobs;
    blobs.reserve(header.size() / PackEntrySize(false));
    std::uint64_t blobOffset = 0;
    for (ByteView rest = header; !rest.empty();) {
        const std::size_t offset = header.size() - rest.size();
        PackedBlob blob = TakeEntry(rest, offset);
        if (blobOffset > UINT32_MAX || blob.length > blobBytes - blobOffset)
            RaiseDamaged(offset, "a blob is beyond the end of the pack");
        blob.offset = static_cast<std::uint32_t>(blobOffset);
        blobOffset += blob.length;
        blobs.push_back(blob);
    }
    if (blobOffset != blobBytes)
        RaiseDamaged(header.size(), "the blobs do not fill the pack");
    return blobs;
}

std::uint32_t ReadPackHeaderLength(ByteView tail, std::uint64_t size)
{
    REPOSITORY_RAISE_UNLESS(tail.size() >= LengthSize && size >= PackOverhead, Failure::Damaged,
                            "damaged: too short for a pack");
    const std::uint32_t length = ReadLength(tail.data() + tail.size() - LengthSize);
    REPOSITORY_RAISE_UNLESS(length >= SealOverhead && length <= PackHeaderLimit &&
                                length <= size - LengthSize,
                            Failure::Damaged, "damaged: a header of " << length << " bytes is impossible");
    return length;
}

std::uint32_t PackWriter::Add(const BlobHandle& handle, ByteView plaintext, bool compress)
{
    PackedBlob blob;
    blob.handle = handle;
    blob.isCompressed = compress && !plaintext.empty();
    KRT_RAISE_UNLESS(plaintext.size() <= UINT32_MAX, Krt::ErrorCode::InvalidArgument,
                     "A blob exceeds the limits of a pack");
    blob.plainLength = static_cast<std::uint32_t>(plaintext.size());
    m_compressed.clear();
    m_sealed.clear();
    if (blob.isCompressed)
        Compress(plaintext, m_compressed);
    Seal(m_key, blob.isCompressed ? ByteView(m_compressed) : plaintext, m_sealed);
    return AddSealed(blob, m_sealed);
}

std::uint32_t PackWriter::AddSealed(PackedBlob blob, ByteView sealed)
{
    const std::uint32_t entrySize = PackEntrySize(blob.isCompressed);
    KRT_RAISE_UNLESS(sealed.size() <= UINT32_MAX - entrySize && m_size <= UINT32_MAX &&
                         m_headerSize + entrySize <= PackHeaderLimit - SealOverhead,
                     Krt::ErrorCode::InvalidArgument, "A blob exceeds the limits of a pack");
    blob.offset = static_cast<std::uint32_t>(m_size);
    blob.length = static_cast<std::uint32_t>(sealed.size());
    Reserve(m_size + sealed.size());
    m_blobs.push_back(blob);
    std::copy(sealed.begin(), sealed.end(), m_bytes.Data() + m_size);
    m_size += sealed.size();
    m_headerSize += entrySize;
    return blob.length + entrySize;
}

ByteView PackWriter::Finish()
{
    Bytes header;
    header.reserve(m_headerSize + LengthSize);
    for (const PackedBlob& blob : m_blobs) {
        const unsigned char type = blob.handle.type == BlobType::Tree ? 1 : 0;
        header.push_back(blob.isCompressed ? type | CompressedFlag : type);
        AppendLength(blob.length, header);
        if (blob.isCompressed)
            AppendLength(blob.plainLength, header);
        header.insert(header.end(), blob.handle.id.bytes.begin(), blob.handle.id.bytes.end());
    }
    const std::size_t sealedSize = header.size() + SealOverhead;
    Reserve(FinishedSize());
    SealInto(m_key, header, {m_bytes.Data() + m_size, sealedSize});
    header.clear();
    AppendLength(static_cast<std::uint32_t>(sealedSize), header);
    std::copy(header.begin(), header.end(), m_bytes.Data() + m_size + sealedSize);
    m_size += sealedSize + LengthSize;
    return {m_bytes.Data(), m_size};
}

// Takes memory for a pack of this many bytes.
void PackWriter::Reserve(std::uint64_t size)
{
    if (size <= m_bytes.Size())
        return;
    Pages larger(std::max<std::size_t>(m_expected, size + size / 2));
    std::copy_n(m_bytes.Data(), m_size, larger.Data());
    m_bytes = std::move(larger);
}

void PackWriter::Clear()
{
    if (m_size > m_expected)
        m_bytes.Release(m_expected);
    m_size = 0;
    m_blobs.clear();
    m_headerSize = 0;
}

} // namespace Agent::Repo
