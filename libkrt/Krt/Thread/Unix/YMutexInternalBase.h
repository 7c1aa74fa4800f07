// One recursive pthread_mutex_t.
#pragma once

#include "Krt/Export.h"

#include <pthread.h>

namespace Krt::Thread {

class KRT_API YMutexInternalBase
{
public:
    /// Raises MutexInitFailed.
    YMutexInternalBase();
    ~YMutexInternalBase();
    YMutexInternalBase(const YMutexInternalBase&) = delete;
    YMutexInternalBase& operator=(const YMutexInternalBase&) = delete;

    /// A failure aborts the process with the banner of a required check.
    void Lock();
    void Unlock();

protected:
    pthread_mutex_t m_mutex; ///< for waits on a condition
};

} // namespace Krt::Thread
