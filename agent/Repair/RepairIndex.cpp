#include "agent/Repair/RepairIndex.h"

#include "agent/Access/Workers.h"
#include "agent/Prune/IndexRewrite.h"
#include "agent/Repository/InOrder.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <cerrno>
#include <unordered_set>

namespace Agent {

using Repo::FileKind;
using Repo::FileName;
using Repo::Id;
using Repo::PackedBlob;
using Repo::RepositoryError;

namespace {

struct PackFile
{
    Id id;
    std::uint64_t size;
};

class IndexRepair
{
public:
    IndexRepair(Repo::Repository& repository, IWorkObserver& observer)
        : m_repository(repository), m_observer(observer)
    {}

    IndexRepairOutcome Run(bool readsAllPacks)
    {
        m_observer.OnStage("loading indexes...");
        m_repository.LoadIndex(
            [this](const FileName&, const RepositoryError& error) {
                if (error.GetOsError() == EIO)
                    m_observer.OnNote("the disk can't read an index file, so nothing is changed; if that "
                                      "remains so, move the file elsewhere, and repeat the command");
                if (!error.IsOfFile() || error.GetOsError() == EIO)
                    throw RepositoryError(error);
                m_observer.OnNote("an index file is damaged: " + ReasonOf(error).Bytes());
            },
            WorkerCount(), RaiseIfInterrupted);
        IndexRewrite rewrite(m_repository, WorkerCount());
        m_observer.OnStage("getting pack files to read...");
        ComparePacks(readsAllPacks, rewrite.GetBlobs());
        if (!m_unread.empty())
            ReadPacks(rewrite);
        RequireAnyPack();
        NoteMissing();
        if (m_outcome.unknown != 0)
            m_outcome.keptFiles = rewrite.KeepDamaged();
        m_outcome.lost = CountLost();
        rewrite.Choose(m_isKept, true);
        const bool isAllRead = m_outcome.damaged == 0 && m_outcome.unknown == 0;
        if (isAllRead && !m_isAnyAdded && rewrite.CountReplaced() == 0) {
            m_observer.OnStage("the index fits the packs");
            return m_outcome;
        }
        m_observer.OnStage("rebuilding index");
        rewrite.Write([this](const std::string& text) { Save(text); });
        rewrite.RemoveReplaced(m_observer, [this](const FileName& file, const RepositoryError& error) {
            m_outcome.left.emplace_back(file, error);
        });
        if (!m_outcome.left.empty()) {
            for (const Id& id : m_added)
                m_observer.OnNote("added index file " + id.ToHex());
        }
        m_observer.OnStage("done");
        return m_outcome;
    }

private:
    void Save(const std::string& text) { m_added.push_back(m_repository.SaveText(FileKind::Index, text)); }

    // Finds the packs of which the index may keep what it has.
    void ComparePacks(bool readsAllPacks, const Repo::BlobsByPack& blobs)
    {
        const Repo::Index& index = m_repository.GetIndex();
        const auto& packs = index.GetPacks();
        m_exists.resize(packs.size());
        m_isKept.resize(packs.size());
        m_repository.GetBackend().List(FileKind::Pack, [&](const Id& id, std::uint64_t size) {
            const auto number = index.FindPack(id);
            if (number)
                m_exists[*number] = true;
            if (number && !readsAllPacks && packs[*number].size == size)
                m_isKept[*number] = true;
            else
                m_unread.push_back({id, size});
        });
        std::sort(m_unread.begin(), m_unread.end(),
                  [](const PackFile& a, const PackFile& b) { return a.id < b.id; });
        m_outcome.missing = static_cast<std::size_t>(std::count(m_exists.begin(), m_exists.end(), false));
        if (m_unread.empty())
            RequireAnyPack();
        for (std::uint32_t i = 0; i < packs.size(); ++i) {
            if (m_exists[i])
                continue;
            for (const std::uint32_t blob : blobs.Of(i))
                m_missing.insert(index.At(blob).blob.handle);
        }
    }

    // If the directory of the packs is not mounted, the index may be all that there is.
    void RequireAnyPack() const
    {
        const std::size_t indexed = m_exists.size();
        KRT_RAISE_UNLESS(indexed == 0 || m_outcome.missing < indexed || m_isAnyRead,
                         Krt::ErrorCode::InvalidState,
                         "None of the " << indexed
                                        << " packs of the index exists; is the file system with "
                                           "their directory 'data' mounted?");
    }

