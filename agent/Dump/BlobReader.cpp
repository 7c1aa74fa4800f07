#include "agent/Dump/BlobReader.h"

#include "Krt/Util/YScope.h"

namespace Agent {

using Krt::Thread::AnnotatedLock;
using Repo::BlobType;
using Repo::Id;

namespace {

constexpr std::size_t SlotsPerThread = 2;

} // namespace

BlobReader::BlobReader(const Repo::Repository& repository, unsigned int threads)
    : m_repository(repository), m_slots(SlotsPerThread * threads)
{
    try {
        for (unsigned int i = 0; i < threads; ++i)
            m_threads.emplace_back([this] { Work(); });
    } catch (...) {
        EndThreads();
        throw;
    }
}

BlobReader::~BlobReader()
{
    EndThreads();
}

void BlobReader::EndThreads()
{
    {
        const AnnotatedLock lock(m_mutex);
        m_isEnding = true;
    }
    m_wanted.notify_all();
    for (std::thread& thread : m_threads)
        thread.join();
}

void BlobReader::Read(const std::vector<Id>& ids, const std::function<void(Repo::ByteView)>& take)
{
    if (ids.size() == 1)
        return ReadAlone(ids.front(), take);
    {
        const AnnotatedLock lock(m_mutex);
        m_ids = &ids;
        m_next = 0;
        m_taken = 0;
    }
    m_wanted.notify_all();
    const Krt::Util::YScope atEnd([this] { Stop(); });
    for (std::size_t i = 0; i < ids.size(); ++i) {
        Slot& slot = m_slots[i % m_slots.size()];
        {
            AnnotatedLock lock(m_mutex);
            lock.Wait(m_loaded, [&] { return slot.isLoaded; });
        }
        if (slot.failure)
            std::rethrow_exception(slot.failure);
        if (slot.isLarge)
            ReadAlone(ids[i], take);
        else
            take(slot.content);
        {
            const AnnotatedLock lock(m_mutex);
            slot.isLoaded = false;
            m_taken = i + 1;
        }
        m_wanted.notify_one();
    }
}

// Reads a blob on this thread.
void BlobReader::ReadAlone(const Id& id, const std::function<void(Repo::ByteView)>& take)
{
    m_repository.LoadBlob({BlobType::Data, id}, m_content);
    take(m_content);
    if (m_content.capacity() > Repo::LargeBlobSize)
        Repo::Bytes().swap(m_content);
}

void BlobReader::Stop()
{
    AnnotatedLock lock(m_mutex);
    m_ids = nullptr;
    lock.Wait(m_loaded, [this] {
        m_mutex.AssertHeld();
        return m_active == 0;
    });
    for (Slot& slot : m_slots) {
        slot.isLoaded = false;
        slot.failure = nullptr;
    }
}

bool BlobReader::HasWork() const
{
    return m_ids != nullptr && m_next < m_ids->size() && m_next < m_taken + m_slots.size();
}

void BlobReader::Work()
{
    AnnotatedLock lock(m_mutex);
    for (;;) {
        lock.Wait(m_wanted, [this] {
            m_mutex.AssertHeld();
            return m_isEnding || HasWork();
        });
        if (m_isEnding)
            return;
        Slot& slot = m_slots[m_next % m_slots.size()];
        const Id id = (*m_ids)[m_next++];
        ++m_active;
        lock.Unlock();
        try {
            const Repo::BlobHandle handle{BlobType::Data, id};
            slot.isLarge = m_repository.GetIndex().LengthOf(handle) > Repo::LargeBlobSize;
            if (!slot.isLarge)
                m_repository.LoadBlob(handle, slot.content);
        } catch (...) {
            slot.failure = std::current_exception();
        }
        lock.Lock();
        slot.isLoaded = true;
        --m_active;
        m_loaded.notify_all();
    }
}

} // namespace Agent
