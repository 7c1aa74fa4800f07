// The bodies of YSignal; included by YSignal.h alone.

namespace Krt::Signal {

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
    return YSlot(slot);
}

// The entries are tested and not promoted: releasing the last reference would run a destructor under the
// lock.
template <class... Args, class Combiner, class Function>
void YSignal<void(Args...), Combiner, Function>::RemoveExpired() const
{
    m_connections.remove_if(
        [](const Connection& entry) { return entry.slot.expired() || entry.owner.expired(); });
}

template <class... Args, class Combiner, class Function>
void YSignal<void(Args...), Combiner, Function>::operator()(Args... args) const
{
    std::list<Call> calls; // declared first: what it owns is destroyed without the lock
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
        call.heldOwner.reset(); // now, and without the lock: later entries may have the same owner
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
