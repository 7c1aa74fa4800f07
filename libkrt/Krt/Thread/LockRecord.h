// What one thread knows about one read/write lock, and the table in which a thread finds its records. A
// record is written by its thread alone, save for the bits of `state` that the lock sets.
#pragma once

#include "Krt/Export.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Krt::Thread {

class YReadWriteMutexInternal;

// On a cache line of its own, so that threads which read don't meet in memory.
struct alignas(64) LockRecord
{
    enum State : unsigned int
    {
        Held = 1,      // the thread holds at least one level
        Watched = 2,   // Held changes under the lock's mutex alone
        LockGone = 4,  // the lock has let go of the record
        ThreadGone = 8 // the thread has
    };

    explicit LockRecord(const YReadWriteMutexInternal* owner) : lock(owner) {}

    /// Lets go of the record for the lock or for the thread; whoever is second deletes it.
    void Drop(State gone)
    {
        if (state.fetch_or(gone, std::memory_order_acq_rel) & (LockGone | ThreadGone))
            delete this;
    }
    bool Is(State bit) const { return state.load(std::memory_order_acquire) & bit; }

    const YReadWriteMutexInternal* const lock;
    std::atomic<unsigned int> state{0};
    // The lock is held for writing exactly while writeLevels isn't 0, with or without read levels.
    unsigned int readLevels = 0;
    unsigned int writeLevels = 0;
};

/// The records of one thread by lock; an open hash table that drops those of locks that are gone when it is
/// full. Belongs to its thread, and goes with it.
class LockRecordTable
{
public:
    static LockRecordTable& Mine() noexcept;

    /// Null if there is none. The record may be that of an earlier lock at the same address: LockGone is set
    /// then.
    LockRecord* Find(const YReadWriteMutexInternal* lock) noexcept
    {
        if (m_last == nullptr || m_last->lock != lock)
            m_last = m_slots == nullptr ? nullptr : m_slots[Locate(lock)];
        return m_last;
    }
    /// Takes a read level if that needs no look at the lock itself: this thread holds a level already, or
    /// nobody wants to write. False if it needs one, with nothing done.
    bool TakeReadLevel(const YReadWriteMutexInternal* lock) noexcept
    {
        LockRecord* const record = Find(lock);
        if (record == nullptr) [[unlikely]]
            return false;
        if (record->readLevels + record->writeLevels != 0) {
            ++record->readLevels;
            return true;
        }
        // Fails for the record of an earlier lock at this address, too: it has LockGone.
        unsigned int free = 0;
        if (!record->state.compare_exchange_strong(free, LockRecord::Held, std::memory_order_acquire,
                                                   std::memory_order_relaxed)) [[unlikely]]
            return false;
        record->readLevels = 1;
        ++heldLocks;
        return true;
    }
    /// Gives a read level back if there is one, and that needs no look at the lock either. The lock may be
    /// gone afterwards.
    bool GiveReadLevel(const YReadWriteMutexInternal* lock) noexcept
    {
        LockRecord* const record = Find(lock);
        if (record == nullptr || record->readLevels == 0) [[unlikely]]
            return false;
        if (record->readLevels == 1 && record->writeLevels == 0) {
            unsigned int held = LockRecord::Held;
            if (!record->state.compare_exchange_strong(held, 0, std::memory_order_release,
                                                       std::memory_order_relaxed)) [[unlikely]]
                return false;
            --heldLocks;
        }
        --record->readLevels;
        return true;
    }
    /// Makes sure that one more record fits. Raises if memory can't be had.
    void Reserve();
    /// Takes the record in, in place of an earlier one for the same address; behind Reserve.
    void Insert(LockRecord* record) noexcept;

    // Locks of which this thread holds at least one level.
    unsigned int heldLocks = 0;

private:
    std::size_t Locate(const YReadWriteMutexInternal* lock) const noexcept
    {
        std::size_t slot = (reinterpret_cast<std::uintptr_t>(lock) >> 4) * 0x9E3779B97F4A7C15u >> 32 & m_mask;
        while (m_slots[slot] != nullptr && m_slots[slot]->lock != lock)
            slot = (slot + 1) & m_mask;
        return slot;
    }
    void ReleaseAtThreadExit();
    static void Release(void* table);

    // Plain members and no destructor: thread-local objects that go late may still lock.
    LockRecord* m_last = nullptr; // the one found last
    LockRecord** m_slots = nullptr;
    std::size_t m_mask = 0;
    std::size_t m_count = 0;
};

// The model "initial-exec" spares each lock a call that would only look up this address.
[[gnu::tls_model("initial-exec")]] extern KRT_API constinit thread_local LockRecordTable t_lockRecords;

inline LockRecordTable& LockRecordTable::Mine() noexcept
{
    return t_lockRecords;
}

} // namespace Krt::Thread
