// StoreSession: one run's writing into a store. It owns the run's temporary files and moves them to their
// names once their data are on disk: objects in batches, so that the disk is waited for rarely, and a
// snapshot when all it names is in place. A session that ends otherwise leaves no snapshot, and its temporary
// files are removed by its destructor or, after a crash, by a later session. One thread at a time.
#pragma once

#include "agent/Store/Store.h"

#include <map>

namespace Agent {

class StoreSession
{
public:
    /// Begins a run, and removes what runs left that are no longer alive. `store` outlives the session.
    explicit StoreSession(const Store& store);
    ~StoreSession();
    StoreSession(const StoreSession&) = delete;
    StoreSession& operator=(const StoreSession&) = delete;

    const Store& GetStore() const { return m_store; }
    /// Bytes that the new objects of this session take in the store.
    unsigned long long GetStoredBytes() const { return m_storedBytes; }

    // For the writers of this folder.
    struct Temporary
    {
        Krt::YString name;
        Krt::Util::YUnxHandle handle;
    };
    Temporary CreateTemporary();
    void Remove(const Temporary& file) noexcept;
    /// Whether the content is in the store or will be when this session's objects are placed.
    bool Has(const Address& address) const;
    /// Takes the file, which is completely written, `size` bytes long and about to be closed, as the object.
    void AddObject(const Address& address, Temporary file, unsigned long long size);
    /// Puts all data of this session on disk and then moves its objects into place.
    void PlaceObjects();
    /// Does the same, and then gives the file the snapshot's name, durably.
    void PlaceSnapshot(Temporary file, const Krt::YString& id);

private:
    void RemoveAbandoned() const;
    void Sync() const;

    const Store& m_store;
    Krt::YString m_run;
    Krt::Util::YUnxHandle m_lock; // held for as long as the session lives
    unsigned int m_created = 0;
    std::map<Address, Krt::YString> m_pending; // written objects, by the name of their temporary file
    unsigned long long m_pendingBytes = 0;
    unsigned long long m_storedBytes = 0;
};

} // namespace Agent
