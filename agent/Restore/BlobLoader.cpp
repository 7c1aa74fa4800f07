#include "agent/Restore/BlobLoader.h"

#include "agent/Access/Workers.h"

#include <algorithm>
#include <atomic>
#include <new>

namespace Agent {

using Repo::BlobType;
using Repo::Id;
using Repo::PackedBlob;

namespace {

constexpr std::uint64_t GapLimit = 128 << 10; // bytes; reading a gap this long costs less than another read
constexpr std::uint64_t RangeLimit = 4 << 20; // small enough to occupy all threads
constexpr std::size_t KeptRangeLimit = 2 * RangeLimit; // bytes; a longer range has one blob

std::uint64_t EndOf(const PackedBlob& blob)
{
    return std::uint64_t(blob.offset) + blob.length;
}

} // namespace

LoadedBlobs BlobLoader::Load(const std::vector<Id>& ids)
{
    LoadedBlobs blobs;
    std::vector<Wanted> wanted;
    for (const Id& id : ids) {
        if (m_repository.GetIndex().LengthOf({BlobType::Data, id}) > Repo::LargeBlobSize)
            continue;
        const auto [blob, isNew] = blobs.try_emplace(id);
        if (!isNew)
            continue;
        if (const auto kept = m_kept.find(id); kept != m_kept.end())
            blob->second = kept->second.blob;
        else if (const auto copy = m_repository.GetIndex().Find({BlobType::Data, id}))
            wanted.push_back({*copy, &blob->second});
        else
            LoadAlone({.copy = {.blob = {.handle = {BlobType::Data, id}}}, .blob = &blob->second});
    }
    std::sort(wanted.begin(), wanted.end(), [](const Wanted& a, const Wanted& b) {
        return std::pair(a.copy.pack, a.copy.blob.offset) < std::pair(b.copy.pack, b.copy.blob.offset);
    });
    LoadRanges(Join(wanted));
    Keep(blobs);
    return blobs;
}

void BlobLoader::LoadRanges(const std::vector<Range>& ranges)
{
    std::atomic<std::size_t> next{0}, nextThread{0};
    const std::size_t count = std::min(m_sealed.size(), ranges.size());
    const auto work = [&](const std::function<bool()>& hasFailed) {
        Repo::Bytes& sealed = m_sealed[nextThread++];
        for (std::size_t i = next++; i < ranges.size() && !hasFailed(); i = next++)
            LoadRange(ranges[i], sealed);
        if (sealed.capacity() > KeptRangeLimit)
            Repo::Bytes().swap(sealed);
    };
    if (count > 1)
        RunOnThreads(static_cast<unsigned int>(count), work, [] {});
    else
        work([] { return false; });
}

void BlobLoader::Keep(const LoadedBlobs& blobs)
{
    for (const auto& [id, blob] : blobs) {
        if (!blob.memory)
            continue;
        const auto [kept, isNew] = m_kept.try_emplace(id);
        if (isNew) {
            m_order.push_front(id);
            kept->second = {blob, m_order.begin()};
            m_keptBytes += blob.content.size();
        } else {
            m_order.splice(m_order.begin(), m_order, kept->second.position);
        }
    }
    while (m_keptBytes > m_keptLimit) {
        const auto oldest = m_kept.find(m_order.back());
        m_keptBytes -= oldest->second.blob.content.size();
        m_kept.erase(oldest);
        m_order.pop_back();
    }
}

std::future<LoadedBlobs> BlobLoader::Start(std::vector<Id> ids)
{
    return std::async(std::launch::async, [this, wanted = std::move(ids)] { return Load(wanted); });
}

std::vector<BlobLoader::Range> BlobLoader::Join(std::span<const Wanted> wanted) const
{
    std::vector<Range> ranges;
    for (std::size_t begin = 0, end = 0; begin < wanted.size(); begin = end) {
        const Repo::IndexedBlob& first = wanted[begin].copy;
        for (end = begin + 1; end < wanted.size(); ++end) {
            const Repo::IndexedBlob& next = wanted[end].copy;
            if (next.pack != first.pack || EndOf(next.blob) - first.blob.offset > RangeLimit ||
                next.blob.offset > EndOf(wanted[end - 1].copy.blob) + GapLimit)
                break;
        }
        ranges.push_back(wanted.subspan(begin, end - begin));
    }
    return ranges;
}

void BlobLoader::LoadRange(Range range, Repo::Bytes& sealed) const
{
    const std::uint64_t begin = range.front().copy.blob.offset;
    std::uint64_t end = begin;
    for (const Wanted& wanted : range)
        end = std::max(end, EndOf(wanted.copy.blob));
    const Id& pack = m_repository.GetIndex().GetPacks()[range.front().copy.pack].id;
    bool isRead = true;
    try {
        m_repository.GetBackend().Load({Repo::FileKind::Pack, pack}, begin, end - begin, sealed);
    } catch (const Repo::RepositoryError&) {
        isRead = false;
    }
    for (const Wanted& wanted : range) {
        const PackedBlob& blob = wanted.copy.blob;
        try {
            if (isRead) {
                // A vector would fill the memory with zeros first.
                const std::shared_ptr<unsigned char[]> memory(new unsigned char[blob.plainLength]);
                const std::span plaintext(memory.get(), blob.plainLength);
                m_repository.DecodeBlobInto(
                    pack, blob, std::span(sealed).subspan(blob.offset - begin, blob.length), plaintext);
                wanted.blob->memory = memory;
                wanted.blob->content = plaintext;
                continue;
            }
        } catch (const Repo::RepositoryError&) {
        } catch (const std::bad_alloc&) {
        }
        LoadAlone(wanted);
    }
}

// Tries all copies.
void BlobLoader::LoadAlone(const Wanted& wanted) const
{
    try {
        const auto plaintext = std::make_shared<Repo::Bytes>();
        m_repository.LoadBlob(wanted.copy.blob.handle, *plaintext);
        wanted.blob->memory = plaintext;
        wanted.blob->content = *plaintext;
    } catch (const Repo::RepositoryError&) {
        wanted.blob->failure = std::current_exception();
    }
}

} // namespace Agent
