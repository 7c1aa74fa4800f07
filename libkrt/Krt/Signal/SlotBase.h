// What every slot has: whether it is connected, and which threads are running it at this moment.
#pragma once

#include "Krt/Export.h"
#include "Krt/Thread/YMutex.h"

#include <map>

namespace Krt::Signal {

/// Raised by a slot to say that its target has gone; a firing drops it and goes on with the next slot.
class KRT_API YSlotExpired
{};

class KRT_API SlotBase
{
public:
    SlotBase() = default;
    SlotBase(const SlotBase&) = delete;
    SlotBase& operator=(const SlotBase&) = delete;
    virtual ~SlotBase() = default;

    /// With the lock of the Context held.
    bool IsConnected() const { return m_connected; }
    void SetConnected(bool connected) { m_connected = connected; }
    /// Counts the calling thread in and out; called with the lock of the Context held.
    void IncExecuter();
    void DecExecuter();
    /// Marks the slot as no longer connected, then waits until no thread but the caller runs it. Takes the
    /// lock.
    void Disconnect();

private:
    bool m_connected = false;
    std::map<unsigned long long, unsigned int> m_executers;
};

/// One call of a slot, during which the lock of the Context is given up: counts the calling thread in, and at
/// the end, however the call ends, takes the lock again, counts it out and wakes who waits for that.
class KRT_API SlotExecution
{
public:
    /// `contextLock` is held, and both outlive this object.
    SlotExecution(SlotBase& slot, Thread::YMutex::YLock& contextLock);
    ~SlotExecution();
    SlotExecution(const SlotExecution&) = delete;
    SlotExecution& operator=(const SlotExecution&) = delete;

private:
    SlotBase& m_slot;
    Thread::YMutex::YLock& m_lock;
};

} // namespace Krt::Signal
