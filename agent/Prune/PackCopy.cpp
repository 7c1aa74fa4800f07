#include "agent/Prune/PackCopy.h"

#include "agent/Run/Interrupt.h"

#include "Krt/Util/YScope.h"

#include <algorithm>
#include <span>

namespace Agent {

using Repo::BlobType;
using Repo::Bytes;
using Repo::ByteView;
using Repo::PackedBlob;
using Repo::RepositoryError;

namespace {

constexpr std::uint64_t PartLimit = 16 << 20; // bytes that are read at once, unless a blob has more
constexpr std::uint64_t GapLimit = 128 << 10; // bytes between blobs that are read to save a call

class Reading
{
public:
    Reading(const Repo::Repository& repository, const Repo::Id& pack, const GoodBlob& onGood,
            const BadBlob& onBad)
        : m_repository(repository), m_pack(pack), m_onGood(onGood), m_onBad(onBad)
    {}

    // The blobs are sorted by offset.
    void Run(std::span<const PackedBlob> blobs)
    {
        while (!blobs.empty()) {
            RaiseIfInterrupted();
            const std::size_t count = CountNeighbours(blobs);
            ReadPart(blobs.first(count));
            blobs = blobs.subspan(count);
        }
    }

private:
    static std::uint64_t EndOf(const PackedBlob& blob) { return std::uint64_t(blob.offset) + blob.length; }

    static std::size_t CountNeighbours(std::span<const PackedBlob> blobs)
    {
        std::uint64_t end = EndOf(blobs.front());
        std::size_t count = 1;
        for (; count < blobs.size(); ++count) {
            const PackedBlob& next = blobs[count];
            if (next.offset > end + GapLimit || EndOf(next) - blobs.front().offset > PartLimit)
                break;
            end = std::max(end, EndOf(next));
        }
        return count;
    }

    void ReadPart(std::span<const PackedBlob> part)
    {
        const std::uint64_t begin = part.front().offset;
        std::uint64_t end = begin;
        std::uint32_t largest = 0;
        for (const PackedBlob& blob : part) {
            end = std::max(end, EndOf(blob));
            largest = std::max({largest, blob.length, blob.plainLength});
        }
        const Repo::LargeBlobTurn turn = Repo::Repository::TakeTurnFor(largest);
        const Krt::Util::YScope atEnd([&] {
            for (Bytes* const bytes : {&m_read, &m_opened, &m_plaintext}) {
                if (turn)
                    Bytes().swap(*bytes);
            }
        });
        try {
            Load(begin, end - begin);
        } catch (const RepositoryError& error) {
            if (part.size() == 1) {
                m_onBad(part.front(), error);
                return;
            }
            // A blob of the part is after the end of the pack, or in a bad sector.
            for (std::size_t i = 0; i < part.size(); ++i)
                ReadPart(part.subspan(i, 1));
            return;
        }
        for (const PackedBlob& blob : part)
            ReadBlob(blob, ByteView(m_read).subspan(blob.offset - begin, blob.length));
    }

    void Load(std::uint64_t offset, std::uint64_t length)
    {
        m_repository.GetBackend().Load({Repo::FileKind::Pack, m_pack}, offset, length, m_read);
    }

    void ReadBlob(const PackedBlob& blob, ByteView sealed)
    {
        try {
            m_opened.assign(sealed.begin(), sealed.end());
            m_repository.DecodeBlob(m_pack, blob, m_opened, m_plaintext);
        } catch (const RepositoryError& error) {
            m_onBad(blob, error);
            return;
        }
        m_onGood(blob, sealed, m_plaintext);
    }

    const Repo::Repository& m_repository;
    const Repo::Id m_pack;
    const GoodBlob& m_onGood;
    const BadBlob& m_onBad;
    Bytes m_read;
    Bytes m_opened;
    Bytes m_plaintext;
};

} // namespace

void ReadBlobs(const Repo::Repository& repository, const Repo::Id& pack, std::vector<PackedBlob> blobs,
               const GoodBlob& onGood, const BadBlob& onBad)
{
    std::sort(blobs.begin(), blobs.end(),
              [](const PackedBlob& a, const PackedBlob& b) { return a.offset < b.offset; });
    Reading(repository, pack, onGood, onBad).Run(blobs);
}

void CopyBlobs(const Repo::Repository& repository, const Repo::Id& pack, std::vector<PackedBlob> blobs,
               Recompress recompress, Repo::BlobSaver& saver, const BadBlob& onBad)
{
    const auto save = [&](const PackedBlob& blob, ByteView sealed, const Bytes& plaintext) {
        const bool isPlain = !blob.isCompressed && !plaintext.empty();
        if (isPlain && (recompress == Recompress::All || blob.handle.type == BlobType::Tree))
            saver.Save(blob.handle, plaintext);
        else
            saver.SaveSealed(blob, sealed);
    };
    ReadBlobs(repository, pack, std::move(blobs), save, onBad);
}

} // namespace Agent
