// Syncer: makes files durable in a way that can be interrupted.
#pragma once

#include "Krt/Util/YUnxHandle.h"

#include <mutex>
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

    std::mutex m_mutex; // for the creation of the process
    bool m_isStarted = false;
    pid_t m_process = -1;
    Krt::Util::YUnxHandle m_requests; // a socket; empty if there is no process
};

} // namespace Agent
