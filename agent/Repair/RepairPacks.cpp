#include "agent/Repair/RepairPacks.h"

#include "agent/Access/Workers.h"
#include "agent/Prune/IndexRewrite.h"
#include "agent/Prune/PackCopy.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <cerrno>
#include <chrono>
#include <deque>
#include <optional>
#include <thread>
#include <utility>

namespace Agent {

using Repo::BlobHandle;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;
using Repo::PackedBlob;
using Repo::RepositoryError;

namespace {

constexpr int ReadAttempts = 4;
constexpr std::chrono::milliseconds AttemptPause(200);

enum class Fault
{
    Damaged,
    Missing,
    Unreadable // the disk reports an error
};

// Raises errors that are not of the file.
Fault FaultOf(const RepositoryError& error)
{
    if (!error.IsOfFile())
        throw RepositoryError(error);
    if (error.GetFailure() == Repo::Failure::Missing)
        return Fault::Missing;
    return error.GetOsError() == EIO ? Fault::Unreadable : Fault::Damaged;
}

const char* TextOf(Fault fault)
{
    switch (fault) {
    case Fault::Missing:
        return "the pack is missing";
    case Fault::Unreadable:
        return "the disk can't read it";
    default:
        return "damaged";
    }
}

// There may be millions, so they have no texts.
struct UnsavedBlob
{
    BlobHandle handle;
    const Id* pack;
    Fault fault;
};

class PackRepair
{
public:
    PackRepair(Repo::Repository& repository, const std::set<Id>& packs, IWorkObserver& observer,
               bool removesUnreadable)
        : m_repository(repository), m_packs(packs), m_observer(observer),
          m_removesUnreadable(removesUnreadable)
    {}

    PackRepairOutcome Run()
    {
        m_observer.OnStage("loading indexes...");
        m_repository.LoadIndex({}, WorkerCount(), RaiseIfInterrupted);
        IndexRewrite rewrite(m_repository, WorkerCount());
        SaveReadable(rewrite.GetBlobs());
        if (!m_removed.empty()) {
            ReplaceIndex(rewrite);
            RemovePacks();
        }
        m_observer.OnStage("done");
        return std::move(m_outcome);
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
            if (std::string reason = Salvage(id, blobs, saver); reason.empty())
                m_removed.insert(id);
            else
                m_outcome.kept.emplace_back(id, std::move(reason));
            m_observer.OnProgress(++count, m_packs.size(), "packs");
        }
        for (const UnsavedBlob& bad : m_bad)
            SaveFromElsewhere(bad, saver);
        saver.Finish();
    }

    // Saves what can be read of a pack. Returns why the pack has to stay; an empty text if it does not.
    std::string Salvage(const Id& id, const Repo::BlobsByPack& indexed, Repo::BlobSaver& saver)
    {
        std::vector<PackedBlob> blobs = IndexedBlobsOf(id, indexed);
        const std::optional<Fault> header = AddFromHeader(id, blobs);
        if (blobs.empty() && header == Fault::Unreadable)
            return "the index does not have the pack, and the disk can't read its header, so it is kept, "
                   "until a prune; another attempt may succeed";
        if (blobs.empty() && header != Fault::Missing)
            return "neither the index nor its header says what is in it, so it is kept, until a prune; an "
                   "older copy of the directory 'index' would make it readable";
        const std::size_t begin = m_bad.size();
        const std::vector<PackedBlob> unread = Copy(id, std::move(blobs), saver);
        if (!m_removesUnreadable && (!unread.empty() || header == Fault::Unreadable)) {
            m_bad.resize(begin); // they stay, too
            return "the disk can't read " +
                   (unread.empty() ? "its header" : "blobs of it: " + std::to_string(unread.size())) +
                   "; the pack is kept; copy the repository to another disk, and if the pack can't be read "
                   "there either, 'kbagent repair packs --remove-unreadable' removes it";
        }
        for (const PackedBlob& blob : unread)
            m_bad.push_back({blob.handle, &id, Fault::Unreadable});
        return {};
    }

    std::vector<PackedBlob> IndexedBlobsOf(const Id& id, const Repo::BlobsByPack& indexed) const
    {
        const Repo::Index& index = m_repository.GetIndex();
        std::vector<PackedBlob> blobs;
        if (const auto number = index.FindPack(id)) {
            for (const std::uint32_t blob : indexed.Of(*number))
                blobs.push_back(index.At(blob).blob);
        }
        return blobs;
    }

