#pragma once

#include "Krt/Thread/YMutex.h"

#include <pthread.h>

namespace Krt::Signal {

/// The lock and the condition that all signals of the process share. The lock is innermost: it is not held
/// while a slot runs.
class KRT_API Context
{
public:
    /// Locks the shared mutex and returns the lock.
    static Thread::YMutex::YLock GetMutex();
    /// The condition that is signalled when a slot's call ends. Valid as long as the process.
    static pthread_cond_t* GetCondition();
    /// Waits on the condition. The caller holds the shared mutex; its recursion count is restored on
    /// return.
    static void Wait();
};

} // namespace Krt::Signal
