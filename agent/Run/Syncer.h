// Syncer: makes files durable in a way that can be interrupted.
#pragma once

#include "Krt/Thread/ThreadSafety.h"
#include "Krt/Util/YUnxHandle.h"

#include <sys/types.h>

namespace Agent {

/// A process that waits for a slow disk in fsync does not end, not even when it is killed. Therefore another
/// process calls it, which is created at the first use, while this one has little memory, and ends with this
/// object. Any number of threads may use an object at once.
class Syncer
{
public:
    Syncer() = default;
    ~Syncer();
    Syncer(const Syncer&) = delete;
    Syncer& operator=(const Syncer&) = delete;

    /// Makes a file or a directory durable. Raises the operating system's error, and InvalidState when the
    /// user interrupts; the file may then become durable later. If there is no other process, as after a
    /// failure to create it, this one calls fsync, which an interrupt does not end.
    void Sync(const Krt::Util::YUnxHandle& handle);

private:
    int Start();

    Krt::Thread::AnnotatedMutex m_mutex;
    bool m_isStarted KRT_GUARDED_BY(m_mutex) = false;
    pid_t m_process KRT_GUARDED_BY(m_mutex) = -1;
    Krt::Util::YUnxHandle m_requests KRT_GUARDED_BY(m_mutex); // a socket; empty if there is no process
};

} // namespace Agent
