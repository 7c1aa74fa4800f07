#include "Krt/Thread/YReadWriteMutexInternal.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <memory>

namespace Krt::Thread {

namespace {

// For this long a waiting writer holds back a reader that holds nothing. There must be a limit: somebody who
// holds the lock may wait for exactly this reader.
constexpr std::chrono::milliseconds LongestHoldBack(50);

} // namespace

boost::shared_ptr<YReadWriteMutexInternal> YReadWriteMutexInternal::Make()
{
    return {new YReadWriteMutexInternal, &YReadWriteMutexInternal::Retire};
}

YReadWriteMutexInternal::~YReadWriteMutexInternal()
{
    for (LockRecord* const record : m_records)
        record->Drop(LockRecord::LockGone);
}

// The end of a share. If a thread still holds levels, closing makes sure that its last one comes by here.
void YReadWriteMutexInternal::Retire(YReadWriteMutexInternal* lock)
{
    Guard guard(lock->m_mutex);
    --lock->m_shares;
    if (lock->m_shares == 0)
        lock->Close();
    UnlockAndDestroyIfUnused(lock, std::move(guard));
}

void YReadWriteMutexInternal::UnlockAndDestroyIfUnused(YReadWriteMutexInternal* lock, Guard guard)
{
    const bool unused = lock->m_shares == 0 && lock->m_holders == 0;
    guard.unlock();
    if (unused)
        delete lock;
}

bool YReadWriteMutexInternal::WriteLock(const Time::YDuration& timeout)
{
    LockRecord& record = MyRecord();
    if (record.writeLevels == 0) {
        if (!WaitToWrite(record, timeout))
            return false;
        if (record.readLevels == 0)
            ++LockRecordTable::Mine().heldLocks;
    }
    ++record.writeLevels;
    return true;
}

void YReadWriteMutexInternal::ReadUnlock()
{
    LockRecordTable& mine = LockRecordTable::Mine();
    if (mine.GiveReadLevel(this))
        return; // the lock may be gone
    LockRecord& record = HeldRecord(&LockRecord::readLevels);
    --mine.heldLocks;
    Guard guard(m_mutex);
    record.readLevels = 0;
    Leave(record);
    UnlockAndDestroyIfUnused(this, std::move(guard));
}

void YReadWriteMutexInternal::WriteUnlock()
{
    LockRecord& record = HeldRecord(&LockRecord::writeLevels);
    if (--record.writeLevels != 0)
        return;
    Guard guard(m_mutex);
    m_writing = false;
    if (record.readLevels == 0) {
        --LockRecordTable::Mine().heldLocks;
        Leave(record);
    }
    OpenIfIdle();
    m_changed.notify_all();
    UnlockAndDestroyIfUnused(this, std::move(guard));
}

void YReadWriteMutexInternal::ReadFastForward(unsigned int levels)
{
    for (; levels != 0; --levels)
        ReadLock(Time::YDuration::Zero());
}

void YReadWriteMutexInternal::WriteFastForward(unsigned int levels)
{
    for (; levels != 0; --levels)
        WriteLock(Time::YDuration::Zero());
}

boost::shared_ptr<YReadWriteMutexInternal> YReadWriteMutexInternal::GiveUpAllLevels(unsigned int& readLevels,
                                                                                    unsigned int& writeLevels)
{
    const LockRecord& record =
        HeldRecord(IsReadLockedByMe() ? &LockRecord::readLevels : &LockRecord::writeLevels);
    {
        const std::lock_guard<std::mutex> guard(m_mutex);
        ++m_shares;
    }
    boost::shared_ptr<YReadWriteMutexInternal> share(this, &YReadWriteMutexInternal::Retire);
    (record.writeLevels != 0 ? writeLevels : readLevels) = record.readLevels + record.writeLevels;
    // NOLINTBEGIN(clang-analyzer-cplusplus.NewDelete): the share keeps the lock and its records.
    while (record.writeLevels != 0)
        WriteUnlock();
    while (record.readLevels != 0)
        ReadUnlock();
    // NOLINTEND(clang-analyzer-cplusplus.NewDelete)
    return share;
}

LockRecord& YReadWriteMutexInternal::HeldRecord(unsigned int LockRecord::*levels) const
{
    LockRecord* const record = LockRecordTable::Mine().Find(this);
    if (record == nullptr || record->*levels == 0) [[unlikely]] {
        // Like the mutex, without a flush.
        const YStream detail(YString("Read/write lock released without being held by this thread\n"));
        Exception::AbortRequiredCheck("record->*levels", detail, __LINE__, __FILE__, __func__);
    }
    return *record;
}

LockRecord& YReadWriteMutexInternal::Register()
{
    LockRecordTable& table = LockRecordTable::Mine();
    table.Reserve();
    auto record = std::make_unique<LockRecord>(this);
    const std::lock_guard<std::mutex> guard(m_mutex);
    if (m_records.size() == m_records.capacity()) {
        std::erase_if(m_records, [](LockRecord* old) {
            const bool unused = old->Is(LockRecord::ThreadGone) && !old->Is(LockRecord::Held);
            if (unused)
                old->Drop(LockRecord::LockGone);
            return unused;
        });
    }
    m_records.push_back(record.get());
    if (m_closed)
        record->state.store(LockRecord::Watched, std::memory_order_relaxed);
    table.Insert(record.get());
    return *record.release();
}

YReadWriteMutexInternal::Deadline YReadWriteMutexInternal::DeadlineOf(const Time::YDuration& timeout)
{
    const Deadline now = std::chrono::steady_clock::now();
    if (timeout.IsZero() || timeout.AsChrono() >= Never - now)
        return Never;
    return now + timeout.AsChrono();
}

template <class Condition>
bool YReadWriteMutexInternal::Wait(Guard& guard, Deadline deadline, Condition condition)
{
    if (deadline != Never)
        return m_changed.wait_until(guard, deadline, condition);
    m_changed.wait(guard, condition);
    return true;
}

// A thread that holds a lock of this kind, be it another one, isn't held back by writers that only wait: they
// may wait for that very lock.
bool YReadWriteMutexInternal::WaitToRead(const Time::YDuration& timeout)
{
    LockRecord& record = MyRecord();
    Guard guard(m_mutex);
    if (m_writing || m_waitingWriters != 0) {
        const Deadline deadline = DeadlineOf(timeout);
        if (LockRecordTable::Mine().heldLocks == 0)
            Wait(guard, std::min(deadline, std::chrono::steady_clock::now() + LongestHoldBack),
                 [&] { return !m_writing && m_waitingWriters == 0; });
        ++m_dueReaders;
        const bool free = Wait(guard, deadline, [&] { return !m_writing; });
        --m_dueReaders;
        if (!free)
            return false;
    }
    Enter(record);
    record.readLevels = 1;
    ++LockRecordTable::Mine().heldLocks;
    return true;
}

bool YReadWriteMutexInternal::WaitToWrite(LockRecord& record, const Time::YDuration& timeout)
{
    const bool upgrade = record.readLevels != 0;
    Guard guard(m_mutex);
    if (upgrade && m_upgrading)
        return false;
    m_upgrading = m_upgrading || upgrade;
    Close();
    const auto alone = [&] {
        return m_holders == (upgrade ? 1 : 0) && m_dueReaders == 0;
    };
    ++m_waitingWriters;
    const bool free = alone() || Wait(guard, DeadlineOf(timeout), alone);
    --m_waitingWriters;
    if (upgrade)
        m_upgrading = false;
    if (free) {
        m_writing = true;
        if (!upgrade)
            Enter(record);
    } else {
        OpenIfIdle();
        m_changed.notify_all();
    }
    return free;
}

void YReadWriteMutexInternal::Enter(LockRecord& record)
{
    record.state.fetch_or(LockRecord::Held, std::memory_order_acquire);
    m_holders += m_closed;
}

// Writers are the ones who wait for this, and the last holder may be a reader that wants to write itself.
void YReadWriteMutexInternal::Leave(LockRecord& record)
{
    record.state.fetch_and(~static_cast<unsigned int>(LockRecord::Held), std::memory_order_release);
    if (m_closed && --m_holders <= 1)
        m_changed.notify_all();
}

void YReadWriteMutexInternal::Close()
{
    if (m_closed)
        return;
    m_closed = true;
    m_holders = 0;
    for (LockRecord* const record : m_records)
        m_holders +=
            record->state.fetch_or(LockRecord::Watched, std::memory_order_acq_rel) & LockRecord::Held;
}

void YReadWriteMutexInternal::OpenIfIdle()
{
    if (!m_closed || m_writing || m_waitingWriters != 0 || m_shares == 0)
        return;
    m_closed = false;
    for (LockRecord* const record : m_records)
        record->state.fetch_and(~static_cast<unsigned int>(LockRecord::Watched), std::memory_order_release);
}

} // namespace Krt::Thread