    // Adds the blobs that only the pack's own header has. Returns why it can't be read.
    std::optional<Fault> AddFromHeader(const Id& id, std::vector<PackedBlob>& blobs)
    {
        std::set<std::pair<BlobHandle, std::uint32_t>> places;
        for (const PackedBlob& blob : blobs)
            places.emplace(blob.handle, blob.offset);
        for (int attempt = 1;; ++attempt) {
            try {
                const std::uint64_t size = m_repository.GetBackend().Size({FileKind::Pack, id});
                for (const PackedBlob& blob : m_repository.LoadPackHeader(id, size)) {
                    if (!places.contains({blob.handle, blob.offset}))
                        blobs.push_back(blob);
                }
                return std::nullopt;
            } catch (const RepositoryError& error) {
                const Fault fault = FaultOf(error);
                if (fault != Fault::Unreadable || attempt == ReadAttempts) {
                    m_observer.OnNote(ReasonOf(error).Bytes());
                    return fault;
                }
            }
            Pause();
        }
    }

    // Gives the blobs to the saver, and adds the bad ones to m_bad. Returns those that the disk can't read. A
    // damaged blob is read twice, as Repository does.
    std::vector<PackedBlob> Copy(const Id& id, std::vector<PackedBlob> blobs, Repo::BlobSaver& saver)
    {
        bool isUnreadable = false;
        for (int attempt = 1; attempt <= ReadAttempts && !blobs.empty(); ++attempt) {
            if (std::exchange(isUnreadable, false))
                Pause();
            std::vector<PackedBlob> unread;
            CopyBlobs(m_repository, id, std::move(blobs), Recompress::Trees, saver,
                      [&](const PackedBlob& blob, const RepositoryError& error) {
                          const Fault fault = FaultOf(error);
                          isUnreadable = isUnreadable || fault == Fault::Unreadable;
                          if (fault == Fault::Unreadable || (fault == Fault::Damaged && attempt == 1))
                              unread.push_back(blob);
                          else
                              m_bad.push_back({blob.handle, &id, fault});
                      });
            blobs = std::move(unread);
        }
        return blobs;
    }

    // The next attempt to read may succeed, as after a short failure of a network.
    static void Pause()
    {
        RaiseIfInterrupted();
        std::this_thread::sleep_for(AttemptPause);
    }

    // Reads the other copies of a bad blob. Reports the blob if it is lost.
    void SaveFromElsewhere(const UnsavedBlob& bad, Repo::BlobSaver& saver)
    {
        RaiseIfInterrupted();
        if (saver.Has(bad.handle))
            return;
        if (m_repository.GetIndex().Has(bad.handle)) {
            try {
                m_repository.LoadBlob(bad.handle, m_plaintext);
                saver.Save(bad.handle, m_plaintext);
                return;
            } catch (const RepositoryError& error) {
                FaultOf(error);
            }
        }
        ++m_outcome.lost;
        m_observer.OnNote("lost " + bad.handle.ToText().Bytes() + ": " +
                          FileName{FileKind::Pack, *bad.pack}.Path() + ": " + TextOf(bad.fault));
    }

    void ReplaceIndex(IndexRewrite& rewrite)
    {
        const auto& packs = m_repository.GetIndex().GetPacks();
        std::vector<bool> isKept(packs.size());
        for (std::size_t i = 0; i < packs.size(); ++i)
            isKept[i] = !m_removed.contains(packs[i].id);
        rewrite.Choose(isKept, true);
        m_observer.OnStage("rebuilding index");
        rewrite.Write([this](const std::string& text) { m_repository.SaveText(FileKind::Index, text); });
        rewrite.RemoveReplaced(m_observer);
    }

    void RemovePacks()
    {
        m_observer.OnStage("removing damaged packs");
        std::uint64_t count = 0;
        for (const Id& id : m_removed) {
            m_repository.GetBackend().Remove({FileKind::Pack, id});
            m_observer.OnProgress(++count, m_removed.size(), "packs");
        }
    }

    Repo::Repository& m_repository;
    const std::set<Id>& m_packs;
    IWorkObserver& m_observer;
    const bool m_removesUnreadable;
    std::set<Id> m_removed;
    std::deque<UnsavedBlob> m_bad; // of packs that are removed
    Repo::Bytes m_plaintext;
    PackRepairOutcome m_outcome;
};

} // namespace

PackRepairOutcome RepairPacks(Repo::Repository& repository, const std::set<Id>& packs,
                              IWorkObserver& observer, bool removesUnreadable)
{
    return PackRepair(repository, packs, observer, removesUnreadable).Run();
}

} // namespace Agent
