// TreeFilter: makes the trees of a snapshot without some of its entries.
#pragma once

#include "agent/Repository/Repository.h"
#include "agent/Walk/Patterns.h"

#include <functional>
#include <string>
#include <string_view>

namespace Agent {

class TreeFilter
{
public:
    /// Called for a tree that the snapshot did not have, after those that it refers to.
    using TreeSaver = std::function<void(std::string_view text)>;
    /// Called for an entry that is left out, for a directory without what is below it.
    using ExcludedVisitor = std::function<void(const std::string& path)>;

    /// The repository and the patterns outlive this object. `onStep` is called for each entry.
    TreeFilter(
        const Repo::Repository& repository, const Patterns& excludes, std::function<void()> onStep = [] {})
        : m_repository(repository), m_excludes(excludes), m_onStep(std::move(onStep))
    {}

    /// Returns the root tree without the entries that match: the given one if none does. The index is loaded.
    /// Of the trees on the path to an entry the texts are in memory; while one is replaced, also its text as
    /// it was and as it becomes. If the patterns are of single names, a tree that has no match is visited
    /// once, which takes about 100 bytes for each. Raises
    ///   - what loading a tree raises
    ///   - NotSupported for a tree that would lose something, as it was written in another form
    ///   - Damaged for a directory without a tree, and for one too many levels deep
    ///   - what the calls raise
    Repo::Id Apply(const Repo::Id& root, const TreeSaver& save, const ExcludedVisitor& onExcluded);

    /// The entries of any kind that the last call of Apply retained.
    std::uint64_t GetEntries() const { return m_entries; }
    /// The regular files that the last call of Apply retained.
    std::uint64_t GetFiles() const { return m_files; }
    /// The sum of their sizes in bytes.
    std::uint64_t GetBytes() const { return m_bytes; }

private:
    const Repo::Repository& m_repository;
    const Patterns& m_excludes;
    std::function<void()> m_onStep;
    std::uint64_t m_entries = 0;
    std::uint64_t m_files = 0;
    std::uint64_t m_bytes = 0;
};

} // namespace Agent
