#include "Krt/Signal/Context.h"

#include <boost/make_shared.hpp>

namespace Krt::Signal {

namespace {

struct Shared
{
    const boost::shared_ptr<Thread::YMutexInternal> mutex = boost::make_shared<Thread::YMutexInternal>(0);
    pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
};

// Never destroyed: signals of static storage fire and disconnect until the very end of the process.
Shared& GetShared()
{
    static Shared* const shared = new Shared;
    return *shared;
}

} // namespace

Thread::YMutex::YLock Context::GetMutex()
{
    return Thread::YMutex::YLock(GetShared().mutex);
}

pthread_cond_t* Context::GetCondition()
{
    return &GetShared().condition;
}

void Context::Wait()
{
    GetShared().mutex->Wait(GetCondition());
}

} // namespace Krt::Signal
