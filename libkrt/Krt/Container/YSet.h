#pragma once

#include "Krt/Signal/YSignal.h"
#include "Krt/Thread/ThreadSafety.h"

#include <set>

namespace Krt::Container {

/// An ordered set with its own mutex. It fires OnChanged after each change. Any thread may call any
/// operation.
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
    /// Fired after each change, without a lock held.
    Signal::YSignal<void()>& OnChanged() { return m_changed; }

private:
    template <class Change>
    auto Apply(Change change);

    mutable Thread::AnnotatedMutex m_mutex;
    std::set<T> m_values KRT_GUARDED_BY(m_mutex);
    Signal::YSignal<void()> m_changed;
};

template <class T>
template <class Change>
auto YSet<T>::Apply(Change change)
{
    Thread::AnnotatedLock lock(m_mutex);
    auto result = change(m_values);
    lock.Unlock();
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

} // namespace Krt::Container
