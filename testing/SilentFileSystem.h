// A file system whose server stops answering, as one on the network does when its machine is gone. Linux, and
// in a mount namespace of the test's own.
#pragma once

#include "testing/MountNamespace.h"

#include <atomic>
#include <thread>

namespace Testing {

/// A directory of directories: every name in it is an empty one. The system keeps what it learns of a name,
/// and asks for the attributes of a directory each time.
class SilentFileSystem
{
public:
    /// Throws Unavailable.
    SilentFileSystem(const MountNamespace& space, const std::string& target);
    /// Whoever waits for an answer then gets an error.
    ~SilentFileSystem();
    SilentFileSystem(const SilentFileSystem&) = delete;
    SilentFileSystem& operator=(const SilentFileSystem&) = delete;

    /// From now on nobody gets an answer.
    void FallSilent();

private:
    void Serve() const;

    int m_device;
    std::atomic<bool> m_isSilent{false};
    std::thread m_server;
};

} // namespace Testing
