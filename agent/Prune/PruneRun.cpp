#include "agent/Prune/PruneRun.h"

#include "agent/Access/Workers.h"
#include "agent/Prune/IndexRewrite.h"
#include "agent/Prune/PackCopy.h"
#include "agent/Prune/UsedBlobs.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <map>

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
        std::vector<Repo::StoredSnapshot> snapshots = m_repository.LoadSnapshots();
        std::erase_if(snapshots, [this](const Repo::StoredSnapshot& stored) {
            return m_options.forgotten.contains(stored.id);
        });
        m_observer.OnStage("loading indexes...");
        m_repository.LoadIndex({}, WorkerCount());
        m_observer.OnStage("finding data that is still in use for " + std::to_string(snapshots.size()) +
                           " snapshots");
        BlobFacts facts;
        facts.isUsed = FindUsedBlobs(m_repository, snapshots,
                                     [this](std::uint64_t trees) { m_observer.OnProgress(trees, 0); });
        facts.isBad.resize(facts.isUsed.size());
        m_observer.OnStage("searching used packs...");
        PackSizes files;
        m_repository.GetBackend().List(
            FileKind::Pack, [&](const Id& id, std::uint64_t size) { files.insert_or_assign(id, size); });
        m_observer.OnStage("collecting packs for deletion and repacking");
        do
            m_plan = MakePrunePlan(m_repository.GetIndex(), facts, files, m_options);
        while (FindBadCopies(facts));
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

    // Reads the needed copies whose spare ones are to be removed. Returns true if some are damaged. Copies in
    // packs that are repacked are read then.
    bool FindBadCopies(BlobFacts& facts)
    {
        const Repo::Index& index = m_repository.GetIndex();
        m_isRead.resize(facts.isBad.size());
        std::map<std::uint32_t, std::vector<PackedBlob>> unread; // by pack
        for (std::uint32_t number = 0; number < m_isRead.size(); ++number) {
            if (!m_plan.isNeeded[number] || m_isRead[number])
                continue;
            const Repo::IndexedBlob copy = index.At(number);
            if (m_plan.fates[copy.pack] != PackFate::Keep || index.FindAll(copy.blob.handle).size() == 1)
                continue;
            m_isRead[number] = true;
            unread[copy.pack].push_back(copy.blob);
        }
        bool isAnyBad = false;
        for (auto& [pack, blobs] : unread) {
            const auto onBad = [&, number = pack](const PackedBlob& blob, const RepositoryError& error) {
                if (!error.IsOfFile())
                    throw RepositoryError(error);
                m_observer.OnNote("another copy of a damaged blob is kept: " + ReasonOf(error).Bytes());
                for (const Repo::IndexedBlob& copy : index.FindAll(blob.handle)) {
                    if (copy.pack == number && copy.blob.offset == blob.offset)
                        facts.isBad[copy.number] = isAnyBad = true;
                }
            };
            ReadBlobs(
                m_repository, index.GetPacks()[pack].id, std::move(blobs),
                [](const PackedBlob&, Repo::ByteView, const Repo::Bytes&) {}, onBad);
        }
        return isAnyBad;
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
            m_observer.OnProgress(++count, m_plan.unindexed.size());
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
        Repo::SaveOptions saving;
        saving.isRepacking = true;
        saving.onWait = RaiseIfInterrupted;
        Repo::BlobSaver saver(m_repository, saving);
        std::atomic<std::size_t> next{0};
        std::atomic<std::uint64_t> done{0};
        const auto report = [&] {
            m_observer.OnProgress(done, packs.size());
        };
        RunOnThreads(
            std::min<unsigned int>(WorkerCount(), static_cast<unsigned int>(packs.size())),
            [&](const std::function<bool()>& hasFailed) {
                for (std::size_t i = next++; i < packs.size() && !hasFailed(); i = next++) {
                    CopyNeeded(packs[i], blobs, saver);
                    ++done;
                }
            },
            report);
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
        m_observer.OnStage("deleting obsolete index files");
        rewrite.RemoveReplaced();
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
        m_observer.OnStage("removing " + std::to_string(m_removed.size()) + " old packs");
        std::uint64_t count = 0;
        for (const std::uint32_t pack : m_removed) {
            RemovePack(pack);
            m_observer.OnProgress(++count, m_removed.size());
        }
    }

    Repo::Repository& m_repository;
    const PruneOptions& m_options;
    IWorkObserver& m_observer;
    PrunePlan m_plan;
    std::vector<bool> m_isRead;           // copies that FindBadCopies has read
    std::vector<std::uint32_t> m_removed; // packs of the index
};

} // namespace

void Prune(Repo::Repository& repository, const PruneOptions& options, IWorkObserver& observer,
           const std::function<void(const PruneStatistics& statistics)>& onPlan)
{
    PruneRun(repository, options, observer).Run(onPlan);
}

} // namespace Agent
