#pragma once

#include "Krt/Export.h"
#include "Krt/Thread/YMutex.h"

#include <pthread.h>

#include <map>

namespace Krt::Signal {

/// Raised by a slot whose target no longer exists. The signal ignores it and continues with the next slot.
class KRT_API YSlotExpired
{};

/// The state of a slot: whether it is connected, and which threads run it now.
class KRT_API SlotBase
{
public:
    SlotBase() = default;
    SlotBase(const SlotBase&) = delete;
    SlotBase& operator=(const SlotBase&) = delete;
    virtual ~SlotBase() = default;

    /// Returns true if the slot is connected. The caller holds the lock of the Context.
    bool IsConnected() const { return m_connected; }
    /// Sets whether the slot is connected. The caller holds the lock of the Context.
    void SetConnected(bool connected) { m_connected = connected; }
    /// Counts the calling thread as running the slot. The caller holds the lock of the Context.
    void IncExecuter();
    /// Ends one count of IncExecuter. The caller holds the lock of the Context.
    void DecExecuter();
    /// Marks the slot as disconnected, then waits until no other thread runs it. Acquires the lock of the
    /// Context.
    void Disconnect();

private:
    bool m_connected = false;
    std::map<unsigned long long, unsigned int> m_executers;
};

/// One call of a slot, during which the lock of the Context is released. Counts the calling thread as
/// running the slot. The destructor acquires the lock, ends the count and wakes the threads that wait for
/// it.
class KRT_API SlotExecution
{
public:
    /// `contextLock` is held. It and `slot` must outlive this object.
    SlotExecution(SlotBase& slot, Thread::YMutex::YLock& contextLock);
    ~SlotExecution();
    SlotExecution(const SlotExecution&) = delete;
    SlotExecution& operator=(const SlotExecution&) = delete;

private:
    SlotBase& m_slot;
    Thread::YMutex::YLock& m_lock;
};

/// The lock and the condition that all signals of the process share. The lock is innermost: it is not held
/// while a slot runs.
class KRT_API Context
{
public:
    /// Acquires the lock of the Context and returns it.
    static Thread::YMutex::YLock GetMutex();
    /// The condition that is signalled when a slot's call ends. Valid as long as the process.
    static pthread_cond_t* GetCondition();
    /// Waits on the condition. The caller holds the lock of the Context; its recursion count is restored on
    /// return.
    static void Wait();
};

} // namespace Krt::Signal
