#include "agent/Prune/PruneRun.h"

#include "agent/Access/Workers.h"
#include "agent/Prune/IndexRewrite.h"
#include "agent/Prune/PackCopy.h"
#include "agent/Prune/UsedBlobs.h"
#include "agent/Repository/Failure.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <mutex>
#include <set>

namespace Agent {

using Repo::FileKind;
using Repo::Id;
using Repo::PackedBlob;
using Repo::RepositoryError;

namespace {

bool IsOutOfSpace(const Krt::Exception::YError& error)
{
    const int number = error.GetOsError();
    return number == ENOSPC || number == EDQUOT || number == EFBIG;
}

// Calls `work` with each pack on several threads. This thread calls `meanwhile` and reports the progress.
void RunOnPacks(
    const std::vector<std::uint32_t>& packs, IWorkObserver& observer,
    const std::function<void(std::uint32_t pack)>& work, const std::function<void()>& meanwhile = [] {})
{
    std::atomic<std::size_t> next{0};
    std::atomic<std::uint64_t> done{0};
    RunOnThreads(
        std::min<unsigned int>(WorkerCount(), static_cast<unsigned int>(packs.size())),
        [&](const std::function<bool()>& hasFailed) {
            for (std::size_t i = next++; i < packs.size() && !hasFailed(); i = next++) {
                work(packs[i]);
                ++done;
            }
        },
        [&] {
            meanwhile();
            observer.OnProgress(done, packs.size(), "packs");
        });
}

// Reads the copies that a prune keeps of blobs whose other copies it removes. A damaged one must not be the
// only one that stays.
class CopyCheck
{
public:
    CopyCheck(const Repo::Repository& repository, IWorkObserver& observer)
        : m_repository(repository), m_observer(observer)
    {}

    // Reads the needed copies of which others are to be removed. Returns true if some are damaged, and adds
    // these to the facts. Copies in packs that are repacked are read then.
    bool FindBad(const PrunePlan& plan, BlobFacts& facts)
    {
        m_isRead.resize(facts.isBad.size());
        const std::vector<bool> isUnread = FindUnread(plan);
        std::vector<std::uint32_t> packs;
        for (std::uint32_t number = 0; number < isUnread.size(); ++number) {
            if (!isUnread[number])
                continue;
            m_isRead[number] = true;
            const std::uint32_t pack = m_repository.GetIndex().At(number).pack;
            if (packs.empty() || packs.back() != pack)
                packs.push_back(pack);
        }
        if (packs.empty())
            return false;
        std::sort(packs.begin(), packs.end());
        packs.erase(std::unique(packs.begin(), packs.end()), packs.end());
        const std::vector<std::uint32_t> bad = ReadCopies(packs, isUnread);
        for (const std::uint32_t number : bad)
            facts.isBad[number] = true;
        return !bad.empty();
    }

private:
    // The needed copies of kept packs that were not read yet, and of which another copy is to be removed.
    std::vector<bool> FindUnread(const PrunePlan& plan) const
    {
        const Repo::Index& index = m_repository.GetIndex();
        std::vector<bool> isUnread(m_isRead.size());
        for (std::uint32_t number = 0; number < m_isRead.size(); ++number) {
            if (number % BlobsPerLook == 0)
                RaiseIfInterrupted();
            const Repo::IndexedBlob blob = index.At(number);
            if (plan.isNeeded[number] || plan.fates[blob.pack] == PackFate::Keep)
                continue;
            index.VisitAll(blob.blob.handle, [&](const Repo::IndexedBlob& copy) {
                if (plan.isNeeded[copy.number] && !m_isRead[copy.number] &&
                    plan.fates[copy.pack] == PackFate::Keep)
                    isUnread[copy.number] = true;
            });
        }
        return isUnread;
    }

    // Reads the unread blobs of these packs. Returns the numbers of those that are damaged.
    std::vector<std::uint32_t> ReadCopies(const std::vector<std::uint32_t>& packs,
                                          const std::vector<bool>& isUnread) const
    {
        m_observer.OnStage("verifying blobs whose other copies are to be removed");
        const Repo::BlobsByPack blobs(m_repository.GetIndex());
        std::mutex mutex;
        std::vector<std::uint32_t> bad;
        std::vector<std::string> notes; // not yet given to the observer
        RunOnPacks(
            packs, m_observer,
            [&](std::uint32_t pack) {
                ReadCopiesOf(pack, blobs, isUnread, [&](std::uint32_t number, const RepositoryError& error) {
                    const std::lock_guard guard(mutex);
                    bad.push_back(number);
                    notes.push_back("another copy of a damaged blob is kept: " + ReasonOf(error).Bytes());
                });
            },
            [&] {
                const std::lock_guard guard(mutex);
                for (const std::string& note : notes)
                    m_observer.OnNote(note);
                notes.clear();
            });
        return bad;
    }

