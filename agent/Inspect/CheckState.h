// CheckState: what the parts of a check share: the positions of blobs, those that are bad, and errors to be
// passed to the observer. Any thread may report and ask.
#pragma once

#include "agent/Repository/BlobsByPack.h"
#include "agent/Repository/Node.h"
#include "agent/Repository/Repository.h"

#include "Krt/Thread/ThreadSafety.h"

#include <atomic>
#include <string>
#include <unordered_set>
#include <vector>

namespace Agent {

/// Returns true if the user may not read a file, which does not mean that it is damaged.
bool IsDenied(const Repo::RepositoryError& error);
/// Returns true if the disk can't read a file, which may succeed later or from a copy.
bool IsReadError(const Repo::RepositoryError& error);
/// Returns true if a file can't be read for another reason that is not in it, such as the server.
bool IsUnavailable(const Repo::RepositoryError& error);

class CheckState
{
public:
    /// The index is loaded.
    explicit CheckState(const Repo::Repository& repository);

    const Repo::Repository& GetRepository() const { return m_repository; }
    const Repo::Index& GetIndex() const { return m_repository.GetIndex(); }

    /// The numbers of a pack's blobs in the index, in no particular order.
    std::span<const std::uint32_t> BlobsOf(std::uint32_t pack) const { return m_blobs.Of(pack); }

    /// A copy of a blob can't be read.
    void MarkBad(std::uint32_t number);
    /// A pack is damaged or missing.
    void MarkBroken(std::uint32_t pack);
    /// The disk can't read a part of a pack.
    void MarkUnreadable(std::uint32_t pack);
    /// A tree can't be read, or has faulty entries.
    void MarkFaulty(const Repo::Id& tree);
    /// Returns true if there is a copy of the blob that is not known to be bad.
    bool IsReadable(const Repo::BlobHandle& handle) const;
    bool IsFaulty(const Repo::Id& tree) const;
    /// Returns true if an entry of a snapshot may be touched by what was found.
    bool HasDamage() const;
    std::vector<Repo::Id> GetBrokenPacks() const;
    std::vector<Repo::Id> GetUnreadablePacks() const;

    /// Why the entry can't be restored as it was; empty if it can.
    std::string FaultOf(const Repo::Node& node) const;

    /// Adds an error for the observer, or one text for several.
    void AddError(std::string text, std::uint64_t count = 1);
    /// Adds an error for a tree whose blob is missing or damaged. After a hundred of them the others are only
    /// counted.
    void AddConsequence(std::string text);
    /// Adds a hint on a tree. After a hundred of them the others are only counted.
    void AddHint(std::string text);
    /// Removes and returns the hints that were added since the last call.
    std::vector<std::string> TakeHints();
    /// Returns how many hints AddHint only counted.
    std::uint64_t GetFurtherHints() const;
    /// Returns how many errors AddConsequence only counted.
    std::uint64_t GetFurther() const;
    /// The index lacks a blob that a snapshot needs.
    void MarkLacking() { m_lacksBlobs = true; }
    bool LacksBlobs() const { return m_lacksBlobs; }
    /// The entries of a directory can't be read.
    void MarkLostDirectory() { m_losesDirectories = true; }
    bool LosesDirectories() const { return m_losesDirectories; }
    /// Records an error whose reason is not in the file, as IsOfLocation says. Does nothing for others.
    void NoteUnread(const Repo::RepositoryError& error);
    /// Returns true if the user may not read a file.
    bool IsDenied() const { return m_isDenied; }
    /// Returns true if a file could not be read for another reason that is not in it.
    bool IsUnavailable() const { return m_isUnavailable; }
    /// Removes and returns the errors that were added since the last call.
    std::vector<std::string> TakeErrors();
    /// Returns how many errors were added without a text of their own since the last call.
    std::uint64_t TakeUnlisted();

    std::atomic<std::uint64_t> items{0}; ///< done in the current part
    const char* unit = "";               ///< of the current part: what items are
    std::uint64_t totalItems = 0;        ///< of the current part; 0 if not known
    std::uint64_t totalBytes = 0;
    std::atomic<std::uint64_t> bytes{0}; ///< read in the current part

private:
    std::vector<Repo::Id> SortedIds(const std::unordered_set<std::uint32_t>& packs) const;

    const Repo::Repository& m_repository;
    const Repo::BlobsByPack m_blobs;
    mutable Krt::Thread::AnnotatedMutex m_mutex;
    std::vector<bool> m_isBad KRT_GUARDED_BY(m_mutex); // by the number of the blob
    std::unordered_set<Repo::Id, Repo::IdHash> m_faulty KRT_GUARDED_BY(m_mutex);
    std::unordered_set<std::uint32_t> m_broken KRT_GUARDED_BY(m_mutex);
    std::unordered_set<std::uint32_t> m_unreadable KRT_GUARDED_BY(m_mutex);
    bool m_hasDamage KRT_GUARDED_BY(m_mutex) = false;
    std::vector<std::string> m_errors KRT_GUARDED_BY(m_mutex);
    std::uint64_t m_unlisted KRT_GUARDED_BY(m_mutex) = 0;
    std::uint64_t m_consequences KRT_GUARDED_BY(m_mutex) = 0;
    std::vector<std::string> m_hints KRT_GUARDED_BY(m_mutex);
    std::uint64_t m_hintCount KRT_GUARDED_BY(m_mutex) = 0;
    std::atomic<bool> m_lacksBlobs{false};
    std::atomic<bool> m_losesDirectories{false};
    std::atomic<bool> m_isDenied{false};
    std::atomic<bool> m_isUnavailable{false};
};

} // namespace Agent
