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

void WatchedBackend::Save(const Repo::FileName& file, Repo::ByteView content)
{
    LookBeforeChange(file);
    m_backend->Save(file, content);
}

bool WatchedBackend::SaveNew(const Repo::FileName& file, Repo::ByteView content)
{
    LookBeforeChange(file);
    return m_backend->SaveNew(file, content);
}

void WatchedBackend::Remove(const Repo::FileName& file)
{
    LookBeforeChange(file);
    m_backend->Remove(file);
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
