// WatchedBackend: a backend whose operations end the run in time: when the user interrupts the program, when
// the repository's lock is lost, and when a pack is to be read and its server can't be reached. An error for
// lack of space names the command that makes space. Operations on lock files do not end the run, since the
// lock itself is removed at the end.
#pragma once

#include "agent/Http/SendGuard.h"
#include "agent/Repository/Backend.h"
#include "agent/Repository/Failure.h"

#include <atomic>
#include <memory>
#include <stdexcept>

namespace Agent {

/// The repository's lock was lost, so other processes may remove its files. It is not a YError, so that it is
/// not handled as the failure of one file.
class LockLost : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// The server of the repository can't be reached any more, and each further request would take its time to
/// fail as well. It is not a YError, so that it is not handled as the failure of one file.
class ServerLost : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

/// Returns true if there is no space for a file.
bool IsFull(const Krt::Exception::YError& error);

class WatchedBackend : public Repo::IBackend
{
public:
    explicit WatchedBackend(std::shared_ptr<Repo::IBackend> backend) : m_backend(std::move(backend)) {}

    /// From now on operations raise LockLost. Any thread.
    void ReportLostLock() { m_isLockLost = true; }
    /// Sets what is called before and after a file is written or removed. `guard` raises LockLost if that
    /// must not be. While `hasExpired` returns true, no request is sent to a server that would change a file
    /// other than a lock or the configuration, and `guard` is called before it is sent again. No other thread
    /// uses the backend meanwhile.
    void SetWriteGuard(
        std::function<void()> guard, std::function<bool()> hasExpired = [] { return false; });

    Krt::YString Describe() const override { return m_backend->Describe(); }
    void Prepare() override { m_backend->Prepare(); }
    /// Raises ServerLost in place of Failure::Unreachable.
    void Load(const Repo::FileName& file, std::uint64_t offset, std::uint64_t length,
              Repo::Bytes& out) override;
    void LoadWhole(const Repo::FileName& file, std::uint64_t limit, Repo::Bytes& out) override;
    std::uint64_t Size(const Repo::FileName& file) override { return m_backend->Size(file); }
    void List(Repo::FileKind kind,
              const std::function<void(const Repo::Id& id, std::uint64_t size)>& visit) override;
    void RequirePlace(Repo::FileKind kind) override { m_backend->RequirePlace(kind); }
    void RequireComplete(Repo::FileKind kind) override { m_backend->RequireComplete(kind); }
    void Save(const Repo::FileName& file, Repo::ByteView content) override;
    bool SaveNew(const Repo::FileName& file, Repo::ByteView content) override;
    void Remove(const Repo::FileName& file) override;

private:
    void Look() const;
    void LookBeforeChange(const Repo::FileName& file) const;
    const Http::SendRule* RuleFor(const Repo::FileName& file) const;
    void RequireLockAfter(const Repo::FileName& file, const char* change) const;

    std::shared_ptr<Repo::IBackend> m_backend;
    std::function<void()> m_writeGuard;
    Http::SendRule m_sendRule; // if there is a guard
    std::atomic<bool> m_isLockLost{false};
};

} // namespace Agent
