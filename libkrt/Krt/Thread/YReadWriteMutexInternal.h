// The state behind a read/write lock. Each thread has a record here, and while nobody wants to write, a
// thread that reads changes its own record and nothing else. A writer closes the lock first: it marks every
// record as watched and counts those that hold a level, and from then on all changes go through the mutex
// until the lock is opened again. A closed lock waits on one condition.
#pragma once

#include "Krt/Thread/LockRecord.h"
#include "Krt/Time/YDuration.h"

#include <boost/shared_ptr.hpp>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

namespace Krt::Thread {

class YReadWriteMutexInternal
{
public:
    /// A lock that lives for as long as a share of it does, or a thread holds a level.
    static boost::shared_ptr<YReadWriteMutexInternal> Make();
    YReadWriteMutexInternal(const YReadWriteMutexInternal&) = delete;
    YReadWriteMutexInternal& operator=(const YReadWriteMutexInternal&) = delete;

    /// Takes a level; false if it can't be had in time. Zero waits without limit. Whoever holds a level
    /// already gets more read levels at once, and who writes gets levels of both kinds.
    bool ReadLock(const Time::YDuration& timeout)
    {
        return LockRecordTable::Mine().TakeReadLevel(this) || WaitToRead(timeout);
    }
    /// The same for writing. A reader waits for the other readers to leave; false at once if another reader
    /// waits for that already, since neither would ever get it.
    bool WriteLock(const Time::YDuration& timeout);
    /// Gives back a level of the kind, which the caller holds.
    void ReadUnlock();
    void WriteUnlock();
    /// Takes this many levels without a limit of time; the caller holds none.
    void ReadFastForward(unsigned int levels);
    void WriteFastForward(unsigned int levels);
    /// Whether the caller holds a read level, with or without levels that write.
    bool IsReadLockedByMe() const
    {
        const LockRecord* const record = LockRecordTable::Mine().Find(this);
        return record != nullptr && record->readLevels != 0;
    }
    /// Gives up all levels of the caller and stores how many, as readers' or as writers' ones; the result is
    /// a share that keeps the lock meanwhile.
    boost::shared_ptr<YReadWriteMutexInternal> GiveUpAllLevels(unsigned int& readLevels,
                                                               unsigned int& writeLevels);

private:
    using Guard = std::unique_lock<std::mutex>;
    using Deadline = std::chrono::steady_clock::time_point;
    static constexpr Deadline Never = Deadline::max();

    YReadWriteMutexInternal() = default;
    ~YReadWriteMutexInternal();
    static Deadline DeadlineOf(const Time::YDuration& timeout);
    static void Retire(YReadWriteMutexInternal* lock);

    LockRecord& MyRecord()
    {
        LockRecord* const record = LockRecordTable::Mine().Find(this);
        const bool usable = record != nullptr && !record->Is(LockRecord::LockGone);
        return usable ? *record : Register();
    }
    LockRecord& HeldRecord(unsigned int LockRecord::*levels) const;
    LockRecord& Register();
    bool WaitToRead(const Time::YDuration& timeout);
    bool WaitToWrite(LockRecord& record, const Time::YDuration& timeout);
    template <class Condition>
    bool Wait(Guard& guard, Deadline deadline, Condition condition);
    // With the mutex held.
    void Enter(LockRecord& record);
    void Leave(LockRecord& record);
    void Close();
    void OpenIfIdle();
    static void UnlockAndDestroyIfUnused(YReadWriteMutexInternal* lock, Guard guard);

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<LockRecord*> m_records;
    unsigned int m_shares = 1; // shared pointers' control blocks
    bool m_closed = false;
    bool m_writing = false;
    bool m_upgrading = false;          // a reader waits to write
    unsigned int m_holders = 0;        // records with Held; kept while closed
    unsigned int m_waitingWriters = 0; // for all of them readers that hold nothing are held back
    unsigned int m_dueReaders = 0;     // those who waited long enough; go in front of the next writer
};

} // namespace Krt::Thread
