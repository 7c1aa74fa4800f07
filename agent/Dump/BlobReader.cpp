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
    if (ids.size() == 1) {
        Repo::Bytes& content = m_slots.front().content;
        m_repository.LoadBlob({BlobType::Data, ids.front()}, content);
        take(content);
        return;
    }
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
        take(slot.content);
        {
            const AnnotatedLock lock(m_mutex);
            slot.isLoaded = false;
            m_taken = i + 1;
        }
        m_wanted.notify_one();
    }
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
            m_repository.LoadBlob({BlobType::Data, id}, slot.content);
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
