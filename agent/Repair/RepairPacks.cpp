#include "agent/Repair/RepairPacks.h"

#include "agent/Access/Workers.h"
#include "agent/Prune/IndexRewrite.h"
#include "agent/Prune/PackCopy.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <algorithm>

namespace Agent {

using Repo::FileKind;
using Repo::Id;
using Repo::IndexedBlob;
using Repo::PackedBlob;
using Repo::RepositoryError;

namespace {

class PackRepair
{
public:
    PackRepair(Repo::Repository& repository, const std::set<Id>& packs, IWorkObserver& observer)
        : m_repository(repository), m_packs(packs), m_observer(observer)
    {}

    std::size_t Run()
    {
        m_observer.OnStage("loading indexes...");
        m_repository.LoadIndex({}, WorkerCount());
        IndexRewrite rewrite(m_repository, WorkerCount());
        SaveReadable(rewrite.GetBlobs());
        ReplaceIndex(rewrite);
        m_observer.OnStage("removing damaged packs");
        for (const Id& id : m_packs)
            m_repository.GetBackend().Remove({FileKind::Pack, id});
        m_observer.OnStage("done");
        return m_lost;
    }

private:
    void SaveReadable(const Repo::BlobsByPack& blobs)
    {
        m_observer.OnStage("salvaging blobs from damaged packs");
        Repo::SaveOptions saving;
        saving.isRepacking = true;
        saving.onWait = RaiseIfInterrupted;
        Repo::BlobSaver saver(m_repository, saving);
        std::uint64_t count = 0;
        for (const Id& id : m_packs) {
            CopyBlobs(m_repository, id, BlobsOf(id, blobs), Recompress::Trees, saver,
                      [this](const PackedBlob& blob, const RepositoryError& error) { KeepBad(blob, error); });
            m_observer.OnProgress(++count, m_packs.size());
        }
        saver.Finish();
        for (const auto& [blob, error] : m_bad)
            ReportIfLost(saver, blob, error);
    }

    void KeepBad(const PackedBlob& blob, const RepositoryError& error)
    {
        if (!error.IsOfFile())
            throw RepositoryError(error);
        m_bad.emplace_back(blob, error);
    }

    void ReportIfLost(const Repo::BlobSaver& saver, const PackedBlob& blob, const RepositoryError& error)
    {
        const auto& packs = m_repository.GetIndex().GetPacks();
        const std::vector<IndexedBlob> copies = m_repository.GetIndex().FindAll(blob.handle);
        const bool isElsewhere = std::any_of(copies.begin(), copies.end(), [&](const IndexedBlob& copy) {
            return !m_packs.contains(packs[copy.pack].id);
        });
        if (isElsewhere || saver.Has(blob.handle))
            return;
        ++m_lost;
        m_observer.OnNote("lost " + blob.handle.ToText().Bytes() + ": " + ReasonOf(error).Bytes());
    }

    // The blobs that the index or the pack's own header has.
    std::vector<PackedBlob> BlobsOf(const Id& id, const Repo::BlobsByPack& indexed)
    {
        const Repo::Index& index = m_repository.GetIndex();
        std::vector<PackedBlob> blobs;
        std::set<std::pair<Repo::BlobHandle, std::uint32_t>> places;
        if (const auto number = index.FindPack(id)) {
            for (const std::uint32_t blob : indexed.Of(*number)) {
                blobs.push_back(index.At(blob).blob);
                places.emplace(blobs.back().handle, blobs.back().offset);
            }
        }
        try {
            const std::uint64_t size = m_repository.GetBackend().Size({FileKind::Pack, id});
            for (const PackedBlob& blob : m_repository.LoadPackHeader(id, size)) {
                if (!places.contains({blob.handle, blob.offset}))
                    blobs.push_back(blob);
            }
        } catch (const RepositoryError& error) {
            if (!error.IsOfFile())
                throw;
            m_observer.OnNote(ReasonOf(error).Bytes());
        }
        return blobs;
    }

    void ReplaceIndex(IndexRewrite& rewrite)
    {
        const auto& packs = m_repository.GetIndex().GetPacks();
        std::vector<bool> isKept(packs.size());
        for (std::size_t i = 0; i < packs.size(); ++i)
            isKept[i] = !m_packs.contains(packs[i].id);
        rewrite.Choose(isKept, true);
        m_observer.OnStage("rebuilding index");
        rewrite.Write([this](const std::string& text) { m_repository.SaveText(FileKind::Index, text); });
        rewrite.RemoveReplaced();
    }

    Repo::Repository& m_repository;
    const std::set<Id>& m_packs;
    IWorkObserver& m_observer;
    std::vector<std::pair<PackedBlob, RepositoryError>> m_bad;
    std::size_t m_lost = 0;
};

} // namespace

std::size_t RepairPacks(Repo::Repository& repository, const std::set<Id>& packs, IWorkObserver& observer)
{
    return PackRepair(repository, packs, observer).Run();
}

} // namespace Agent