    // Reads the unread blobs of a pack. Any thread.
    void
    ReadCopiesOf(std::uint32_t pack, const Repo::BlobsByPack& blobs, const std::vector<bool>& isUnread,
                 const std::function<void(std::uint32_t number, const RepositoryError& error)>& onBad) const
    {
        const Repo::Index& index = m_repository.GetIndex();
        std::vector<PackedBlob> unread;
        for (const std::uint32_t number : blobs.Of(pack)) {
            if (isUnread[number])
                unread.push_back(index.At(number).blob);
        }
        const auto report = [&](const PackedBlob& blob, const RepositoryError& error) {
            if (!error.IsOfFile())
                throw RepositoryError(error);
            index.VisitAll(blob.handle, [&](const Repo::IndexedBlob& copy) {
                if (copy.pack == pack && copy.blob == blob)
                    onBad(copy.number, error);
            });
        };
        ReadBlobs(
            m_repository, index.GetPacks()[pack].id, std::move(unread),
            [](const PackedBlob&, Repo::ByteView, const Repo::Bytes&) {}, report);
    }

    const Repo::Repository& m_repository;
    IWorkObserver& m_observer;
    std::vector<bool> m_isRead; // by the number of the blob
};

class PruneRun
{
public:
    PruneRun(Repo::Repository& repository, const PruneOptions& options, IWorkObserver& observer)
        : m_repository(repository), m_options(options), m_observer(observer)
    {}

    void Run(const std::function<void(const PruneStatistics& statistics)>& onPlan)
    {
        Plan();
        onPlan(m_plan.statistics);
        if (m_options.isDryRun)
            return;
        RequireAllListed();
        IndexRewrite rewrite(m_repository, WorkerCount());
        rewrite.Choose(FindKept(), !m_options.hasNoFreeSpace);
        RemoveUnindexed();
        Repack(rewrite.GetBlobs());
        if (m_options.hasNoFreeSpace)
            MakeSpace(rewrite);
        if (rewrite.CountReplaced() != 0)
            ReplaceIndex(rewrite);
        RemovePacks();
        m_observer.OnStage("done");
    }

private:
    void Plan()
    {
        m_observer.OnStage("loading all snapshots...");
        m_repository.GetBackend().RequireComplete(FileKind::Snapshot);
        std::vector<Repo::StoredSnapshot> snapshots = m_repository.LoadSnapshots();
        for (const Repo::StoredSnapshot& stored : snapshots)
            m_snapshots.insert(stored.id);
        std::erase_if(snapshots, [this](const Repo::StoredSnapshot& stored) {
            return m_options.forgotten.contains(stored.id);
        });
        m_observer.OnStage("loading indexes...");
        m_repository.LoadIndex({}, WorkerCount(), RaiseIfInterrupted);
        m_observer.OnStage("finding data that is still in use for " +
                           CountText(snapshots.size(), "snapshot", "snapshots"));
        BlobFacts facts;
        facts.isUsed = FindUsedBlobs(m_repository, snapshots, [this](std::uint64_t trees) {
            m_observer.OnProgress(trees, 0, "trees");
        });
        facts.isBad.resize(facts.isUsed.size());
        m_observer.OnStage("searching used packs...");
        PackSizes files;
        m_repository.GetBackend().List(
            FileKind::Pack, [&](const Id& id, std::uint64_t size) { files.insert_or_assign(id, size); });
        m_observer.OnStage("collecting packs for deletion and repacking");
        CopyCheck copies(m_repository, m_observer);
        do
            m_plan = MakePrunePlan(m_repository.GetIndex(), facts, files, m_options, RaiseIfInterrupted);
        while (copies.FindBad(m_plan, facts));
        for (std::uint32_t pack = 0; pack < m_plan.fates.size(); ++pack) {
            if (m_plan.fates[pack] != PackFate::Keep)
                m_removed.push_back(pack);
        }
        // The largest pack comes last, and is removed first if there is no space.
        const auto sizeOf = [this](std::uint32_t pack) {
            return m_repository.GetIndex().GetPacks()[pack].size;
        };
        std::stable_sort(m_removed.begin(), m_removed.end(),
                         [&](std::uint32_t a, std::uint32_t b) { return sizeOf(a) < sizeOf(b); });
    }

