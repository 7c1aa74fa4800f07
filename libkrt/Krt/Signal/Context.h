// The lock and the condition that all signals of the process share. The lock is innermost: it is never held
// while a slot runs.
#pragma once

#include "Krt/Thread/YMutex.h"

#include <pthread.h>

namespace Krt::Signal {

class KRT_API Context
{
public:
    /// Locks the shared mutex.
    static Thread::YMutex::YLock GetMutex();
    /// Signalled when a slot's call ends; lives as long as the process.
    static pthread_cond_t* GetCondition();
    /// Waits on the condition; the caller holds the shared mutex, and holds it as often again on return.
    static void Wait();
};

} // namespace Krt::Signal
