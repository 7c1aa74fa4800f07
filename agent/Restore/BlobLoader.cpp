#include "agent/Restore/BlobLoader.h"

#include "Krt/Exception/YError.h"

#include <algorithm>
#include <new>
#include <utility>

namespace Agent {

using Krt::Thread::AnnotatedLock;
using Repo::BlobType;
using Repo::Id;
using Repo::PackedBlob;

namespace {

constexpr std::uint64_t GapLimit = 128 << 10; // bytes; reading a gap this long costs less than another read
constexpr std::uint64_t RangeLimit = 4 << 20;
constexpr std::size_t KeptRangeLimit = 2 * RangeLimit; // bytes; a longer range has one blob

std::uint64_t EndOf(const PackedBlob& blob)
{
    return std::uint64_t(blob.offset) + blob.length;
}

} // namespace

BlobLoader::~BlobLoader()
{
    {
        const AnnotatedLock lock(m_mutex);
        m_isEnding = true;
    }
    m_wanted.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

void BlobLoader::Start(const std::vector<Id>& ids)
{
    Part part = Choose(ids);
    m_startedBytes += part.bytes;
    const bool hasWork = !part.ranges.empty();
    {
        const AnnotatedLock lock(m_mutex);
        m_parts.push_back(std::move(part));
        if (m_failure)
            Fail(m_parts.back(), m_failure);
    }
    while (hasWork && m_threads.size() < m_threadCount)
        m_threads.emplace_back([this] { Work(); });
    m_wanted.notify_all();
}

LoadedBlobs BlobLoader::Take()
{
    Part part;
    {
        AnnotatedLock lock(m_mutex);
        lock.Wait(m_loaded, [this] {
            m_mutex.AssertHeld();
            return m_parts.front().IsDone();
        });
        part = std::move(m_parts.front());
        m_parts.pop_front();
    }
    Forget(part);
    if (part.failure)
        std::rethrow_exception(part.failure);
    return std::move(part.blobs);
}

void BlobLoader::Drop()
{
    std::deque<Part> dropped;
    {
        AnnotatedLock lock(m_mutex);
        for (Part& part : m_parts)
            part.next = part.ranges.size();
        lock.Wait(m_loaded, [this] {
            m_mutex.AssertHeld();
            return std::all_of(m_parts.begin(), m_parts.end(),
                               [](const Part& part) { return part.IsDone(); });
        });
        dropped.swap(m_parts);
    }
    for (const Part& part : dropped)
        Forget(part);
}

// Finds out what is known and what has to be read.
BlobLoader::Part BlobLoader::Choose(const std::vector<Id>& ids)
{
    Part part;
    for (const Id& id : ids) {
        if (m_repository.GetIndex().LengthOf({BlobType::Data, id}) > Repo::LargeBlobSize)
            continue;
        const auto [chosen, isNew] = part.blobs.try_emplace(id);
        if (!isNew)
            continue;
        if (const auto known = m_known.find(id); known != m_known.end()) {
            m_order.splice(m_order.begin(), m_order, known->second.position);
            chosen->second = known->second.blob;
            continue;
        }
        const auto blob = std::make_shared<LoadedBlob>();
        chosen->second = blob;
        const auto copy = m_repository.GetIndex().Find({BlobType::Data, id});
        if (!copy) {
            LoadAlone({BlobType::Data, id}, *blob);
            continue;
        }
        part.wanted.push_back({*copy, blob.get()});
        part.bytes += copy->blob.plainLength;
        Remember(id, blob, copy->blob.plainLength);
    }
    std::sort(part.wanted.begin(), part.wanted.end(), [](const Wanted& a, const Wanted& b) {
        return std::pair(a.copy.pack, a.copy.blob.offset) < std::pair(b.copy.pack, b.copy.blob.offset);
    });
    part.ranges = Join(part.wanted);
    return part;
}

void BlobLoader::Remember(const Id& id, const std::shared_ptr<const LoadedBlob>& blob, std::uint64_t bytes)
{
    std::list<Id> order(1, id);
    m_known.emplace(id, Known{blob, bytes, order.begin()});
    m_order.splice(m_order.begin(), order); // the iterator stays valid
    m_knownBytes += bytes;
}

// Ends the accounting of a part that no longer loads. Its blobs that were not loaded get its failure, since
// later parts may share them. They are no longer known, so that further parts try again.
void BlobLoader::Forget(const Part& part)
{
    m_startedBytes -= part.bytes;
    for (const Wanted& wanted : part.wanted) {
        if (wanted.blob->memory)
            continue;
        if (!wanted.blob->failure)
            wanted.blob->failure = part.failure;
        const auto known = m_known.find(wanted.copy.blob.handle.id);
        if (known == m_known.end() || known->second.blob.get() != wanted.blob)
            continue;
        m_knownBytes -= known->second.bytes;
        m_order.erase(known->second.position);
        m_known.erase(known);
    }
    Evict();
}

void BlobLoader::Evict()
{
    while (m_knownBytes > m_keptLimit + m_startedBytes) {
        const auto oldest = m_known.find(m_order.back());
        m_knownBytes -= oldest->second.bytes;
        m_known.erase(oldest);
        m_order.pop_back();
    }
}

std::vector<BlobLoader::Range> BlobLoader::Join(std::span<const Wanted> wanted)
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

void BlobLoader::Work()
{
    Repo::Bytes sealed; // what was read, used again
    for (;;) {
        Part* part = nullptr; // a deque keeps the addresses of its elements
        Range range;
        {
            AnnotatedLock lock(m_mutex);
            lock.Wait(m_wanted, [this, &part] {
                m_mutex.AssertHeld();
                part = PartWithWork();
                return m_isEnding || part != nullptr;
            });
            if (m_isEnding)
                return;
            range = part->ranges[part->next++];
            ++part->active;
        }
        std::exception_ptr failure;
        bool isOfAll = false;
        try {
            LoadRange(range, sealed);
        } catch (const Krt::Exception::YError&) {
            failure = std::current_exception();
        } catch (...) {
            failure = std::current_exception();
            isOfAll = true;
        }
        if (sealed.capacity() > KeptRangeLimit)
            Repo::Bytes().swap(sealed);
        {
            const AnnotatedLock lock(m_mutex);
            --part->active;
            if (failure)
                Fail(*part, failure);
            if (isOfAll && !m_failure) {
                m_failure = failure;
                for (Part& each : m_parts)
                    Fail(each, failure);
            }
            failure = nullptr; // the thread that takes the part may be using it
        }
        m_loaded.notify_all();
    }
}

BlobLoader::Part* BlobLoader::PartWithWork()
{
    const auto found = std::find_if(m_parts.begin(), m_parts.end(),
                                    [](const Part& part) { return part.next < part.ranges.size(); });
    return found == m_parts.end() ? nullptr : &*found;
}

void BlobLoader::Fail(Part& part, const std::exception_ptr& failure)
{
    if (!part.failure)
        part.failure = failure;
    part.next = part.ranges.size();
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
                wanted.blob->content = plaintext;
                wanted.blob->memory = memory;
                continue;
            }
        } catch (const Repo::RepositoryError&) {
        } catch (const std::bad_alloc&) {
        }
        LoadAlone(blob.handle, *wanted.blob);
    }
}

// Tries all copies.
void BlobLoader::LoadAlone(const Repo::BlobHandle& handle, LoadedBlob& blob) const
{
    try {
        const auto plaintext = std::make_shared<Repo::Bytes>();
        m_repository.LoadBlob(handle, *plaintext);
        blob.content = *plaintext;
        blob.memory = plaintext;
    } catch (const Repo::RepositoryError&) {
        blob.failure = std::current_exception();
    }
}

} // namespace Agent
