#include "Krt/Thread/LockRecord.h"

#include "Krt/Exception/Raise.h"

#include <pthread.h>

#include <bit>
#include <utility>

namespace Krt::Thread {

constinit thread_local LockRecordTable t_lockRecords;

namespace {

pthread_key_t MakeKey(void (*release)(void*))
{
    pthread_key_t key{};
    if (const int error = pthread_key_create(&key, release))
        KRT_RAISE_OS_ERROR(error, MessageType::Runtime, "Failed to prepare for the end of threads");
    return key;
}

} // namespace

void LockRecordTable::Reserve()
{
    if (m_slots != nullptr && (m_count + 1) * 2 <= m_mask + 1)
        return;
    ReleaseAtThreadExit();
    m_last = nullptr;
    const std::size_t oldSize = m_slots == nullptr ? 0 : m_mask + 1;
    std::size_t live = 0;
    for (std::size_t slot = 0; slot < oldSize; ++slot)
        live += m_slots[slot] != nullptr && !m_slots[slot]->Is(LockRecord::LockGone);
    const std::size_t newSize = std::bit_ceil(4 * (live + 1));
    LockRecord** const oldSlots = std::exchange(
        m_slots, new LockRecord* [newSize] {});
    m_mask = newSize - 1;
    m_count = 0;
    for (std::size_t slot = 0; slot < oldSize; ++slot) {
        if (LockRecord* const record = oldSlots[slot]; record == nullptr)
            continue;
        else if (record->Is(LockRecord::LockGone))
            record->Drop(LockRecord::ThreadGone);
        else
            Insert(record);
    }
    delete[] oldSlots;
}

void LockRecordTable::Insert(LockRecord* record) noexcept
{
    LockRecord*& slot = m_slots[Locate(record->lock)];
    if (slot == nullptr)
        ++m_count;
    else
        slot->Drop(LockRecord::ThreadGone);
    slot = m_last = record;
}

// The destructors of keys run after those of all thread-local objects.
void LockRecordTable::ReleaseAtThreadExit()
{
    static const pthread_key_t s_key = MakeKey(&LockRecordTable::Release);
    if (const int error = pthread_setspecific(s_key, this))
        KRT_RAISE_OS_ERROR(error, MessageType::Runtime, "Failed to prepare for the end of the thread");
}

void LockRecordTable::Release(void* table)
{
    const LockRecordTable old = std::exchange(*static_cast<LockRecordTable*>(table), LockRecordTable());
    if (old.m_slots == nullptr)
        return;
    for (std::size_t slot = 0; slot <= old.m_mask; ++slot) {
        if (old.m_slots[slot] != nullptr)
            old.m_slots[slot]->Drop(LockRecord::ThreadGone);
    }
    delete[] old.m_slots;
}

} // namespace Krt::Thread
