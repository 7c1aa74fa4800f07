#pragma once

#include "Krt/Export.h"

#include <pthread.h>

namespace Krt::Thread {

/// A recursive pthread_mutex_t.
class KRT_API YMutexInternalBase
{
public:
    /// Raises MutexInitFailed.
    YMutexInternalBase();
    ~YMutexInternalBase();
    YMutexInternalBase(const YMutexInternalBase&) = delete;
    YMutexInternalBase& operator=(const YMutexInternalBase&) = delete;

    /// Acquires the mutex. A failure aborts the process with the banner of a required check.
    void Lock();
    /// Releases the mutex. A failure aborts the process with the banner of a required check.
    void Unlock();

protected:
    pthread_mutex_t m_mutex; ///< for waits on a condition
};

} // namespace Krt::Thread
