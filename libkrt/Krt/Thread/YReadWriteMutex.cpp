#include "Krt/Thread/YReadWriteMutex.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Thread/ThreadSafety.h"

#include <boost/make_shared.hpp>
#include <boost/smart_ptr/enable_shared_from_this.hpp>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <utility>
#include <vector>

// A reader-biased lock. Each thread has a ReaderSlot for each lock that it has used. While a lock is biased
// towards readers, a thread reads by setting Held in its slot, and touches only its own memory. A writer
// revokes the bias first: from then on all threads go through m_mutex, until no writer is left.
//
// States, changed with m_mutex held:
// - Biased: no thread writes or waits to. The slot's thread changes Held at any time. m_holders isn't
// maintained.
// - Revoked: writers wait. Held changes with m_mutex held only, and m_holders is the number of slots with
// Held.
// - Writing: as Revoked, with Held set only in the writer's slot.
//
// Transitions:
// - Biased to Revoked: RevokeReaderBias, called by a writer.
// - Revoked to Writing: a writer finds no other holder.
// - Writing to Revoked: the writer releases its last level.
// - Revoked to Biased: RestoreReaderBiasIfIdle, if no writer waits.
//
// Invariant, with m_mutex held: BiasRevoked is set in all slots of m_slots if the state isn't Biased,
// otherwise in none. Level counts belong to the slot's thread. Held is set while one of them isn't 0.
//
// Memory order. A reader's exchange and a writer's fetch_or change the same atomic, so one of them comes
// first: either the writer sees Held and waits, or the reader's exchange fails and the reader takes m_mutex.
// Nothing depends on the order of two slots, so acquire and release suffice.
// - TryReadLock, acquire, pairs with the release of RestoreReaderBiasIfIdle: reads see all past writes.
// - TryReadUnlock, release, pairs with the acquire of RevokeReaderBias: writes come after all past reads.
// - Every other change of a state is relaxed, since m_mutex orders it.
//
// Writer preference: a waiting writer holds back threads that hold no lock of this type, for
// WriterPreferenceLimit at most. Readers that have waited longer (m_starvedReaders) precede the next writer.
// Threads that hold some lock are not held back, since the holder of this lock may wait for theirs.
//
// Destruction. YReadWriteMutex objects own the lock; slots refer to it weakly. A slot is owned by its thread,
// which deletes it at its end or, after the lock was destroyed, when its table is full. A slot with levels at
// the thread's end is leaked, and its lock stays locked. ~ReaderSlot takes the slot out of m_slots if the
// lock still exists. Levels may outlive the lock: they are released only in the slot, since no thread can
// wait for them. The memory of a lock made by make_shared is kept while slots refer to it, so its address is
// that of no other lock.

namespace Krt::Thread {

namespace {

// The limit prevents a deadlock: a thread that holds the lock may wait for exactly the reader that is held
// back.
constexpr std::chrono::milliseconds WriterPreferenceLimit(50);

} // namespace

class YReadWriteMutexInternal : public boost::enable_shared_from_this<YReadWriteMutexInternal>
{
public:
    // Acquire a level; return false on a timeout. A timeout of zero waits without limit.
    bool ReadLock(const Time::YDuration& timeout);
    bool WriteLock(const Time::YDuration& timeout);
    // Release a level of the kind, which the caller holds. Its write levels are the last to go.
    void ReadUnlock();
    void WriteUnlock();
    // Acquire this many levels and wait without limit; the caller holds no level.
    void ReadFastForward(unsigned int levels);
    void WriteFastForward(unsigned int levels);
    // Returns true if the caller holds a read level, also while it writes.
    bool IsReadLockedByMe() const;

    void Unregister(const ReaderSlot& slot);

private:
    using Deadline = std::chrono::steady_clock::time_point;
    static constexpr Deadline Never = Deadline::max();
    enum class State
    {
        Biased,
        Revoked,
        Writing
    };

