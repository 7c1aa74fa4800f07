#include "agent/Store/StoreSession.h"

#include "agent/Store/Durable.h"
#include "agent/Store/Hex.h"
#include "agent/Store/RunLock.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YUnxHandle.h"

#include <string>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;
using Krt::Util::YUnxHandle;

namespace {

// A batch of objects waits for the disk once. It is large enough for that to cost little, and small enough
// for the names that are kept.
constexpr std::size_t BatchObjects = 16384;
constexpr unsigned long long BatchBytes = 1ull << 30;

constexpr const char* LockEnding = ".lock";

// The run that a temporary file belongs to.
YString RunOf(const YString& name)
{
    return YString(name.Bytes().substr(0, name.Bytes().find('.')).c_str());
}

void RemoveQuietly(const YDirectory& directory, const YString& name) noexcept
{
    try {
        directory.RemoveFile(name);
    } catch (...) {
        // What is left here harms nobody, and a later run tries again. There may be no memory to tell.
    }
}

} // namespace

StoreSession::StoreSession(const Store& store) : m_store(store)
{
    while (m_lock.IsEmpty()) {
        m_run = YString(RandomHex(8).c_str());
        m_lockName = m_run + LockEnding;
        m_lock = CreateRunLock(m_store.GetTemporaries(), m_lockName);
    }
    try {
        RemoveAbandoned();
    } catch (...) {
        RemoveQuietly(m_store.GetTemporaries(), m_lockName);
        throw;
    }
}

StoreSession::~StoreSession()
{
    for (const auto& [address, name] : m_pending)
        RemoveQuietly(m_store.GetTemporaries(), name);
    // Last: as long as the lock stands, nobody else clears up behind this run.
    RemoveQuietly(m_store.GetTemporaries(), m_lockName);
}

// A run makes its lock before its files and removes it behind them. So a file without a lock is abandoned
// too.
void StoreSession::RemoveAbandoned() const
{
    const YDirectory& directory = m_store.GetTemporaries();
    std::map<YString, std::pair<RunState, YUnxHandle>> runs;
    directory.VisitEntries([&](const Krt::File::DirectoryEntry& entry) {
        const YString run = RunOf(entry.name);
        if (run == m_run)
            return true;
        const auto [found, isNew] = runs.try_emplace(run);
        auto& [state, lock] = found->second;
        if (isNew)
            state = TakeRunLock(directory, run + LockEnding, lock);
        if (state != RunState::Alive && entry.name != run + LockEnding)
            RemoveQuietly(directory, entry.name);
        return true;
    });
    for (const auto& [run, found] : runs) {
        if (found.first == RunState::Abandoned)
            RemoveQuietly(directory, run + LockEnding);
    }
}

StoreSession::Temporary StoreSession::CreateTemporary()
{
    const YString name((m_run.Bytes() + "." + std::to_string(m_created++)).c_str());
    return {name, m_store.GetTemporaries().CreateFile(name)};
}

void StoreSession::Remove(const Temporary& file) noexcept
{
    RemoveQuietly(m_store.GetTemporaries(), file.name);
}

bool StoreSession::Has(const Address& address) const
{
    return m_pending.count(address) != 0 || m_store.GetObjects().Has(address);
}

void StoreSession::AddObject(const Address& address, Temporary& file, unsigned long long size)
{
    Krt::Util::CloseWritten(file.handle);
    m_pending.emplace(address, file.name);
    m_pendingBytes += size;
    m_storedBytes += size;
    if (m_pending.size() >= BatchObjects || m_pendingBytes >= BatchBytes)
        PlaceObjects();
}

void StoreSession::PlaceObjects()
{
    if (m_pending.empty())
        return;
    Sync();
    m_store.GetObjects().Place(m_store.GetTemporaries(), m_pending);
    m_pending.clear();
    m_pendingBytes = 0;
}

void StoreSession::PlaceSnapshot(Temporary& file, const YString& id)
{
    Krt::Util::CloseWritten(file.handle);
    PlaceObjects();
    // Brings the snapshot's data to disk, and the names of its objects: those of this session, and those that
    // it found here, which another session may have placed a moment ago.
    Sync();
    const YDirectory& snapshots = m_store.GetSnapshots();
    struct stat status;
    KRT_RAISE_UNLESS(!snapshots.StatIfPresent(id, status), Krt::ErrorCode::InvalidState,
                     "There is a snapshot " << id << " already");
    m_store.GetTemporaries().Rename(file.name, snapshots, id);
    Krt::File::Sync(snapshots.GetHandle());
}

void StoreSession::Sync() const
{
    SyncFileSystem(m_store.GetDirectory().GetHandle());
}

} // namespace Agent
