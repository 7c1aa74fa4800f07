#include "Krt/Thread/Unix/YMutexInternalBase.h"

#include "Krt/Exception/Raise.h"

#include <cerrno>

namespace Krt::Thread {

namespace {

struct MutexAttributes
{
    pthread_mutexattr_t value;
    bool initialized = false;
    ~MutexAttributes()
    {
        if (initialized)
            pthread_mutexattr_destroy(&value);
    }
};

// The pthread calls return their error number and leave errno alone; 0 on success.
template <class Call>
int ErrorOf(Call call)
{
    int error = call();
    while (error == EINTR)
        error = call();
    return error;
}

// The detail's line ends without a flush: that would fire the stream's signal, whose mutex may be the one
// that has failed.
[[noreturn, gnu::cold]] void AbortOnFailure(const char* condition, const char* text, int error,
                                            unsigned int line, const char* function)
{
    YStream detail{YString()};
    detail << text << error << '\n';
    Exception::AbortRequiredCheck(condition, detail, line, KRT_SOURCE_FILE, function);
}

} // namespace

YMutexInternalBase::YMutexInternalBase()
{
    MutexAttributes attributes;
    int error = ErrorOf([&] { return pthread_mutexattr_init(&attributes.value); });
    KRT_RAISE_UNLESS(error == 0, ErrorCode::MutexInitFailed,
                     "Failed to initialize mutex attr errno " << error);
    attributes.initialized = true;
    error = ErrorOf([&] { return pthread_mutexattr_settype(&attributes.value, PTHREAD_MUTEX_RECURSIVE); });
    KRT_RAISE_UNLESS(error == 0, ErrorCode::MutexInitFailed);
    error = ErrorOf([&] { return pthread_mutex_init(&m_mutex, &attributes.value); });
    KRT_RAISE_UNLESS(error == 0, ErrorCode::MutexInitFailed, "Failed to initialize mutex errno " << error);
}

YMutexInternalBase::~YMutexInternalBase()
{
    pthread_mutex_destroy(&m_mutex);
}

void YMutexInternalBase::Lock()
{
    const int error = pthread_mutex_lock(&m_mutex);
    if (error != 0) [[unlikely]]
        AbortOnFailure("!(error = pthread_mutex_lock(&m_mutex))", "Mutex lock error ", error, __LINE__,
                       __func__);
}

void YMutexInternalBase::Unlock()
{
    const int error = pthread_mutex_unlock(&m_mutex);
    if (error != 0) [[unlikely]]
        AbortOnFailure("!(error = pthread_mutex_unlock(&m_mutex))", "Mutex unlock error ", error, __LINE__,
                       __func__);
}

} // namespace Krt::Thread
