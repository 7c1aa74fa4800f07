// DirectoryBuild: a directory whose tree is being made. Its entries are added in any order by any thread, as
// they are completed. The tree is stored when the directory is closed and all of its entries are complete,
// and the directory is then added to the one above.
//
//   open -> closed by the walk -> complete, when no entry is pending -> added to the directory above
#pragma once

#include "agent/Backup/ContentPool.h"
#include "agent/Backup/ParentTree.h"
#include "agent/Repository/Node.h"

#include "Krt/Thread/ThreadSafety.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

/// What became of a file or directory since the parent snapshot.
enum class Change
{
    New,
    Modified,
    Unchanged
};

/// A file or directory that was stored.
struct StoredItem
{
    std::string path; ///< that of a directory ends with a slash
    Change change = Change::New;
    double seconds = 0;           ///< how long it took
    std::uint64_t dataAdded = 0;  ///< bytes of new data blobs
    std::uint64_t dataPacked = 0; ///< bytes that packs grew by for them
    std::uint64_t treeAdded = 0;  ///< bytes of the tree blob, if it is new
    std::uint64_t treePacked = 0; ///< bytes that a pack grew by for it
};

/// Counts files or directories by what became of them. Any thread.
struct ChangeCounts
{
    void Add(Change change)
    {
        ++(change == Change::New ? isNew : change == Change::Modified ? isChanged : isUnmodified);
    }

    std::atomic<std::uint64_t> isNew{0};
    std::atomic<std::uint64_t> isChanged{0};
    std::atomic<std::uint64_t> isUnmodified{0};

    std::uint64_t Total() const { return isNew + isChanged + isUnmodified; }
};

/// Compares the JSON texts of two nodes. That of the parent snapshot is "" if the entry is new.
Change ChangeSince(const std::string& before, const std::string& after);
/// The time since `begin`.
double SecondsSince(std::chrono::steady_clock::time_point begin);

/// What all directories of a run share. It outlives them.
struct BuildContext
{
    /// Stores a tree. `sound` is one that this run has read from the repository, if any. Otherwise as
    /// BlobStore.
    std::function<StoredBlob(Repo::ByteView text, const std::optional<Repo::Id>& sound)> store;
    /// As `store`, for a tree that this run has read from the repository.
    std::function<StoredBlob(const Repo::Id& tree, Repo::ByteView text)> keep;
    std::function<void(const std::string& path, const std::string& reason)> onFailed; ///< any thread
    std::function<void(StoredItem item)> onStored; ///< any thread; null if no entry is reported
    ChangeCounts directories;
};

class DirectoryBuild
{
public:
    /// `above` is null for the root of the snapshot, which has no node and no name.
    DirectoryBuild(BuildContext& context, std::shared_ptr<DirectoryBuild> above, std::string name);

    /// The path in the snapshot, as in "/a/b"; empty for the root.
    std::string GetPath() const;
    const std::shared_ptr<DirectoryBuild>& GetAbove() const { return m_above; }
    /// The directory's own node without its tree, and that of the parent snapshot as JSON text, or "".
    void SetNode(Repo::Node node, std::string before);
    /// The tree that the directory has in the parent snapshot. Called by the walk, before any entry.
    void SetTreeBefore(LoadedTree tree);
    /// The directory is stored only if it has an entry. Otherwise it is stored in any case.
    void SetNeedsEntries() { m_needsEntries = true; }
    /// Called by the walk. Number of entries that were added, or will be.
    bool HasEntries() const { return m_hasEntries; }

    /// Announces an entry. A call of Add or Drop follows for each.
    void Announce();
    /// Adds an announced entry. Any thread. `directory` is kept alive by the caller.
    static void Add(std::shared_ptr<DirectoryBuild> directory, const Repo::Node& node);
    /// Adds an entry that was not announced, by the JSON text of its node. Called by the walk, before Close.
    void AddText(const std::string& name, std::string_view text);
    /// Gives an announced entry up. Any thread.
    static void Drop(std::shared_ptr<DirectoryBuild> directory);
    /// No further entries will be announced.
    static void Close(std::shared_ptr<DirectoryBuild> directory) { Drop(std::move(directory)); }

    /// The tree of the root, once it is complete; nothing without entries.
    std::optional<Repo::Id> GetTree() const;

private:
    struct Entry
    {
        std::string name;
        std::size_t begin; // of the node in m_text, or in the tree before
        std::size_t size;
    };

    void Put(const std::string& name, std::string_view text);
    bool IsNextOfTreeBefore(const std::string& name, std::string_view text) const;
    void CopyAlike();
    bool IsTreeBefore() const;
    bool Release();
    std::optional<std::string> Complete();
    StoredBlob StoreTree();
    std::string MakeTree();

    BuildContext& m_context;
    const std::shared_ptr<DirectoryBuild> m_above;
    const std::string m_name;
    const std::chrono::steady_clock::time_point m_begin = std::chrono::steady_clock::now();
    Repo::Node m_node;
    std::string m_before;
    std::optional<Repo::Id> m_treeBefore;
    std::atomic<bool> m_needsEntries{false};
    std::atomic<bool> m_hasEntries{false};

    mutable Krt::Thread::AnnotatedMutex m_mutex;
    std::size_t m_pending KRT_GUARDED_BY(m_mutex) = 1; // entries that were announced, and the walk
    std::optional<Repo::Id> m_tree KRT_GUARDED_BY(m_mutex);
    // Guarded by the mutex until nothing is pending; then only the thread that completes the directory uses
    // them.
    std::string m_text; // the nodes that were added; empty while they are those of the tree before
    std::vector<Entry> m_entries;
    std::shared_ptr<const Repo::Bytes> m_textBefore; // of the tree before; null once a node differs
    std::size_t m_alike = 0;                         // bytes of it that the nodes make so far
};

} // namespace Agent
