#pragma once

/// @file
/// The process's random generator, for names and choices that may be predictable. Secrets come from
/// Backup::OpenSSL::RandomBytes.

#include "Krt/Export.h"

#include <mutex>
#include <random>

namespace Krt::Util {

/// Returns the lock that a caller holds while it uses the generator.
[[nodiscard]] KRT_API std::unique_lock<std::mutex> LockRandomGenerator();
/// The process's generator. The first call seeds it from the operating system and raises its error. The
/// caller holds the lock. A forked child continues with the same numbers as its parent.
KRT_API std::mt19937_64& GetRandomGenerator();

} // namespace Krt::Util
