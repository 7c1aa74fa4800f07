// The process's random generator, for names and picks that nobody has to be kept from guessing. Secrets come
// from Backup::OpenSSL::RandomBytes.
#pragma once

#include "Krt/Export.h"

#include <mutex>
#include <random>

namespace Krt::Util {

/// Held for as long as the generator is used.
[[nodiscard]] KRT_API std::unique_lock<std::mutex> LockRandomGenerator();
/// The one generator, seeded by the operating system at the first call, which raises its error if it can't.
/// The caller holds the lock. A forked child goes on with the same numbers as its parent.
KRT_API std::mt19937_64& GetRandomGenerator();

} // namespace Krt::Util
