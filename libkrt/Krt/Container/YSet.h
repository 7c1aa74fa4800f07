#pragma once

#include "Krt/Signal/YSignal.h"
#include "Krt/Thread/ThreadSafety.h"

#include <condition_variable>
#include <set>

namespace Krt::Container {

/// An ordered set with its own mutex. It notifies waiting threads and connected slots of each change. Any
/// thread may call any operation.
template <class T>
class YSet
{
public:
    /// Removes all values and notifies, also if the set was empty.
    void Clear();
    /// Inserts the value and notifies, also if the set contains it already. Returns true if it was
    /// inserted.
    bool Insert(const T& value);
    /// Returns true if the set contains the value now; another thread may change it at once.
    bool Contains(const T& value) const;
    /// The number of values now; another thread may change it at once.
    unsigned long Size() const;
    /// Returns a copy of the content.
    std::set<T> Values() const;
    /// Waits until the number of the last change is above `seen`, and returns that number.
    unsigned long long WaitForChange(unsigned long long seen) const;
    /// The number of the last change; 0 before the first one.
    unsigned long long ChangeCount() const;
    /// Fired after each change, without a lock held.
    Signal::YSignal<void()>& OnChanged() { return m_changed; }

private:
    template <class Change>
    auto Apply(Change change);

    mutable Thread::AnnotatedMutex m_mutex;
    mutable std::condition_variable m_condition;
    std::set<T> m_values KRT_GUARDED_BY(m_mutex);
    unsigned long long m_changes KRT_GUARDED_BY(m_mutex) = 0;
    Signal::YSignal<void()> m_changed;
};

template <class T>
template <class Change>
auto YSet<T>::Apply(Change change)
{
    Thread::AnnotatedLock lock(m_mutex);
    auto result = change(m_values);
    ++m_changes;
    lock.Unlock();
    m_condition.notify_all();
    m_changed();
    return result;
}

template <class T>
void YSet<T>::Clear()
{
    Apply([](std::set<T>& values) {
        values.clear();
        return true;
    });
}

template <class T>
bool YSet<T>::Insert(const T& value)
{
    return Apply([&](std::set<T>& values) { return values.insert(value).second; });
}

template <class T>
bool YSet<T>::Contains(const T& value) const
{
    const Thread::AnnotatedLock lock(m_mutex);
    return m_values.count(value) != 0;
}

template <class T>
unsigned long YSet<T>::Size() const
{
    const Thread::AnnotatedLock lock(m_mutex);
    return m_values.size();
}

template <class T>
std::set<T> YSet<T>::Values() const
{
    const Thread::AnnotatedLock lock(m_mutex);
    return m_values;
}

template <class T>
unsigned long long YSet<T>::ChangeCount() const
{
    const Thread::AnnotatedLock lock(m_mutex);
    return m_changes;
}

template <class T>
unsigned long long YSet<T>::WaitForChange(unsigned long long seen) const
{
    Thread::AnnotatedLock lock(m_mutex);
    lock.Wait(m_condition, [&] {
        m_mutex.AssertHeld();
        return m_changes > seen;
    });
    return m_changes;
}

} // namespace Krt::Container
