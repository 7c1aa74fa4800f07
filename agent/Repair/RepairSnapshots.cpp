#include "agent/Repair/RepairSnapshots.h"

#include "agent/Access/SnapshotChoice.h"
#include "agent/Repair/TreeRepair.h"
#include "agent/Run/Interrupt.h"

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
          m_trees(repository, options.isDryRun ? nullptr : &m_saver,
                  [this](const std::string& path, const std::string& change) {
                      m_observer.OnNote("  \"" + path + "\": " + change);
                  })
    {}

    // Returns true if the snapshot is not as it was.
    bool Repair(const StoredSnapshot& stored)
    {
        m_observer.OnStage(DescribeSnapshot(stored));
        const std::optional<Id> tree = m_trees.Repair(stored.snapshot.tree);
        if (tree == stored.snapshot.tree)
            return false;
        if (tree)
            Replace(stored, *tree);
        else
            m_observer.OnNote("  its root can't be read, so there is nothing to be saved");
        if (m_options.removesOld)
            Remove(stored, tree ? "old" : "empty");
        return true;
    }

private:
    static Repo::SaveOptions SavingOptions()
    {
        Repo::SaveOptions saving;
        saving.onWait = RaiseIfInterrupted;
        return saving;
    }

    void Replace(const StoredSnapshot& stored, const Id& tree)
    {
        if (m_options.isDryRun) {
            m_observer.OnStage("would save new snapshot");
            return;
        }
        m_saver.Finish();
        Repo::Snapshot snapshot = stored.snapshot;
        snapshot.tree = tree;
        snapshot.original = stored.id;
        const Id id = m_repository.SaveText(FileKind::Snapshot, snapshot.ToJson());
        m_observer.OnStage("saved new snapshot " + ShortId(id));
    }

    void Remove(const StoredSnapshot& stored, const char* kind) const
    {
        const std::string what = std::string(kind) + " snapshot " + ShortId(stored.id);
        if (m_options.isDryRun) {
            m_observer.OnStage("would remove " + what);
            return;
        }
        m_repository.GetBackend().Remove({FileKind::Snapshot, stored.id});
        m_observer.OnStage("removed " + what);
    }

    const Repo::Repository& m_repository;
    const RepairOptions& m_options;
    IWorkObserver& m_observer;
    Repo::BlobSaver m_saver;
    TreeRepair m_trees;
};

} // namespace

std::size_t RepairSnapshots(const Repo::Repository& repository, const std::vector<StoredSnapshot>& snapshots,
                            const RepairOptions& options, IWorkObserver& observer)
{
    SnapshotRepair repair(repository, options, observer);
    std::size_t count = 0;
    for (const StoredSnapshot& stored : snapshots)
        count += repair.Repair(stored);
    return count;
}

} // namespace Agent
