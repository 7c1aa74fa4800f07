#include "agent/Access/StaleLocks.h"

#include "agent/Access/Unix/Process.h"

#include "Krt/Environment/Host.h"

namespace Agent {

using Repo::FileKind;
using Repo::FileName;
using Repo::Id;
using Repo::Lock;

bool IsStale(const Lock& lock)
{
    constexpr std::int64_t LongestAge = 30 * 60; // seconds
    const std::int64_t age = Repo::Timestamp::Now().seconds - lock.time.seconds;
    return age > LongestAge ||
           (lock.hostname == Krt::Environment::GetHostName().Bytes() && !DoesProcessExist(lock.pid));
}

std::size_t RemoveStaleLocks(const Repo::Repository& repository, const Repo::FailureVisitor& onFailure)
{
    std::size_t count = 0;
    for (const Id& id : repository.ListIds(FileKind::Lock)) {
        const FileName file{FileKind::Lock, id};
        try {
            if (!IsStale(Lock::Parse(repository.LoadText(file))))
                continue;
        } catch (const Repo::RepositoryError& error) {
            // A process that ends removes its own.
            if (error.GetFailure() != Repo::Failure::Missing)
                onFailure(file, error);
            continue;
        }
        repository.GetBackend().Remove(file);
        ++count;
    }
    return count;
}

std::size_t RemoveAllLocks(const Repo::Repository& repository)
{
    const std::vector<Id> ids = repository.ListIds(FileKind::Lock);
    for (const Id& id : ids)
        repository.GetBackend().Remove({FileKind::Lock, id});
    return ids.size();
}

} // namespace Agent
