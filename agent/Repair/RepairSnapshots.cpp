#include "agent/Repair/RepairSnapshots.h"

#include "agent/Access/SnapshotChoice.h"
#include "agent/Repair/TreeRepair.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <algorithm>
#include <utility>

namespace Agent {

using Repo::FileKind;
using Repo::Id;
using Repo::StoredSnapshot;

namespace {

class SnapshotRepair
{
public:
    SnapshotRepair(const Repo::Repository& repository, const RepairOptions& options, IWorkObserver& observer)
        : m_repository(repository), m_options(options), m_observer(observer),
          m_saver(repository, SavingOptions()),
          m_trees(
              repository, options.isDryRun ? nullptr : &m_saver,
              [this](const std::string& path, const std::string& change) {
                  m_outcome.losesDirectories |=
                      change == TreeRepair::Emptied || change.starts_with(TreeRepair::CutOff);
                  m_observer.OnNote("  \"" + path + "\": " + change);
              },
              [this](std::uint64_t trees) { m_observer.OnProgress(trees, 0, "trees"); })
    {}

    RepairOutcome Run(const std::vector<StoredSnapshot>& snapshots)
    {
        for (const StoredSnapshot& stored : snapshots) {
            m_observer.OnStage(DescribeSnapshot(stored));
            std::optional<TreeRepair::Result> tree;
            try {
                tree = m_trees.Repair(stored.snapshot.tree);
            } catch (const Repo::RepositoryError& error) {
                if (error.GetFailure() != Repo::Failure::Damaged)
                    throw;
                m_outcome.failed.push_back({stored.id, ReasonOf(error).Bytes()}); // it is too deep
                continue;
            }
            Repair(stored, tree);
        }
        return std::move(m_outcome);
    }

private:
    // `tree` is what replaces the root; nothing if that is lost.
    void Repair(const StoredSnapshot& stored, const std::optional<TreeRepair::Result>& tree)
    {
        if (tree && tree->id == stored.snapshot.tree)
            return;
        m_outcome.losesDirectories |= !tree;
        if (!tree && !m_options.removesOld) {
            m_outcome.failed.push_back({stored.id, "its root is lost; --forget removes the snapshot"});
            return;
        }
        if (tree)
            Replace(stored, *tree);
        else
            m_observer.OnNote("  its root is lost");
        const bool isRemoved = m_options.removesOld && Remove(stored, tree ? "old" : "lost");
        m_outcome.changed += tree || isRemoved ? 1 : 0;
    }
    static Repo::SaveOptions SavingOptions()
    {
        Repo::SaveOptions saving;
        saving.onWait = RaiseIfInterrupted;
        return saving;
    }

    void Replace(const StoredSnapshot& stored, const TreeRepair::Result& tree)
    {
        if (m_options.isDryRun) {
            m_observer.OnStage("would save new snapshot");
            return;
        }
        m_saver.Finish();
        Repo::Snapshot snapshot = stored.snapshot;
        snapshot.tree = tree.id;
        snapshot.original = stored.id;
        if (snapshot.summary) {
            snapshot.summary->totalFilesProcessed = tree.files;
            snapshot.summary->totalBytesProcessed = tree.bytes;
        }
        const Id id = m_repository.SaveText(FileKind::Snapshot, snapshot.ToJson());
        m_observer.OnStage("saved new snapshot " + ShortId(id));
    }

    // Returns false if the snapshot can't be removed.
    bool Remove(const StoredSnapshot& stored, const char* kind)
    {
        const std::string what = std::string(kind) + " snapshot " + ShortId(stored.id);
        if (m_options.isDryRun) {
            m_observer.OnStage("would remove " + what);
            return true;
        }
        const auto fail = [&](const Repo::FileName&, const Repo::RepositoryError& error) {
            m_outcome.failed.push_back(
                {stored.id, "it can't be removed, so it remains: " + std::string(ReasonOf(error).Bytes())});
        };
        if (!m_repository.RemoveFile({FileKind::Snapshot, stored.id}, fail))
            return false;
        m_observer.OnStage("removed " + what);
        return true;
    }

    const Repo::Repository& m_repository;
    const RepairOptions& m_options;
    IWorkObserver& m_observer;
    Repo::BlobSaver m_saver;
    TreeRepair m_trees;
    RepairOutcome m_outcome;
};

struct PackFile
{
    Id id;
    std::uint64_t size;
};

// Returns true if a rebuilt index would have the pack.
bool HasReadableHeader(const Repo::Repository& repository, const PackFile& pack)
{
    RaiseIfInterrupted();
    try {
        repository.LoadPackHeader(pack.id, pack.size);
        return true;
    } catch (const Repo::RepositoryError& error) {
        if (!error.IsOfFile())
            throw;
        return false;
    }
}

struct Silent : IWorkObserver
{
    void OnStage(const std::string&) override {}
    void OnNote(const std::string&) override {}
    void OnProgress(std::uint64_t, std::uint64_t, const char*) override {}
};

} // namespace

std::string FindMisfit(const Repo::Repository& repository, const std::vector<StoredSnapshot>& snapshots,
                       const RepairOptions& options)
{
    const Repo::Index& index = repository.GetIndex();
    const auto& packs = index.GetPacks();
    std::vector<bool> fits(packs.size());
    std::vector<PackFile> unindexed;
    repository.GetBackend().List(FileKind::Pack, [&](const Id& id, std::uint64_t size) {
        if (const auto number = index.FindPack(id))
            fits[*number] = size == packs[*number].size;
        else
            unindexed.push_back({id, size});
    });
    const std::string advice = "; 'kbagent repair index' comes first, then what 'kbagent check' advises";
    if (const auto wrong = std::find(fits.begin(), fits.end(), false); wrong != fits.end()) {
        const Id& id = packs[static_cast<std::size_t>(wrong - fits.begin())].id;
        return "The index does not fit the packs: " + Repo::FileName{FileKind::Pack, id}.Path() +
               " is missing or has another size" + advice;
    }
    if (unindexed.empty())
        return "";
    RepairOptions dry = options;
    dry.isDryRun = true;
    Silent silent;
    if (RepairSnapshots(repository, snapshots, dry, silent).changed == 0)
        return "";
    const auto readable = std::find_if(unindexed.begin(), unindexed.end(), [&](const PackFile& pack) {
        return HasReadableHeader(repository, pack);
    });
    const PackFile& pack = readable == unindexed.end() ? unindexed.front() : *readable;
    return "The index does not fit the packs: " + Repo::FileName{FileKind::Pack, pack.id}.Path() +
           " is in no index file, and may have what is missing" +
           (readable != unindexed.end()
                ? advice
                : "; its header can't be read, so 'kbagent repair index' does not help; if there is no older "
                  "copy of the directory 'index', move the pack elsewhere, and repeat the command");
}

RepairOutcome RepairSnapshots(const Repo::Repository& repository,
                              const std::vector<StoredSnapshot>& snapshots, const RepairOptions& options,
                              IWorkObserver& observer)
{
    return SnapshotRepair(repository, options, observer).Run(snapshots);
}

} // namespace Agent
