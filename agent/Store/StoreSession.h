// StoreSession: one run's writing into a store. It owns the run's temporary files and moves them to their
// names once their data are on disk: objects in batches, so that the disk is waited for rarely, and a
// snapshot when all it names is in place. A session that ends otherwise leaves no snapshot, and its temporary
// files are removed by its destructor or, after a crash, by a later session. One thread at a time.
#pragma once

#include "agent/Store/Store.h"

#include "Krt/Exception/YError.h"

#include <exception>
#include <map>

namespace Agent {

/// The store can't be written, which ends a run. Not a YError, so that nobody takes it for the failure of one
/// entry.
class StoreError : public std::exception
{
public:
    explicit StoreError(const Krt::Exception::YError& cause) : m_cause(cause) {}
    const char* what() const noexcept override { return m_cause.GetMessage().CStr(); }
    const Krt::Exception::YError& GetCause() const { return m_cause; }

    /// Calls, and turns a YError into a StoreError.
    template <class Call>
    static auto Guard(Call call)
    {
        try {
            return call();
        } catch (const Krt::Exception::YError& cause) {
            throw StoreError(cause);
        }
    }

private:
    Krt::Exception::YError m_cause;
};

class StoreSession
{
public:
    /// Begins a run, and removes what runs left that are no longer alive. `store` outlives the session.
    explicit StoreSession(const Store& store);
    ~StoreSession();
    StoreSession(const StoreSession&) = delete;
    StoreSession& operator=(const StoreSession&) = delete;

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
    /// Closes the file, which is `size` bytes long and completely written, and takes it as the object. When
    /// this raises, the file is still the caller's to remove.
    void AddObject(const Address& address, Temporary& file, unsigned long long size);
    /// Puts all data of this session on disk and then moves its objects into place.
    void PlaceObjects();
    /// Closes the file, does the same, and then gives the file the snapshot's name, durably.
    void PlaceSnapshot(Temporary& file, const Krt::YString& id);

private:
    void RemoveAbandoned() const;
    void Sync() const;

    const Store& m_store;
    Krt::YString m_run;
    Krt::YString m_lockName;
    Krt::Util::YUnxHandle m_lock; // held for as long as the session lives
    unsigned long long m_created = 0;
    std::map<Address, Krt::YString> m_pending; // written objects, by the name of their temporary file
    unsigned long long m_pendingBytes = 0;
    unsigned long long m_storedBytes = 0;
};

} // namespace Agent
