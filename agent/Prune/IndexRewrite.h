// IndexRewrite: replaces index files, so that the index names other packs. An index file that is replaced is
// removed only after all others are durable. So at any time the index files together name each pack that
// stays. If several of them name a pack, they have the same blobs for it.
#pragma once

#include "agent/Prune/WorkObserver.h"
#include "agent/Repository/BlobsByPack.h"
#include "agent/Repository/Repository.h"

#include <functional>
#include <vector>

namespace Agent {

class IndexRewrite
{
public:
    /// Reads the index files of the repository, whose index is loaded, and finds out which packs each has.
    /// One that is damaged is replaced. Raises InvalidState if there are packs that the loaded index does not
    /// have: then another process wrote them.
    IndexRewrite(const Repo::Repository& repository, unsigned int threads);

    /// The blobs of the loaded index.
    const Repo::BlobsByPack& GetBlobs() const { return m_blobs; }

    /// Damaged index files are not replaced. Returns how many there are. Called before Choose.
    std::size_t KeepDamaged();
    /// Decides which index files are replaced: those with
    ///   - a pack that is not kept; `isKept` is by the number of the pack
    ///   - a pack that another index file has, too
    ///   - only some of the blobs that the index has of a pack
    /// If several index files have a pack, the one with the most blobs stays. With `joinsSmall`, small index
    /// files are also replaced, if any is, and if something has to be written or there are several of them.
    void Choose(const std::vector<bool>& isKept, bool joinsSmall);
    /// How many index files are replaced.
    std::size_t CountReplaced() const { return m_replaced.size(); }
    /// Which packs are named by index files that were not removed, by the number of the pack.
    std::vector<bool> FindNamed() const;

    /// Removes the index files that have no pack to be kept.
    void RemoveUseless();
    /// Saves the text of an index file.
    using SaveCall = std::function<void(const std::string& text)>;
    /// Adds a pack that the index does not have as it is, before Choose. Saves an index file when it is full.
    void Add(const Repo::Id& pack, std::span<const Repo::PackedBlob> blobs, const SaveCall& save);
    /// Saves index files with the packs that are to be kept and with those that were added.
    void Write(const SaveCall& save);
    /// Removes the index files that are replaced. With `onLeft`, those that can't be removed are given to it;
    /// otherwise the first one raises.
    void RemoveReplaced(IWorkObserver& observer, const Repo::FailureVisitor& onLeft = {});

private:
    struct File
    {
        Repo::Id id;
        std::vector<std::uint32_t> packs;
        std::size_t blobs = 0;
        bool isDamaged = false;
        bool isExact = true; // it can be read, and has each pack with all blobs that the index has of it
    };

    File ReadFile(const Repo::Id& id) const;
    void SaveIfFull(std::size_t limit, const SaveCall& save);

    const Repo::Repository& m_repository;
    const Repo::BlobsByPack m_blobs;
    std::vector<File> m_kept;
    std::vector<File> m_replaced;
    std::vector<bool> m_isWritten; // packs that are kept, and that no kept file has
    Repo::IndexFileWriter m_writer;
};

} // namespace Agent
