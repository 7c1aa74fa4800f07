// SnapshotRestore: restores a snapshot of a repository below a target.
//
// The trees are walked depth first, and the entries come in batches of bounded size. A batch goes through
// these states:
//   1 collected: its entries are known, and which parts of existing files are what the snapshot has
//   2 loading: threads load the blobs that it lacks, each once, while the next batch is collected
//   3 written: its entries are created, in the order of the walk
// A file whose content is larger than a batch is written alone, after all entries before it. Its blobs come
// in windows, of which one is loaded while the one before is written. Invariants:
//   - at most one batch is in each state, so the memory is that of three batches
//   - an entry is created only after the directories above it, and a hard link only after its first name
//   - a file appears under its name only if all its blobs were verified
// A blob that can't be loaded fails the files that need it, and a tree the entries below its directory.
#pragma once

#include "agent/Access/LinkKey.h"
#include "agent/Access/TreeWalk.h"
#include "agent/Restore/BlobLoader.h"
#include "agent/Restore/EntryMaker.h"
#include "agent/Restore/Patterns.h"
#include "agent/Restore/TargetCleaner.h"

#include <chrono>
#include <memory>
#include <set>
#include <unordered_set>

namespace Agent {

/// What happens to a file that exists in the target.
enum class Overwrite
{
    Always,    ///< it gets the content of the snapshot; parts that are equal are not loaded
    IfChanged, ///< as above, but with equal size and modification time the content counts as equal
    IfNewer,   ///< it is kept, unless the snapshot's modification time is later
    Never      ///< it is kept
};

struct RestoreSettings
{
    Overwrite overwrite = Overwrite::Always;
    bool deletes = false;   ///< entries that the snapshot does not have are removed
    bool isDryRun = false;  ///< nothing is changed
    bool verifies = false;  ///< restored files are read again
    bool isVerbose = false; ///< each entry is printed
    bool isJson = false;
    bool isQuiet = false;
    Patterns includes;
    Patterns excludes;
    Patterns attributes;            ///< names of the extended attributes that are restored; all if empty
    Patterns excludedAttributes;    ///< names of those that are not
    std::vector<std::string> paths; ///< of entries to be restored, with all below them; all if empty
};

class SnapshotRestore
{
public:
    /// Repository and report outlive the run. The index is loaded. `target` is open; without one, as if it
    /// were empty, only a dry run is possible.
    SnapshotRestore(const Repo::Repository& repository, std::optional<Krt::File::YDirectory> target,
                    RestoreSettings settings, Report& report);
    ~SnapshotRestore();
    SnapshotRestore(const SnapshotRestore&) = delete;
    SnapshotRestore& operator=(const SnapshotRestore&) = delete;

    /// Restores what is below the tree into the target. Returns once it is durable. Raises TargetFull and
    /// LockLost, and InvalidState if the user interrupts; entries that were restored before stay.
    void Run(const Repo::Id& tree);
    /// Prints what was done.
    void PrintSummary();

private:
    struct Item;
    struct Batch;
    class Content;
    struct Totals
    {
        unsigned long long files = 0, restored = 0, skipped = 0, deleted = 0;
        unsigned long long bytes = 0, bytesRestored = 0, bytesSkipped = 0;
    };

    Selection Select(const std::string& path, bool isDirectory) const;
    Step Visit(const std::string& path, Repo::Node& node);
    std::unique_ptr<Item> ItemOf(const std::string& path, Repo::Node& node);
    void NoteWindows(const Repo::Node& node);
    void ChooseAttributes(Krt::File::ExtendedAttributeMap& attributes) const;
    void PlanFile(Item& item, Repo::Node& node);
    void PlanExisting(Item& item);
    void CompareContent(Item& item, const Krt::File::YDirectory& parent);
    const Krt::File::YDirectory* Root() const;
    const Krt::File::YDirectory* ExistingParent(const TargetLocation& location);
    std::optional<std::unordered_set<std::string>> NamesOfTree(const Repo::Id& tree) const;

    void Add(std::unique_ptr<Item> item);
    void Turn();
    void Drain();
    void Write(Item& item, Content& content);
    const Krt::File::YDirectory* ParentOf(const Item& item);
    void MakeRoom(const Item& item);
    void WriteDirectory(Item& item);
    void WriteOther(Item& item, Content& content);
    bool KeepUnchanged(Item& item);
    bool KeepFile(const Item& item, const Krt::Util::YUnxHandle& file);
    void NoteLink(const Item& item, const Krt::File::FileId& file);
    void CountLink(const Item& item);
    void NoteUnverified(const std::string& path);
    void CleanDirectory(const TargetLocation& location, const std::string& path,
                        const std::unordered_set<std::string>& kept);
    void Done(const Item& item);
    void Print(const char* action, const std::string& path, std::optional<unsigned long long> size);
    void PrintStatus();
    std::string TotalsJson(const char* type) const;
    void Verify(const Repo::Id& tree);
    void VerifyFile(const std::string& path, const Repo::Node& node);

    const Repo::Repository& m_repository;
    const RestoreSettings m_settings;
    Report& m_report;
    std::unique_ptr<EntryMaker> m_maker;              // null in a dry run
    std::optional<Krt::File::YDirectory> m_dryTarget; // of a dry run
    TargetCleaner m_cleaner;
    BlobLoader m_loader;

    std::vector<std::unique_ptr<Item>> m_pending; // directories that are restored if an entry below is
    std::unique_ptr<Batch> m_collected;
    std::unique_ptr<Batch> m_loading;
    TargetLocation m_existingLocation; // of m_existingParent, which is empty if that does not exist
    std::optional<Krt::File::YDirectory> m_existingParent;
    bool m_isExistingParentKnown = false;

    std::map<LinkKey, std::uint64_t> m_planned;   // names that exist of files whose content was planned
    std::map<LinkKey, LinkedFile> m_linked;       // files of which names are still to come
    std::unordered_set<std::string> m_unverified; // paths of files that were kept or failed
    std::string m_failedDirectory;                // with a slash; nothing below the directory is restored
    std::set<std::string> m_noted;
    bool m_isOwnerNoted = false;
    Totals m_totals;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_shown;
};

} // namespace Agent
