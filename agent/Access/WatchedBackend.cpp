#include "agent/Access/WatchedBackend.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <cerrno>

namespace Agent {

bool IsFull(const Krt::Exception::YError& error)
{
    const int number = error.GetOsError();
    return number == ENOSPC || number == EDQUOT || number == EFBIG;
}

void WatchedBackend::SetWriteGuard(std::function<void()> guard, std::function<bool()> hasExpired)
{
    m_writeGuard = std::move(guard);
    m_sendRule = {[this, hasExpired = std::move(hasExpired)] { return !m_isLockLost && !hasExpired(); },
                  m_writeGuard};
}

void WatchedBackend::Look() const
{
    RaiseIfInterrupted();
    if (m_isLockLost)
        throw LockLost("The lock of the repository was lost, so other processes may remove its files");
}

void WatchedBackend::Load(const Repo::FileName& file, std::uint64_t offset, std::uint64_t length,
                          Repo::Bytes& out)
{
    Look();
    try {
        m_backend->Load(file, offset, length, out);
    } catch (const Repo::RepositoryError& error) {
        if (error.GetFailure() != Repo::Failure::Unreachable)
            throw;
        throw ServerLost("The server of the repository can't be reached any more: " +
                         ReasonOf(error).Bytes());
    }
}

void WatchedBackend::LoadWhole(const Repo::FileName& file, std::uint64_t limit, Repo::Bytes& out)
{
    Look();
    m_backend->LoadWhole(file, limit, out);
}

void WatchedBackend::List(Repo::FileKind kind,
                          const std::function<void(const Repo::Id& id, std::uint64_t size)>& visit)
{
    Look();
    m_backend->List(kind, [&](const Repo::Id& id, std::uint64_t size) {
        Look();
        visit(id, size);
    });
}

void WatchedBackend::Save(const Repo::FileName& file, Repo::ByteView content)
{
    LookBeforeChange(file);
    try {
        const Http::SendGuard sending(RuleFor(file));
        m_backend->Save(file, content);
    } catch (const Repo::RepositoryError& error) {
        if (file.kind == Repo::FileKind::Lock || !IsFull(error))
            throw;
        throw Repo::RepositoryError(
            error.GetFailure(), error,
            "There is no space. The next backup uses what this run has saved; 'kbagent prune "
            "--recover-no-free-space' removes it, and all else that no snapshot needs: ");
    }
    RequireLockAfter(file, "saved");
}

// A server that replaces no files is asked to remove the configuration before the new one is stored, which
// must not be left half done.
const Http::SendRule* WatchedBackend::RuleFor(const Repo::FileName& file) const
{
    const bool isGuarded = file.kind != Repo::FileKind::Lock && file.kind != Repo::FileKind::Config;
    return isGuarded && m_writeGuard ? &m_sendRule : nullptr;
}

// The store may have taken so long that the lock has expired meanwhile, and others have removed packs.
void WatchedBackend::RequireLockAfter(const Repo::FileName& file, const char* change) const
{
    if (file.kind == Repo::FileKind::Lock || !m_writeGuard)
        return;
    try {
        m_writeGuard();
    } catch (const LockLost&) {
        throw LockLost("The lock of the repository was lost while " + file.Path() + " was " + change +
                       "; 'kbagent check' finds out whether data is missing now");
    }
}

bool WatchedBackend::SaveNew(const Repo::FileName& file, Repo::ByteView content)
{
    LookBeforeChange(file);
    const Http::SendGuard sending(RuleFor(file));
    return m_backend->SaveNew(file, content);
}

void WatchedBackend::Remove(const Repo::FileName& file)
{
    LookBeforeChange(file);
    {
        const Http::SendGuard sending(RuleFor(file));
        m_backend->Remove(file);
    }
    RequireLockAfter(file, "removed");
}

void WatchedBackend::LookBeforeChange(const Repo::FileName& file) const
{
    if (file.kind == Repo::FileKind::Lock)
        return;
    Look();
    if (m_writeGuard)
        m_writeGuard();
}

} // namespace Agent