    static Deadline DeadlineOf(const Time::YDuration& timeout);
    template <class Condition>
    bool Wait(AnnotatedLock& guard, Deadline deadline, Condition condition);
    ReaderSlot& MySlot();
    ReaderSlot& Register();
    bool ReadLockSlow(const Time::YDuration& timeout);
    bool WriteLockSlow(ReaderSlot& slot, const Time::YDuration& timeout);
    void SetHeld(ReaderSlot& slot) KRT_REQUIRES(m_mutex);
    void ClearHeld(ReaderSlot& slot) KRT_REQUIRES(m_mutex);
    void RevokeReaderBias() KRT_REQUIRES(m_mutex);
    void RestoreReaderBiasIfIdle() KRT_REQUIRES(m_mutex);

    AnnotatedMutex m_mutex;
    std::condition_variable m_changed;
    std::vector<ReaderSlot*> m_slots KRT_GUARDED_BY(m_mutex); // of all threads
    State m_state KRT_GUARDED_BY(m_mutex) = State::Biased;
    bool m_upgrading KRT_GUARDED_BY(m_mutex) = false; // a reader waits to write
    unsigned int m_holders KRT_GUARDED_BY(m_mutex) = 0;
    unsigned int m_waitingWriters KRT_GUARDED_BY(m_mutex) = 0;
    unsigned int m_starvedReaders KRT_GUARDED_BY(m_mutex) = 0;
};

ReaderSlot::ReaderSlot(const YReadWriteMutexInternal* lockAddress,
                       boost::weak_ptr<YReadWriteMutexInternal> lockOwner)
    : address(lockAddress), lock(std::move(lockOwner))
{}

ReaderSlot::~ReaderSlot()
{
    if (const auto owner = lock.lock())
        owner->Unregister(*this);
}

ReaderSlot& YReadWriteMutexInternal::MySlot()
{
    ReaderSlot* const slot = ReaderSlots::Mine().Find(this);
    return slot != nullptr ? *slot : Register();
}

ReaderSlot& YReadWriteMutexInternal::Register()
{
    ReaderSlots& mine = ReaderSlots::Mine();
    mine.Reserve();
    auto slot = std::make_unique<ReaderSlot>(this, weak_from_this());
    const AnnotatedLock guard(m_mutex);
    m_slots.push_back(slot.get());
    if (m_state != State::Biased)
        slot->state.store(ReaderSlot::BiasRevoked, std::memory_order_relaxed);
    mine.Insert(slot.get());
    return *slot.release();
}

void YReadWriteMutexInternal::Unregister(const ReaderSlot& slot)
{
    const AnnotatedLock guard(m_mutex);
    std::erase(m_slots, &slot);
}

YReadWriteMutexInternal::Deadline YReadWriteMutexInternal::DeadlineOf(const Time::YDuration& timeout)
{
    const Deadline now = std::chrono::steady_clock::now();
    if (timeout.IsZero() || timeout.AsChrono() >= Never - now)
        return Never;
    return now + timeout.AsChrono();
}

template <class Condition>
bool YReadWriteMutexInternal::Wait(AnnotatedLock& guard, Deadline deadline, Condition condition)
{
    if (deadline != Never)
        return guard.WaitUntil(m_changed, deadline, condition);
    guard.Wait(m_changed, condition);
    return true;
}

bool YReadWriteMutexInternal::ReadLock(const Time::YDuration& timeout)
{
    return ReaderSlots::Mine().TryReadLock(this) || ReadLockSlow(timeout);
}

bool YReadWriteMutexInternal::ReadLockSlow(const Time::YDuration& timeout)
{
    ReaderSlots& mine = ReaderSlots::Mine();
    ReaderSlot& slot = MySlot();
    AnnotatedLock guard(m_mutex);
    if (m_state == State::Writing || m_waitingWriters != 0) {
        const Deadline deadline = DeadlineOf(timeout);
        if (mine.locksHeldByThread == 0)
            Wait(guard, std::min(deadline, std::chrono::steady_clock::now() + WriterPreferenceLimit), [&] {
                m_mutex.AssertHeld();
                return m_state != State::Writing && m_waitingWriters == 0;
            });
        ++m_starvedReaders;
        const bool free = Wait(guard, deadline, [&] {
            m_mutex.AssertHeld();
            return m_state != State::Writing;
        });
        --m_starvedReaders;
        if (!free)
            return false;
    }
    SetHeld(slot);
    slot.readLevels = 1;
    ++mine.locksHeldByThread;
    return true;
}

bool YReadWriteMutexInternal::WriteLock(const Time::YDuration& timeout)
{
    ReaderSlot& slot = MySlot();
    const bool firstLevel = !slot.HasLevels();
    if (slot.writeLevels == 0 && !WriteLockSlow(slot, timeout))
        return false;
    ++slot.writeLevels;
    ReaderSlots::Mine().locksHeldByThread += firstLevel;
    return true;
}

// If two readers both want to write, neither can ever leave, so the second one is refused at once.
bool YReadWriteMutexInternal::WriteLockSlow(ReaderSlot& slot, const Time::YDuration& timeout)
{
    const bool upgrade = slot.readLevels != 0;
    AnnotatedLock guard(m_mutex);
    if (upgrade && m_upgrading)
        return false;
    m_upgrading = m_upgrading || upgrade;
    RevokeReaderBias();
    const auto alone = [&] {
        m_mutex.AssertHeld();
        return m_holders == (upgrade ? 1 : 0) && m_starvedReaders == 0;
    };
    ++m_waitingWriters;
    const bool free = alone() || Wait(guard, DeadlineOf(timeout), alone);
    --m_waitingWriters;
    if (upgrade)
        m_upgrading = false;
    if (free) {
        m_state = State::Writing;
        if (!upgrade)
            SetHeld(slot);
    } else {
        RestoreReaderBiasIfIdle();
        m_changed.notify_all();
    }
    return free;
}

void YReadWriteMutexInternal::ReadUnlock()
{
    ReaderSlots& mine = ReaderSlots::Mine();
    if (mine.TryReadUnlock(this))
        return;
    ReaderSlot& slot = MySlot();
    slot.readLevels = 0;
    --mine.locksHeldByThread;
    const AnnotatedLock guard(m_mutex);
    ClearHeld(slot);
}

void YReadWriteMutexInternal::WriteUnlock()
{
    ReaderSlot& slot = MySlot();
    if (--slot.writeLevels != 0)
        return;
    --ReaderSlots::Mine().locksHeldByThread;
    const AnnotatedLock guard(m_mutex);
    ClearHeld(slot);
    m_state = State::Revoked;
    RestoreReaderBiasIfIdle();
    m_changed.notify_all();
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

bool YReadWriteMutexInternal::IsReadLockedByMe() const
{
    const ReaderSlot* const slot = ReaderSlots::Mine().Find(this);
    return slot != nullptr && slot->readLevels != 0;
}

void YReadWriteMutexInternal::SetHeld(ReaderSlot& slot)
{
    slot.state.fetch_or(ReaderSlot::Held, std::memory_order_relaxed);
    if (m_state != State::Biased)
        ++m_holders;
}

// A writer waits for the last holder, or for the last but itself if it reads.
void YReadWriteMutexInternal::ClearHeld(ReaderSlot& slot)
{
    slot.state.fetch_and(~static_cast<unsigned int>(ReaderSlot::Held), std::memory_order_relaxed);
    if (m_state != State::Biased && --m_holders <= 1)
        m_changed.notify_all();
}

void YReadWriteMutexInternal::RevokeReaderBias()
{
    if (m_state != State::Biased)
        return;
    m_state = State::Revoked;
    m_holders = 0;
    for (ReaderSlot* const slot : m_slots)
        m_holders +=
            slot->state.fetch_or(ReaderSlot::BiasRevoked, std::memory_order_acquire) & ReaderSlot::Held;
}

void YReadWriteMutexInternal::RestoreReaderBiasIfIdle()
{
    if (m_state != State::Revoked || m_waitingWriters != 0)
        return;
    m_state = State::Biased;
    for (ReaderSlot* const slot : m_slots)
        slot->state.fetch_and(~static_cast<unsigned int>(ReaderSlot::BiasRevoked), std::memory_order_release);
}

namespace {

// Returns the caller's slot for a lock of which it holds a level. A failure is a broken invariant.
ReaderSlot& HeldSlot(const YReadWriteMutexInternal* lock)
{
    ReaderSlot* const slot = ReaderSlots::Mine().Find(lock);
    if (slot == nullptr || !slot->HasLevels()) [[unlikely]] {
        // Like the mutex, without a flush.
        const YStream detail(YString("Read/write lock released without being held by this thread\n"));
        Exception::AbortRequiredCheck("slot->HasLevels()", detail, __LINE__, KRT_SOURCE_FILE, __func__);
    }
    return *slot;
}

} // namespace

YReadWriteMutex::YLock::YLock(YLock&& other) noexcept
    : m_internal(std::move(other.m_internal)), m_readLevels(std::exchange(other.m_readLevels, 0)),
      m_writeLevels(std::exchange(other.m_writeLevels, 0))
{}

YReadWriteMutex::YLock& YReadWriteMutex::YLock::operator=(YLock&& other) noexcept
{
    if (this != &other) {
        Release();
        m_internal = std::move(other.m_internal);
        m_readLevels = std::exchange(other.m_readLevels, 0);
        m_writeLevels = std::exchange(other.m_writeLevels, 0);
    }
    return *this;
}

void YReadWriteMutex::YLock::ReleaseSlow() noexcept
{
    if (m_readLevels != 0) {
        m_internal->ReadFastForward(m_readLevels - 1);
    } else if (m_writeLevels != 0) {
        m_internal->WriteFastForward(m_writeLevels - 1);
    } else {
        ReaderSlot& slot = HeldSlot(m_internal.get());
        const boost::shared_ptr<YReadWriteMutexInternal> lock = slot.lock.lock();
        if (!lock) {
            --(slot.readLevels != 0 ? slot.readLevels : slot.writeLevels);
            ReaderSlots::Mine().locksHeldByThread -= !slot.HasLevels();
        } else if (lock->IsReadLockedByMe()) {
            lock->ReadUnlock();
        } else {
            lock->WriteUnlock();
        }
    }
    m_internal.reset();
    m_readLevels = m_writeLevels = 0;
}

void YReadWriteMutex::YLock::GiveUpAllLevels()
{
    if (!m_internal || m_readLevels != 0 || m_writeLevels != 0)
        return;
    const ReaderSlot& slot = HeldSlot(m_internal.get());
    boost::shared_ptr<YReadWriteMutexInternal> lock = slot.lock.lock();
    if (!lock)
        return; // no other thread can want it
    (slot.writeLevels != 0 ? m_writeLevels : m_readLevels) = slot.readLevels + slot.writeLevels;
    while (slot.readLevels != 0)
        lock->ReadUnlock();
    while (slot.writeLevels != 0)
        lock->WriteUnlock();
    m_internal = std::move(lock);
}

YReadWriteMutex::YReadWriteMutex() : m_internal(boost::make_shared<YReadWriteMutexInternal>()) {}

void YReadWriteMutex::ReadLockSlow(const Time::YDuration& timeout) const
{
    if (!m_internal->ReadLock(timeout))
        KRT_RAISE_AS("ReadLock", MessageType::Runtime, ErrorCode::LockTimeout);
}

YReadWriteMutex::YLock YReadWriteMutex::WriteLock(const Time::YDuration& timeout) const
{
    if (!m_internal->WriteLock(timeout))
        KRT_RAISE_ON(MessageType::Runtime, ErrorCode::LockTimeout);
    return YLock(m_internal.get());
}

} // namespace Krt::Thread
