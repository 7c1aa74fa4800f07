#include "Krt/Thread/Thread.h"

#include "Krt/String/YString.h"
#include "Krt/Thread/Unix/NativeThread.h"
#include "Krt/Thread/YThreadBase.h"

#include <pthread.h>
#include <sched.h>

namespace Krt::Thread {

namespace {

// Every cached read of a path needs the id. The model "initial-exec" makes it one load instead of a call, and
// a word fits into the space that the loader reserves for libraries that are loaded late.
[[gnu::tls_model("initial-exec")]] constinit thread_local unsigned long long t_id = 0;

// The only thread of a fork's child has an id of its own.
[[maybe_unused]] const int s_forkHandler = pthread_atfork(nullptr, nullptr, [] { t_id = 0; });

} // namespace

unsigned long long GetThreadId()
{
    if (t_id == 0) [[unlikely]]
        t_id = ReadThreadId();
    return t_id;
}

YString GetName()
{
    if (const YThreadBase* const thread = GetThread())
        return thread->GetName();
    char name[64] = "";
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

void Yield()
{
    sched_yield();
}

} // namespace Krt::Thread
