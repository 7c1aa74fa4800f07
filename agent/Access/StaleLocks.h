// Locks whose processes have died. They are removed when the user asks for it.
#pragma once

#include "agent/Repository/Lock.h"
#include "agent/Repository/Repository.h"

namespace Agent {

/// Returns true if the lock was not refreshed for 30 minutes, or if its process ran on this host and has
/// died.
bool IsStale(const Repo::Lock& lock);

/// Removes the locks that are stale, and returns their number. A lock that can't be read is given to
/// `onFailure` and not removed.
std::size_t RemoveStaleLocks(const Repo::Repository& repository, const Repo::FailureVisitor& onFailure);
/// Removes all locks, and returns their number. A process that uses the repository is not asked.
std::size_t RemoveAllLocks(const Repo::Repository& repository);

} // namespace Agent
