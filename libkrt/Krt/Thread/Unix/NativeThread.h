// What a platform supplies about its threads.
#pragma once

namespace Krt::Thread {

/// The kernel's id of the calling thread.
unsigned long long ReadThreadId();
/// Tells the operating system the calling thread's name; one that is too long for it is cut.
void PublishThreadName(const char* name);

} // namespace Krt::Thread