    void NoteMissing()
    {
        for (std::size_t i = 0; i < m_exists.size(); ++i) {
            if (!m_exists[i])
                m_observer.OnNote("removing not found pack file " +
                                  m_repository.GetIndex().GetPacks()[i].id.ToHex());
        }
    }

    // Counts the blobs of missing packs that no other pack has.
    std::size_t CountLost() const
    {
        const Repo::Index& index = m_repository.GetIndex();
        std::size_t count = 0;
        for (const Repo::BlobHandle& handle : m_missing) {
            bool isKept = false;
            index.VisitAll(handle,
                           [&](const Repo::IndexedBlob& copy) { isKept = isKept || m_isKept[copy.pack]; });
            count += isKept ? 0 : 1;
        }
        return count;
    }

    void ReadPacks(IndexRewrite& rewrite)
    {
        m_observer.OnStage("reading pack files");
        std::uint64_t count = 0;
        Repo::RunInOrder<std::vector<PackedBlob>>(
            m_unread.size(), WorkerCount(),
            [this](std::size_t number, std::vector<PackedBlob>& blobs) {
                RaiseIfInterrupted();
                blobs = m_repository.LoadPackHeader(m_unread[number].id, m_unread[number].size);
            },
            [&](std::size_t number, const std::vector<PackedBlob>& blobs, const std::exception_ptr& failure) {
                const Id& pack = m_unread[number].id;
                if (IsRead(pack, failure)) {
                    if (!KeepIfEqual(pack, blobs, rewrite.GetBlobs())) {
                        rewrite.Add(pack, blobs, [this](const std::string& text) { Save(text); });
                        m_isAnyAdded = true;
                    }
                    for (const PackedBlob& blob : blobs)
                        m_missing.erase(blob.handle);
                }
                m_observer.OnProgress(++count, m_unread.size(), "packs");
            });
    }

    // Returns true if the index has the pack with exactly these blobs.
    bool KeepIfEqual(const Id& pack, std::vector<PackedBlob> blobs, const Repo::BlobsByPack& indexed)
    {
        const Repo::Index& index = m_repository.GetIndex();
        const auto number = index.FindPack(pack);
        if (!number)
            return false;
        std::vector<PackedBlob> known;
        for (const std::uint32_t blob : indexed.Of(*number))
            known.push_back(index.At(blob).blob);
        const auto isBefore = [](const PackedBlob& a, const PackedBlob& b) {
            return a.offset < b.offset;
        };
        std::sort(known.begin(), known.end(), isBefore);
        std::sort(blobs.begin(), blobs.end(), isBefore);
        m_isKept[*number] = known == blobs;
        return m_isKept[*number];
    }

    // Returns false if the header can't be read. What the index has of the pack may still be right.
    bool IsRead(const Id& pack, const std::exception_ptr& failure)
    {
        try {
            if (failure)
                std::rethrow_exception(failure);
            m_isAnyRead = true;
            return true;
        } catch (const RepositoryError& error) {
            if (!error.IsOfFile())
                throw;
            const auto number = m_repository.GetIndex().FindPack(pack);
            ++(number ? m_outcome.damaged : m_outcome.unknown);
            if (number)
                m_isKept[*number] = true;
            m_observer.OnNote((number ? "keeping what the index has of a damaged pack: "
                                      : "leaving a damaged pack out of the index: ") +
                              ReasonOf(error).Bytes());
            return false;
        }
    }

    Repo::Repository& m_repository;
    IWorkObserver& m_observer;
    std::vector<bool> m_exists;     // by the number of the pack
    std::vector<bool> m_isKept;     // in the index as it is, by the number of the pack
    std::vector<PackFile> m_unread; // whose headers are to be read, sorted
    // Blobs of missing packs that no pack has whose header was read.
    std::unordered_set<Repo::BlobHandle, Repo::BlobHandleHash> m_missing;
    bool m_isAnyRead = false;  // header
    bool m_isAnyAdded = false; // pack, to what is written
    std::vector<Id> m_added;   // index files
    IndexRepairOutcome m_outcome;
};

} // namespace

IndexRepairOutcome RepairIndex(Repo::Repository& repository, bool readsAllPacks, IWorkObserver& observer)
{
    return IndexRepair(repository, observer).Run(readsAllPacks);
}

} // namespace Agent
