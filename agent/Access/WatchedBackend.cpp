#include "agent/Access/WatchedBackend.h"

#include "agent/Run/Interrupt.h"

namespace Agent {

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
    m_backend->Load(file, offset, length, out);
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
    m_backend->List(kind, visit);
}

} // namespace Agent
