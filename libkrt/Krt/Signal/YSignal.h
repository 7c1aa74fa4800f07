#pragma once

#include "Krt/KrtFoundation/boostapi.h"
#include "Krt/Signal/SlotBase.h"
#include "Krt/Thread/YCancellationScope.h"

#include <boost/function.hpp>
#include <boost/make_shared.hpp>
#include <boost/shared_ptr.hpp>
#include <boost/weak_ptr.hpp>

#include <atomic>
#include <list>
#include <memory>
#include <set>
#include <utility>

namespace Krt::Signal {

/// The combiner of the slots' results. Only the specialisation for void is defined.
template <class T>
class OptionalLastCombiner;
/// The combiner of slots without a result.
template <>
class OptionalLastCombiner<void>
{
public:
    /// Called after each slot.
    void Note() {}
};

/// A connection. Its destructor disconnects the slot and waits for calls in progress on other threads.
/// Movable. It may outlive its signal.
class YSlot
{
public:
    YSlot() = default;
    /// Owns the connection of `slot`, which is connected.
    explicit YSlot(boost::shared_ptr<SlotBase> slot) : m_slot(std::move(slot)) {}
    /// Moves the connection; `other` is empty afterwards.
    YSlot(YSlot&& other) noexcept : m_slot(std::move(other.m_slot)) { other.m_slot.reset(); }
    /// Disconnects the slot, then moves the connection; `other` is empty afterwards.
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

    /// Returns true if this object owns a connection, even if the signal was destroyed.
    bool IsConnected() const { return m_slot != nullptr; }
    /// Disconnects the slot and waits for calls in progress on other threads; a second call does nothing.
    void Disconnect() noexcept
    {
        if (const boost::shared_ptr<SlotBase> slot = std::exchange(m_slot, nullptr))
            slot->Disconnect();
    }

private:
    boost::shared_ptr<SlotBase> m_slot;
};

/// A signal of any signature. Only signatures with the result void are defined.
template <class Signature, class Combiner = OptionalLastCombiner<void>,
          class Function = boost::function<Signature>>
class YSignal;

/// Calls every connected function, each without a lock held. While they run, slots may connect, disconnect
/// (also themselves) and fire. A slot that is connected during a firing is called from the next one on. Any
/// thread.
template <class... Args, class Combiner, class Function>
class YSignal<void(Args...), Combiner, Function>
{
public:
    YSignal() = default;
    YSignal(const YSignal&) = delete;
    YSignal& operator=(const YSignal&) = delete;

    /// Calls `function` at each firing as long as the returned slot exists.
    [[nodiscard]] YSlot Connect(Function function) { return Connect(std::move(function), nullptr); }
    /// Calls `function` at each firing as long as the returned slot exists and, unless it is nullptr, the
    /// object of `owner`.
    [[nodiscard]] YSlot Connect(Function function, const boost::shared_ptr<void>& owner);

    /// Calls the slots. Exceptions of a slot except YSlotExpired are passed on.
    void operator()(Args... args) const;
    /// Returns false if no slot was connected until now, so that a call would do nothing. Lock-free.
    bool MayHaveSlots() const { return m_mayHaveSlots.load(std::memory_order_acquire); }

    /// Returns a new scope that counts as running until it is released. The caller holds the lock of the
    /// Context.
    Thread::YCancellationScope* AllocateCancellationScope() const;
    /// Destroys a scope of AllocateCancellationScope. The caller holds the lock of the Context.
    void ReleaseCancellationScope(Thread::YCancellationScope* scope) const;

private:
    struct Slot : SlotBase
    {
        Function function;
    };
    // A slot without an owner is owned by the connection that Connect returned; here it is its own owner.
    struct Connection
    {
        boost::weak_ptr<Slot> slot;
        boost::weak_ptr<void> owner;
    };
    // An entry of a firing's snapshot. It owns the slot from its call to the end of the firing, and the owner
    // during the call.
    struct Call : Connection
    {
        // Returns true if the slot is still to be called. The caller holds the lock.
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

    std::atomic<bool> m_mayHaveSlots{false};
    mutable std::list<Connection> m_connections;
    mutable std::set<Thread::YCancellationScope*> m_scopes;
};

template <class... Args, class Combiner, class Function>
YSlot YSignal<void(Args...), Combiner, Function>::Connect(Function function,
                                                          const boost::shared_ptr<void>& owner)
{
    const boost::shared_ptr<Slot> slot = boost::make_shared<Slot>();
    slot->function = std::move(function);
    const Thread::YMutex::YLock lock = Context::GetMutex();
    RemoveExpired();
    m_connections.push_back({slot, owner ? owner : boost::shared_ptr<void>(slot)});
    slot->SetConnected(true);
    m_mayHaveSlots.store(true, std::memory_order_release);
    return YSlot(slot);
}

// Only checks the references and locks none: releasing the last reference to an object would run its
// destructor, which may do anything, with the lock held.
template <class... Args, class Combiner, class Function>
void YSignal<void(Args...), Combiner, Function>::RemoveExpired() const
{
    m_connections.remove_if(
        [](const Connection& entry) { return entry.slot.expired() || entry.owner.expired(); });
}

template <class... Args, class Combiner, class Function>
void YSignal<void(Args...), Combiner, Function>::operator()(Args... args) const
{
    if (!MayHaveSlots())
        return;
    std::list<Call> calls; // declared first, so that what it owns is destroyed after the lock is released
    Thread::YMutex::YLock lock = Context::GetMutex();
    RemoveExpired();
    for (const Connection& entry : m_connections)
        calls.push_back({entry, nullptr, nullptr});
    const RunningScope scope(*this);
    Combiner combiner;
    for (Call& call : calls) {
        if (!call.Promote())
            continue;
        const SlotExecution execution(*call.heldSlot, lock);
        try {
            CallFunction(call.heldSlot->function, args...);
            combiner.Note();
        } catch (const YSlotExpired&) {
        }
        call.heldOwner.reset(); // while the lock is released
    }
}

template <class... Args, class Combiner, class Function>
Thread::YCancellationScope* YSignal<void(Args...), Combiner, Function>::AllocateCancellationScope() const
{
    auto scope = std::make_unique<Thread::YCancellationScope>();
    m_scopes.insert(scope.get());
    return scope.release();
}

template <class... Args, class Combiner, class Function>
void YSignal<void(Args...), Combiner, Function>::ReleaseCancellationScope(
    Thread::YCancellationScope* scope) const
{
    m_scopes.erase(scope);
    delete scope;
}

} // namespace Krt::Signal
