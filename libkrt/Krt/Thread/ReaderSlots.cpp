#include "Krt/Thread/ReaderSlots.h"

#include "Krt/Exception/Raise.h"

#include <pthread.h>

#include <bit>
#include <utility>

namespace Krt::Thread {

constinit thread_local ReaderSlots t_readerSlots;

namespace {

pthread_key_t MakeKey(void (*destroy)(void*))
{
    pthread_key_t key{};
    if (const int error = pthread_key_create(&key, destroy))
        KRT_RAISE_OS_ON(MessageType::Runtime, error, "Failed to prepare for the end of threads");
    return key;
}

bool IsNeeded(const ReaderSlot* slot)
{
    return slot != nullptr && (slot->HasLevels() || !slot->lock.expired());
}

} // namespace

// When the table is full, slots of destroyed locks are deleted, and the table gets the size that fits the
// rest.
void ReaderSlots::Reserve()
{
    constexpr std::size_t SpareSlots = 4;
    const std::size_t oldSize = m_table == nullptr ? 0 : m_mask + 1;
    if ((m_count + 1) * 2 <= oldSize)
        return;
    DestroyAtThreadExit();
    std::size_t needed = SpareSlots;
    for (std::size_t i = 0; i < oldSize; ++i)
        needed += IsNeeded(m_table[i]);
    const std::size_t newSize = std::bit_ceil(4 * needed);
    ReaderSlot** const oldTable = std::exchange(
        m_table, new ReaderSlot* [newSize] {});
    m_last = nullptr;
    m_mask = newSize - 1;
    m_count = 0;
    for (std::size_t i = 0; i < oldSize; ++i) {
        if (IsNeeded(oldTable[i]))
            Insert(oldTable[i]);
        else
            delete oldTable[i];
    }
    delete[] oldTable;
}

void ReaderSlots::Insert(ReaderSlot* slot) noexcept
{
    m_table[Locate(slot->address)] = m_last = slot;
    ++m_count;
}

// The destructors of keys run after those of all thread-local objects.
void ReaderSlots::DestroyAtThreadExit()
{
    static const pthread_key_t s_key = MakeKey(&ReaderSlots::Destroy);
    if (const int error = pthread_setspecific(s_key, this))
        KRT_RAISE_OS_ON(MessageType::Runtime, error, "Failed to prepare for the end of the thread");
}

void ReaderSlots::Destroy(void* slots)
{
    const ReaderSlots old = std::exchange(*static_cast<ReaderSlots*>(slots), ReaderSlots());
    for (std::size_t i = 0; old.m_table != nullptr && i <= old.m_mask; ++i) {
        if (ReaderSlot* const slot = old.m_table[i]; slot != nullptr && !slot->HasLevels())
            delete slot; // what the thread still holds stays locked for ever
    }
    delete[] old.m_table;
}

} // namespace Krt::Thread
