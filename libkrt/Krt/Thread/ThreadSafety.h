#pragma once

/// @file
/// Annotations that clang checks at compile time (-Wthread-safety): which mutex guards a member, and which
/// mutex a function requires. Other compilers ignore them. AnnotatedMutex and AnnotatedLock are std::mutex
/// and std::unique_lock with these annotations.

#include <mutex>

/// The attribute, where the compiler knows it.
#if defined(__clang__)
#define KRT_THREAD_ATTRIBUTE(attribute) __attribute__((attribute))
#else
#define KRT_THREAD_ATTRIBUTE(attribute)
#endif

/// A class whose objects can be held by a thread.
#define KRT_CAPABILITY(kind) KRT_THREAD_ATTRIBUTE(capability(kind))
/// A class that holds a capability for the lifetime of its objects.
#define KRT_SCOPED_CAPABILITY KRT_THREAD_ATTRIBUTE(scoped_lockable)
/// A member that is used only with the mutex held.
#define KRT_GUARDED_BY(mutex) KRT_THREAD_ATTRIBUTE(guarded_by(mutex))
/// A function that is called with the mutexes held.
#define KRT_REQUIRES(...) KRT_THREAD_ATTRIBUTE(requires_capability(__VA_ARGS__))
/// A function that acquires the mutexes, or its own object if there is no argument.
#define KRT_ACQUIRE(...) KRT_THREAD_ATTRIBUTE(acquire_capability(__VA_ARGS__))
/// A function that releases what KRT_ACQUIRE acquired.
#define KRT_RELEASE(...) KRT_THREAD_ATTRIBUTE(release_capability(__VA_ARGS__))
/// A function after which its object counts as held.
#define KRT_ASSERTS_HELD KRT_THREAD_ATTRIBUTE(assert_capability(this))

namespace Krt::Thread {

/// A std::mutex, which AnnotatedLock acquires.
class KRT_CAPABILITY("mutex") AnnotatedMutex
{
public:
    /// Declares to clang that the mutex is held, in lambdas that run with it held. Does nothing.
    void AssertHeld() const KRT_ASSERTS_HELD {}

private:
    friend class AnnotatedLock;
    std::mutex m_mutex;
};

/// Holds the mutex for a scope.
class KRT_SCOPED_CAPABILITY AnnotatedLock
{
public:
    /// Acquires the mutex.
    explicit AnnotatedLock(AnnotatedMutex& mutex) KRT_ACQUIRE(mutex) : m_lock(mutex.m_mutex) {}
    /// Releases the mutex, if it is held.
    ~AnnotatedLock() KRT_RELEASE() {}
    AnnotatedLock(const AnnotatedLock&) = delete;
    AnnotatedLock& operator=(const AnnotatedLock&) = delete;

    /// Acquires the mutex again.
    void Lock() KRT_ACQUIRE() { m_lock.lock(); }
    /// Releases the mutex before the end of the scope.
    void Unlock() KRT_RELEASE() { m_lock.unlock(); }

    /// Waits on a std::condition_variable until the predicate, which is called with the mutex held, is true.
    template <class Condition, class Predicate>
    void Wait(Condition& condition, Predicate predicate)
    {
        condition.wait(m_lock, predicate);
    }
    /// Waits like Wait, until `deadline` at most; returns false if the predicate is false then.
    template <class Condition, class TimePoint, class Predicate>
    bool WaitUntil(Condition& condition, TimePoint deadline, Predicate predicate)
    {
        return condition.wait_until(m_lock, deadline, predicate);
    }

private:
    std::unique_lock<std::mutex> m_lock;
};

} // namespace Krt::Thread