    // The lock excludes new snapshots, so one that only the second list has was left out of the first, as by
    // a server whose store was not ready. Its blobs count as unused.
    void RequireAllListed() const
    {
        for (const Id& id : m_repository.ListIds(FileKind::Snapshot))
            REPOSITORY_RAISE_UNLESS(m_snapshots.contains(id), Repo::Failure::Backend,
                                    Repo::FileName({FileKind::Snapshot, id}).Prefix()
                                        << "the snapshot was not listed before, so nothing is removed");
    }

    std::vector<bool> FindKept() const
    {
        std::vector<bool> isKept;
        for (const PackFate fate : m_plan.fates)
            isKept.push_back(fate == PackFate::Keep);
        return isKept;
    }

    void RemovePack(const Id& id) const { m_repository.GetBackend().Remove({FileKind::Pack, id}); }
    void RemovePack(std::uint32_t pack) const { RemovePack(m_repository.GetIndex().GetPacks()[pack].id); }

    void RemoveUnindexed()
    {
        if (m_plan.unindexed.empty())
            return;
        m_observer.OnStage("deleting unreferenced packs");
        std::uint64_t count = 0;
        for (const Id& id : m_plan.unindexed) {
            RemovePack(id);
            m_observer.OnProgress(++count, m_plan.unindexed.size(), "packs");
        }
    }

    void Repack(const Repo::BlobsByPack& blobs)
    {
        std::vector<std::uint32_t> packs;
        for (std::uint32_t pack = 0; pack < m_plan.fates.size(); ++pack) {
            if (m_plan.fates[pack] == PackFate::Repack)
                packs.push_back(pack);
        }
        if (packs.empty())
            return;
        m_observer.OnStage("repacking packs");
        Repo::SaveOptions saving = m_options.save;
        saving.isRepacking = true;
        saving.onWait = RaiseIfInterrupted;
        Repo::BlobSaver saver(m_repository, saving);
        RunOnPacks(packs, m_observer, [&](std::uint32_t pack) { CopyNeeded(pack, blobs, saver); });
        saver.Finish();
    }

    void CopyNeeded(std::uint32_t pack, const Repo::BlobsByPack& blobs, Repo::BlobSaver& saver) const
    {
        std::vector<PackedBlob> needed;
        for (const std::uint32_t number : blobs.Of(pack)) {
            if (m_plan.isNeeded[number])
                needed.push_back(m_repository.GetIndex().At(number).blob);
        }
        const auto loadElsewhere = [&](const PackedBlob& blob, const RepositoryError&) {
            Repo::Bytes plaintext;
            m_repository.LoadBlob(blob.handle, plaintext); // from another pack; raises if there is none
            saver.Save(blob.handle, plaintext);
        };
        CopyBlobs(m_repository, m_repository.GetIndex().GetPacks()[pack].id, std::move(needed),
                  m_options.repacksUncompressed ? Recompress::All : Recompress::Trees, saver, loadElsewhere);
    }

    // Removes what can be removed while the index has no room to change.
    void MakeSpace(IndexRewrite& rewrite)
    {
        rewrite.RemoveUseless();
        const std::vector<bool> isNamed = rewrite.FindNamed();
        std::erase_if(m_removed, [&](std::uint32_t pack) {
            if (!isNamed[pack])
                RemovePack(pack);
            return !isNamed[pack];
        });
    }

    void ReplaceIndex(IndexRewrite& rewrite)
    {
        m_observer.OnStage("rebuilding index");
        rewrite.Write([this](const std::string& text) { SaveIndex(text); });
        rewrite.RemoveReplaced(m_observer);
    }

    void SaveIndex(const std::string& text)
    {
        for (;;) {
            try {
                m_repository.SaveText(FileKind::Index, text);
                return;
            } catch (const RepositoryError& error) {
                if (!m_options.hasNoFreeSpace || m_removed.empty() || !IsOutOfSpace(error))
                    throw;
            }
            RemovePack(m_removed.back());
            m_removed.pop_back();
        }
    }

    void RemovePacks()
    {
        if (m_removed.empty())
            return;
        m_observer.OnStage("removing " + CountText(m_removed.size(), "old pack", "old packs"));
        std::uint64_t count = 0;
        for (const std::uint32_t pack : m_removed) {
            RemovePack(pack);
            m_observer.OnProgress(++count, m_removed.size(), "packs");
        }
    }

    Repo::Repository& m_repository;
    const PruneOptions& m_options;
    IWorkObserver& m_observer;
    std::set<Id> m_snapshots; // that were listed
    PrunePlan m_plan;
    std::vector<std::uint32_t> m_removed; // packs of the index
};

} // namespace

void Prune(Repo::Repository& repository, const PruneOptions& options, IWorkObserver& observer,
           const std::function<void(const PruneStatistics& statistics)>& onPlan)
{
    PruneRun(repository, options, observer).Run(onPlan);
}

} // namespace Agent
