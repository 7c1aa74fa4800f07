#include "agent/Restore/BlobLoader.h"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <thread>

namespace Agent {

using Repo::BlobType;
using Repo::Id;
using Repo::PackedBlob;

namespace {

constexpr std::uint64_t GapLimit = 128 << 10; // what is read in vain costs less than another read
constexpr std::uint64_t RangeLimit = 4 << 20; // small enough to occupy all threads

std::uint64_t EndOf(const PackedBlob& blob)
{
    return std::uint64_t(blob.offset) + blob.length;
}

} // namespace

LoadedBlobs BlobLoader::Load(const std::vector<Id>& ids) const
{
    LoadedBlobs blobs;
    std::vector<Wanted> wanted;
    for (const Id& id : ids) {
        const auto [blob, isNew] = blobs.try_emplace(id);
        if (!isNew)
            continue;
        if (const auto place = m_repository.GetIndex().Find({BlobType::Data, id}))
            wanted.push_back({*place, &blob->second});
        else
            LoadAlone({.place = {.blob = {.handle = {BlobType::Data, id}}}, .blob = &blob->second});
    }
    std::sort(wanted.begin(), wanted.end(), [](const Wanted& a, const Wanted& b) {
        return std::pair(a.place.pack, a.place.blob.offset) < std::pair(b.place.pack, b.place.blob.offset);
    });
    const std::vector<Range> ranges = Join(wanted);

    std::atomic<std::size_t> next{0};
    std::mutex mutex;
    std::exception_ptr failure;
    const auto work = [&] {
        try {
            Repo::Bytes sealed;
            for (std::size_t i = next++; i < ranges.size(); i = next++)
                LoadRange(ranges[i], sealed);
        } catch (...) {
            next = ranges.size();
            const std::lock_guard guard(mutex);
            failure = std::current_exception();
        }
    };
    {
        std::vector<std::jthread> threads;
        const std::size_t count = std::min<std::size_t>(m_threads, ranges.size());
        for (std::size_t i = 1; i < count; ++i)
            threads.emplace_back(work);
        work();
    }
    if (failure)
        std::rethrow_exception(failure);
    return blobs;
}

std::future<LoadedBlobs> BlobLoader::Start(std::vector<Id> ids) const
{
    return std::async(std::launch::async, [this, wanted = std::move(ids)] { return Load(wanted); });
}

std::vector<BlobLoader::Range> BlobLoader::Join(std::span<const Wanted> wanted) const
{
    std::vector<Range> ranges;
    for (std::size_t begin = 0, end = 0; begin < wanted.size(); begin = end) {
        const Repo::IndexedBlob& first = wanted[begin].place;
        for (end = begin + 1; end < wanted.size(); ++end) {
            const Repo::IndexedBlob& next = wanted[end].place;
            if (next.pack != first.pack || EndOf(next.blob) - first.blob.offset > RangeLimit ||
                next.blob.offset > EndOf(wanted[end - 1].place.blob) + GapLimit)
                break;
        }
        ranges.push_back(wanted.subspan(begin, end - begin));
    }
    return ranges;
}

void BlobLoader::LoadRange(Range range, Repo::Bytes& sealed) const
{
    const std::uint64_t begin = range.front().place.blob.offset;
    std::uint64_t end = begin;
    for (const Wanted& wanted : range)
        end = std::max(end, EndOf(wanted.place.blob));
    const Id& pack = m_repository.GetIndex().GetPacks()[range.front().place.pack].id;
    bool isRead = true;
    try {
        m_repository.GetBackend().Load({Repo::FileKind::Pack, pack}, begin, end - begin, sealed);
    } catch (const Repo::RepositoryError&) {
        isRead = false;
    }
    for (const Wanted& wanted : range) {
        const PackedBlob& blob = wanted.place.blob;
        try {
            if (isRead) {
                m_repository.DecodeBlob(pack, blob,
                                        std::span(sealed).subspan(blob.offset - begin, blob.length),
                                        wanted.blob->content);
                continue;
            }
        } catch (const Repo::RepositoryError&) {
        }
        LoadAlone(wanted);
    }
}

// Tries all copies.
void BlobLoader::LoadAlone(const Wanted& wanted) const
{
    try {
        m_repository.LoadBlob(wanted.place.blob.handle, wanted.blob->content);
    } catch (const Repo::RepositoryError&) {
        wanted.blob->failure = std::current_exception();
    }
}

} // namespace Agent
