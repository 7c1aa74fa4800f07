#include "agent/Repair/RepairIndex.h"

#include "agent/Access/Workers.h"
#include "agent/Prune/IndexRewrite.h"
#include "agent/Repository/InOrder.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <algorithm>

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

    std::size_t Run(bool readsAllPacks)
    {
        m_observer.OnStage("loading indexes...");
        m_repository.LoadIndex(
            [this](const FileName&, const RepositoryError& error) {
                if (!error.IsOfFile())
                    throw RepositoryError(error);
                m_observer.OnNote("replacing an index file that can't be read: " + ReasonOf(error).Bytes());
            },
            WorkerCount());
        IndexRewrite rewrite(m_repository, WorkerCount());
        m_observer.OnStage("getting pack files to read...");
        ComparePacks(readsAllPacks);
        if (!m_unread.empty())
            ReadPacks(rewrite);
        rewrite.Choose(m_isKept, true);
        if (m_unread.empty() && rewrite.CountReplaced() == 0) {
            m_observer.OnStage("the index fits the packs");
            return 0;
        }
        m_observer.OnStage("rebuilding index");
        rewrite.Write([this](const std::string& text) { m_repository.SaveText(FileKind::Index, text); });
        m_observer.OnStage("deleting obsolete index files");
        rewrite.RemoveReplaced();
        m_observer.OnStage("done");
        return m_unreadable;
    }

private:
    // Finds the packs of which the index may keep what it has.
    void ComparePacks(bool readsAllPacks)
    {
        const Repo::Index& index = m_repository.GetIndex();
        const auto& packs = index.GetPacks();
        std::vector<bool> exists(packs.size());
        m_isKept.resize(packs.size());
        m_repository.GetBackend().List(FileKind::Pack, [&](const Id& id, std::uint64_t size) {
            const auto number = index.FindPack(id);
            if (number)
                exists[*number] = true;
            if (number && !readsAllPacks && packs[*number].size == size)
                m_isKept[*number] = true;
            else
                m_unread.push_back({id, size});
        });
        std::sort(m_unread.begin(), m_unread.end(),
                  [](const PackFile& a, const PackFile& b) { return a.id < b.id; });
        for (std::size_t i = 0; i < packs.size(); ++i) {
            if (!exists[i])
                m_observer.OnNote("removing not found pack file " + packs[i].id.ToHex());
        }
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
                if (IsRead(m_unread[number].id, failure))
                    rewrite.Add(m_unread[number].id, blobs);
                m_observer.OnProgress(++count, m_unread.size());
            });
    }

    // Returns false if the header is damaged. What the index has of the pack may still be right.
    bool IsRead(const Id& pack, const std::exception_ptr& failure)
    {
        try {
            if (failure)
                std::rethrow_exception(failure);
            return true;
        } catch (const RepositoryError& error) {
            if (!error.IsOfFile())
                throw;
            ++m_unreadable;
            const auto number = m_repository.GetIndex().FindPack(pack);
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
    std::vector<bool> m_isKept;     // in the index as it is, by the number of the pack
    std::vector<PackFile> m_unread; // whose headers are to be read, sorted
    std::size_t m_unreadable = 0;
};

} // namespace

std::size_t RepairIndex(Repo::Repository& repository, bool readsAllPacks, IWorkObserver& observer)
{
    return IndexRepair(repository, observer).Run(readsAllPacks);
}

} // namespace Agent
