// BlobSaver: saves blobs in packs, and the packs in index files, of a repository whose index is loaded.
//
// Any number of threads call Save. Each compresses and seals its blob, and copies it to the open pack of the
// blob's type. A full pack is queued for the threads of the saver, which write it, note it for the next index
// file, and write that when it is full. So a slow disk stops the callers only when all packs are full.
//
//   a blob:  known (in the repository's index, or in m_known) | being sealed | in a pack
//   a pack:  free (m_free) -> open (m_open) -> full (m_full) -> being written -> noted (m_noted) -> free
//   a saver: working -> failed
//
// Invariants:
//   - A blob is added to m_known before it is sealed, so it is stored once. If sealing it fails, so has the
//     saver.
//   - A pack is noted after it is durable, with all of its blobs. An index file names no other packs.
//   - There are as many packs as m_free had at first, which bounds the memory.
//   - A failed saver writes nothing more, and each operation raises the first failure.
#pragma once

#include "agent/Repository/Pack.h"
#include "agent/Repository/Repository.h"
#include "agent/Repository/SaveOptions.h"

#include "Krt/Thread/ThreadSafety.h"

#include <boost/unordered/unordered_flat_set.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <exception>
#include <functional>
#include <mutex>
#include <string_view>
#include <thread>
#include <vector>

namespace Agent::Repo {

/// Blobs of one type that were saved and that the repository did not have before.
struct SavedBlobs
{
    std::uint64_t blobs = 0;
    std::uint64_t bytes = 0;  ///< of their plaintext
    std::uint64_t stored = 0; ///< bytes that packs grew by
};

class BlobSaver
{
public:
    /// The repository outlives the saver, and its index does not change meanwhile. Raises InvalidArgument if
    /// its format is version 1.
    BlobSaver(const Repository& repository, const SaveOptions& options);
    /// Without Finish, what is not yet written is dropped. Packs that no index file names do no harm.
    ~BlobSaver();
    BlobSaver(const BlobSaver&) = delete;
    BlobSaver& operator=(const BlobSaver&) = delete;

    /// Saves a blob unless the repository has it or another call saves it. Returns the bytes that its pack
    /// grows by; 0 if it was not new. Its id is that of the plaintext. Compresses and seals on this thread,
    /// and waits while all packs are full. The blob is durable after Finish. Raises what writing raised
    /// first, on any thread.
    std::uint64_t Save(const BlobHandle& handle, ByteView plaintext);
    /// Saves a blob that the caller has read from this repository and verified, as it is sealed. Otherwise as
    /// Save; the position in `blob` has no effect.
    std::uint64_t SaveSealed(const PackedBlob& blob, ByteView sealed);
    /// Saves a tree, also if the repository has it but can't read it. Returns its id. Otherwise as Save.
    Id SaveTree(std::string_view text);
    /// Returns true if the repository has the blob, or it was given to Save. With SaveOptions::isRepacking
    /// the former does not count. Any thread.
    bool Has(const BlobHandle& handle) const;
    /// Writes what is not written: packs, then index files. After that, all blobs that were saved are
    /// durable, and other processes find them. Raises what writing raised first. No thread calls Save
    /// meanwhile; it may be called after that.
    void Finish();

    /// What was saved so far. Any thread.
    SavedBlobs GetSaved(BlobType type) const;

private:
    bool Claim(const BlobHandle& handle);
    std::uint64_t Append(const PackedBlob& blob, ByteView sealed);
    bool WaitFor(Krt::Thread::AnnotatedLock& lock, const std::function<bool()>& isReached)
        KRT_REQUIRES(m_mutex);
    void CallOnWait();
    void WritePacks();
    void EndWriters();
    void WritePack(PackWriter& pack);
    void Fail() KRT_REQUIRES(m_mutex);
    void RaiseFailure() const;

    const Repository& m_repository;
    const SaveOptions m_options;

    mutable Krt::Thread::AnnotatedMutex m_knownMutex;
    // What was given to Save and was new.
    boost::unordered_flat_set<BlobHandle, BlobHandleHash> m_known KRT_GUARDED_BY(m_knownMutex);

    mutable Krt::Thread::AnnotatedMutex m_mutex;
    std::condition_variable m_change;
    std::vector<std::unique_ptr<PackWriter>> m_free KRT_GUARDED_BY(m_mutex);
    // By type; null until a blob comes.
    std::array<std::unique_ptr<PackWriter>, 2> m_open KRT_GUARDED_BY(m_mutex);
    std::deque<std::unique_ptr<PackWriter>> m_full KRT_GUARDED_BY(m_mutex);
    unsigned int m_writing KRT_GUARDED_BY(m_mutex) = 0; // packs and index files that threads are writing
    IndexFileWriter m_noted KRT_GUARDED_BY(m_mutex);
    std::chrono::steady_clock::time_point m_notedSince KRT_GUARDED_BY(m_mutex);
    std::array<SavedBlobs, 2> m_saved KRT_GUARDED_BY(m_mutex);
    std::exception_ptr m_failure KRT_GUARDED_BY(m_mutex);
    std::atomic<bool> m_hasFailed{false}; // m_failure is set, for readers without the mutex
    bool m_isEnding KRT_GUARDED_BY(m_mutex) = false;

    std::vector<std::thread> m_writers;
};

} // namespace Agent::Repo
