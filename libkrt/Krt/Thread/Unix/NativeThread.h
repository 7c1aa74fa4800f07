#pragma once

/// @file
/// The operations on threads that each platform defines.

namespace Krt::Thread {

/// Returns the kernel's ID of the calling thread.
unsigned long long ReadThreadId();
/// Sets the calling thread's name in the operating system, truncated to the length that it allows.
void PublishThreadName(const char* name);

} // namespace Krt::Thread
