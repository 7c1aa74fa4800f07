// CacheDirectory: copies of a repository's files in a directory of this machine, which belongs to this user
// alone. The copies are as the repository has them, sealed. A process of this user
// could replace them, so the caller verifies what it loads.
//
//   DIRECTORY/CACHEDIR.TAG                       keeps backups out
//   DIRECTORY/REPOSITORY/{index,snapshots,trees}/ID
//
// No symlink is followed below the directory, nor at its path's end. Files are written under a temporary name
// and renamed. Nothing is made durable. Operations do not raise for what goes wrong in the directory, but log
// it: a cache that can't be used costs only time. Any number of threads and processes may use a directory.
#pragma once

#include "agent/Repository/Backend.h"

#include "Krt/File/YDirectory.h"

#include <array>
#include <chrono>
#include <string>
#include <vector>

namespace Agent::Remote {

class CacheDirectory
{
public:
    /// How long copies of a repository are kept that no command has used.
    static constexpr std::chrono::hours Lifetime{30 * 24};

    /// Opens the copies of a repository, or creates the directory for them with mode 0700. Removes those of
    /// repositories that were not used for Lifetime. Raises InvalidState if the directory belongs to another
    /// user, or if others can write to it; and the operating system's error if it can't be used.
    CacheDirectory(const std::string& path, const Repo::Id& repository);

    /// Returns true if files of this kind are kept: index files, snapshots, and packs that are known to have
    /// trees.
    static bool IsKept(const Repo::FileName& file);

    /// Replaces the content of `out` with the copy. Returns false, with `out` unspecified, if there is none
    /// or it has more than `limit` bytes.
    bool Load(const Repo::FileName& file, std::uint64_t limit, Repo::Bytes& out) const;
    /// Replaces the content of `out` with a part of the copy. Returns false if there is none.
    bool LoadPart(const Repo::FileName& file, std::uint64_t offset, std::uint64_t length,
                  Repo::Bytes& out) const;
    /// Stores a copy, which replaces an earlier one. Returns false if that failed.
    bool Save(const Repo::FileName& file, Repo::ByteView content) const;
    void Remove(const Repo::FileName& file) const;
    /// The ids of all copies of files of the kind, sorted.
    std::vector<Repo::Id> List(Repo::FileKind kind) const;

private:
    const Krt::File::YDirectory& FolderOf(Repo::FileKind kind) const;

    Krt::File::YDirectory m_root;
    Krt::File::YDirectory m_repository;
    std::array<Krt::File::YDirectory, 3> m_folders; // in the order of Names
};

} // namespace Agent::Remote
