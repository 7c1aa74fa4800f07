// YSignal: calls every connected function, each without any lock held. Slots may connect, disconnect (also
// themselves) and fire while they run; a slot connected during a firing waits for the next one.
#pragma once

#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Signal/Context.h"
#include "Krt/Signal/SlotBase.h"
#include "Krt/Thread/YCancellationScope.h"

#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <list>
#include <memory>
#include <set>
#include <utility>

namespace Krt::Signal {

/// Keeps the last slot's result; for void there is none to keep.
template <class T>
class OptionalLastCombiner;
template <>
class OptionalLastCombiner<void>
{
public:
    /// Told of each slot that has run.
    void Note() {}
};

/// A connection: disconnects its slot when it goes, and waits then for a call in progress on another thread.
/// Movable. Outlives its signal safely.
class YSlot
{
public:
    YSlot() = default;
    /// Takes a connected slot over.
    explicit YSlot(boost::shared_ptr<SlotBase> slot) : m_slot(std::move(slot)) {}
    YSlot(YSlot&& other) noexcept : m_slot(std::move(other.m_slot)) { other.m_slot.reset(); }
    YSlot& operator=(YSlot&& other) noexcept
    {
        if (this != &other) {
            Disconnect();
            m_slot = std::move(other.m_slot);
            other.m_slot.reset();
        }
        return *this;
    }
    ~YSlot() { Disconnect(); }

    /// Whether it holds a connection, also one whose signal is gone.
    bool IsConnected() const { return m_slot != nullptr; }
    /// Ends the connection, as told above; a second call does nothing.
    void Disconnect() noexcept
    {
        if (const boost::shared_ptr<SlotBase> slot = std::exchange(m_slot, nullptr))
            slot->Disconnect();
    }

private:
    boost::shared_ptr<SlotBase> m_slot;
};

template <class Signature, class Combiner = OptionalLastCombiner<void>,
          class Function = boost::function<Signature>>
class YSignal;

template <class... Args, class Combiner, class Function>
class YSignal<void(Args...), Combiner, Function>
{
public:
    YSignal() = default;
    YSignal(const YSignal&) = delete;
    YSignal& operator=(const YSignal&) = delete;

    /// Calls `function` at each firing for as long as the returned slot lives.
    [[nodiscard]] YSlot Connect(Function function) { return Connect(std::move(function), nullptr); }
    /// The same, and only for as long as `owner` is shared by somebody.
    [[nodiscard]] YSlot Connect(Function function, const boost::shared_ptr<void>& owner);

    /// Calls the slots. What a slot raises passes through, save YSlotExpired.
    void operator()(Args... args) const;

    /// A scope that is counted among the running ones until it is released; both with the shared lock held.
    Thread::YCancellationScope* AllocateCancellationScope() const;
    void ReleaseCancellationScope(Thread::YCancellationScope* scope) const;

private:
    struct Slot : SlotBase
    {
        Function function;
    };
    // Without an owner of its own a slot is owned by the connection that Connect gave out, so by itself here.
    struct Connection
    {
        boost::weak_ptr<Slot> slot;
        boost::weak_ptr<void> owner;
    };
    // An entry of a firing's snapshot, with what keeps the slot alive from its turn to the firing's end, and
    // the owner for the call.
    struct Call : Connection
    {
        // Whether the slot is to be called still; with the lock held.
        bool Promote()
        {
            heldSlot = this->slot.lock();
            if (heldSlot && heldSlot->IsConnected())
                heldOwner = this->owner.lock();
            return heldOwner != nullptr;
        }
        boost::shared_ptr<Slot> heldSlot;
        boost::shared_ptr<void> heldOwner;
    };
    struct RunningScope
    {
        explicit RunningScope(const YSignal& signal)
            : m_signal(signal), m_scope(signal.AllocateCancellationScope())
        {}
        ~RunningScope() { m_signal.ReleaseCancellationScope(m_scope); }
        RunningScope(const RunningScope&) = delete;
        RunningScope& operator=(const RunningScope&) = delete;

    private:
        const YSignal& m_signal;
        Thread::YCancellationScope* const m_scope;
    };

    void RemoveExpired() const;

    mutable std::list<Connection> m_connections;
    mutable std::set<Thread::YCancellationScope*> m_scopes;
};

} // namespace Krt::Signal

#include "Krt/Signal/YSignal.inl"
