#pragma once

/// @file
/// The state of a thread in the read/write locks that it uses. Installed only for YReadWriteMutex.h.
/// YReadWriteMutex.cpp describes how slots and locks work together.

#include "Krt/Export.h"

#include <boost/weak_ptr.hpp>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Krt::Thread {

class YReadWriteMutexInternal;

/// The state of one thread in one lock. It is cache-line aligned to avoid false sharing between readers.
struct alignas(64) ReaderSlot
{
    /// Bits of `state`.
    enum State : unsigned int
    {
        Held = 1,       ///< the thread holds at least one level
        BiasRevoked = 2 ///< Held is changed only with the lock's mutex held
    };

    /// A slot for the lock at `lockAddress`.
    ReaderSlot(const YReadWriteMutexInternal* lockAddress,
               boost::weak_ptr<YReadWriteMutexInternal> lockOwner);
    /// Removes the slot from its lock, if that still exists.
    ~ReaderSlot();
    ReaderSlot(const ReaderSlot&) = delete;
    ReaderSlot& operator=(const ReaderSlot&) = delete;

    /// Returns true if the thread holds the lock.
    bool HasLevels() const { return (readLevels | writeLevels) != 0; }

    const YReadWriteMutexInternal* const address; // belongs to no other lock while `lock` refers to it
    const boost::weak_ptr<YReadWriteMutexInternal> lock;
    std::atomic<unsigned int> state{0};
    // Used only by the slot's thread. The lock is held for writing exactly while writeLevels is not 0.
    unsigned int readLevels = 0;
    unsigned int writeLevels = 0;
};

/// The slots of one thread: a hash table by the lock's address, owned by the thread.
class ReaderSlots
{
public:
    /// The slots of the calling thread.
    static ReaderSlots& Mine() noexcept;

    /// Returns the slot for a lock, or nullptr if the thread has no such slot.
    ReaderSlot* Find(const YReadWriteMutexInternal* lock) noexcept
    {
        if (m_last == nullptr || m_last->address != lock)
            m_last = m_table == nullptr ? nullptr : m_table[Locate(lock)];
        return m_last;
    }
    /// Acquires a read level if the slot suffices: the thread holds a level already, or the lock is biased
    /// towards readers. Otherwise returns false without a change.
    bool TryReadLock(const YReadWriteMutexInternal* lock) noexcept
    {
        ReaderSlot* const slot = Find(lock);
        if (slot == nullptr) [[unlikely]]
            return false;
        if (!slot->HasLevels()) {
            unsigned int free = 0;
            if (!slot->state.compare_exchange_strong(free, ReaderSlot::Held, std::memory_order_acquire,
                                                     std::memory_order_relaxed)) [[unlikely]]
                return false;
            ++locksHeldByThread;
        }
        ++slot->readLevels;
        return true;
    }
    /// Releases a read level if there is one and the slot suffices. The lock may have been destroyed.
    bool TryReadUnlock(const YReadWriteMutexInternal* lock) noexcept
    {
        ReaderSlot* const slot = Find(lock);
        if (slot == nullptr || slot->readLevels == 0) [[unlikely]]
            return false;
        if (slot->readLevels == 1 && slot->writeLevels == 0) {
            unsigned int held = ReaderSlot::Held;
            if (!slot->state.compare_exchange_strong(held, 0, std::memory_order_release,
                                                     std::memory_order_relaxed)) [[unlikely]]
                return false;
            --locksHeldByThread;
        }
        --slot->readLevels;
        return true;
    }
    /// Allocates memory for one more slot. Raises if memory is exhausted.
    void Reserve();
    /// Adds and owns a slot for a lock that has no slot; only after Reserve.
    void Insert(ReaderSlot* slot) noexcept;

    /// The number of locks of which this thread holds at least one level.
    unsigned int locksHeldByThread = 0;

private:
    // The index of the lock's slot, or the free index for it.
    std::size_t Locate(const YReadWriteMutexInternal* lock) const noexcept
    {
        std::size_t index =
            (reinterpret_cast<std::uintptr_t>(lock) >> 4) * 0x9E3779B97F4A7C15u >> 32 & m_mask;
        while (m_table[index] != nullptr && m_table[index]->address != lock)
            index = (index + 1) & m_mask;
        return index;
    }
    void DestroyAtThreadExit();
    static void Destroy(void* slots);

    // Trivially destructible: the destructors of other thread-local objects may still lock.
    ReaderSlot* m_last = nullptr; // the result of the last Find
    ReaderSlot** m_table = nullptr;
    std::size_t m_mask = 0;
    std::size_t m_count = 0;
};

// With the model "initial-exec" the address is computed inline instead of by a call.
[[gnu::tls_model("initial-exec")]] extern KRT_API constinit thread_local ReaderSlots t_readerSlots;

inline ReaderSlots& ReaderSlots::Mine() noexcept
{
    return t_readerSlots;
}

} // namespace Krt::Thread
