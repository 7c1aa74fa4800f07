#include "Krt/Thread/Unix/NativeThread.h"

#include <pthread.h>

#include <cstdint>

namespace Krt::Thread {

unsigned long long ReadThreadId()
{
    std::uint64_t id = 0;
    pthread_threadid_np(nullptr, &id);
    return id;
}

void PublishThreadName(const char* name)
{
    pthread_setname_np(name);
}

} // namespace Krt::Thread
