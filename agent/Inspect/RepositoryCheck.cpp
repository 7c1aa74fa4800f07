#include "agent/Inspect/RepositoryCheck.h"

#include "agent/Access/Workers.h"
#include "agent/Inspect/PackCheck.h"
#include "agent/Inspect/TreeCheck.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <algorithm>
#include <iterator>
#include <unordered_map>

namespace Agent {

using Repo::FileKind;
using Repo::FileName;
using Repo::Id;
using Repo::RepositoryError;

namespace {

class Check
{
public:
    Check(Repo::Repository& repository, ICheckObserver& observer)
        : m_repository(repository), m_observer(observer)
    {}

    CheckSummary Run(const std::optional<PackSubset>& readData, const std::function<void()>& onLoaded);

private:
    void Fail(const std::string& text);
    void Note(const RepositoryError& error);
    void Fail(const FileName& file, const RepositoryError& error);
    static void Begin(CheckState& state)
    {
        state.items = 0;
        state.bytes = 0;
        state.unit = "trees";
    }

    void Report(CheckState& state);
    void CheckKeys();
    void LoadSnapshots();
    void LoadIndex();
    void CheckPacks(CheckState& state);
    void ReportFurther(const CheckState& state);
    void ReportUnindexed(const CheckState& state);
    bool HasReadableHeader();
    void CheckPack(CheckState& state, std::uint32_t number);
    std::uint64_t MarkOutside(CheckState& state, std::uint32_t number);
    void ReadPacks(CheckState& state, const PackSubset& subset);

    Repo::Repository& m_repository;
    ICheckObserver& m_observer;
    CheckSummary m_summary;
    std::vector<Repo::StoredSnapshot> m_snapshots;
    std::vector<Id> m_unindexed;        // packs, sorted
    bool m_isIncomplete = false;        // the index; packs without an index may have the rest
    std::vector<std::uint64_t> m_sizes; // of the packs' files, by number; NoSize for one that is missing
};

CheckSummary Check::Run(const std::optional<PackSubset>& readData, const std::function<void()>& onLoaded)
{
    m_observer.OnStage("load snapshots and indexes");
    CheckKeys();
    LoadSnapshots();
    LoadIndex();
    if (onLoaded)
        onLoaded();
    CheckState state(m_repository);
    m_observer.OnStage("check all packs");
    CheckPacks(state);
    Report(state);
    m_observer.OnStage("check snapshots, trees and blobs");
    Begin(state);
    CheckTrees(state, m_snapshots, [&] { Report(state); });
    ReportFurther(state);
    ReportUnindexed(state);
    if (readData) {
        m_observer.OnStage("read all data");
        Begin(state);
        ReadPacks(state, *readData);
    }
    m_summary.losesDirectories = state.LosesDirectories();
    if (state.HasDamage()) {
        m_observer.OnStage("find the entries of snapshots that the damage touches");
        constexpr unsigned int Most = 10000, MostOfWrongIndex = 100;
        m_summary.hasDamage =
            FindTouchedEntries(state, m_snapshots, m_isIncomplete ? MostOfWrongIndex : Most, m_observer);
    }
    m_summary.brokenPacks = state.GetBrokenPacks();
    m_summary.unreadablePacks = state.GetUnreadablePacks();
    m_summary.hasReadErrors = m_summary.hasReadErrors || !m_summary.unreadablePacks.empty();
    std::copy_if(m_summary.brokenPacks.begin(), m_summary.brokenPacks.end(),
                 std::back_inserter(m_summary.damagedPacks), [this](const Id& id) {
                     const std::vector<Id>& unreadable = m_summary.unreadablePacks;
                     return m_sizes[*m_repository.GetIndex().FindPack(id)] != PackSubset::NoSize &&
                            !std::binary_search(unreadable.begin(), unreadable.end(), id);
                 });
    m_summary.isDenied = m_summary.isDenied || state.IsDenied();
    m_summary.isUnavailable = m_summary.isUnavailable || state.IsUnavailable();
    m_summary.isIndexWrong = m_summary.isIndexWrong && !m_summary.isDenied && !m_summary.isUnavailable;
    return m_summary;
}

void Check::Fail(const std::string& text)
{
    ++m_summary.errors;
    m_observer.OnError(text);
}

// Notes why a file can't be read.
void Check::Note(const RepositoryError& error)
{
    m_summary.isDenied = m_summary.isDenied || IsDenied(error);
    m_summary.isUnavailable = m_summary.isUnavailable || IsUnavailable(error);
    m_summary.hasReadErrors = m_summary.hasReadErrors || IsReadError(error);
}

void Check::Fail(const FileName& file, const RepositoryError& error)
{
    const std::string text = ReasonOf(error).Bytes();
    Note(error);
    Fail(text.find(file.Path()) == std::string::npos ? file.Path() + ": " + text : text);
}

void Check::Report(CheckState& state)
{
    for (const std::string& text : state.TakeErrors())
        Fail(text);
    m_summary.errors += state.TakeUnlisted();
    for (const std::string& text : state.TakeHints())
        m_observer.OnHint(text);
    m_observer.OnProgress({state.items, state.totalItems, state.unit, state.bytes, state.totalBytes, {}});
}

void Check::CheckKeys()
{
    for (const Id& id : m_repository.ListIds(FileKind::Key)) {
        const FileName file{FileKind::Key, id};
        try {
            Repo::Bytes content;
            m_repository.LoadStored(file, content);
            Repo::KeyFile::Parse(Repo::AsText(content));
        } catch (const RepositoryError& error) {
            Fail(file, error);
        }
    }
}

void Check::LoadSnapshots()
{
    try {
        m_repository.GetBackend().RequireComplete(FileKind::Snapshot);
    } catch (const RepositoryError& error) {
        Fail(ReasonOf(error).Bytes());
        m_summary.lacksSnapshots = error.GetFailure() == Repo::Failure::Missing;
        if (m_summary.lacksSnapshots)
            return;
    }
    m_snapshots = m_repository.LoadSnapshots({}, [this](const FileName& file, const RepositoryError& error) {
        if (error.GetFailure() == Repo::Failure::Damaged)
            m_summary.badSnapshots.push_back(file.id);
        Fail(file, error);
    });
}

void Check::LoadIndex()
{
    const auto fail = [this](const FileName& file, const RepositoryError& error) {
        m_summary.isIndexWrong = true;
        Fail(file, error);
    };
    m_repository.LoadIndex(fail, WorkerCount(), RaiseIfInterrupted);
    if (const std::size_t count = m_repository.GetIndex().CountDuplicates(); count != 0) {
        m_summary.hasUnusedPacks = true;
        m_observer.OnHint("index: entries that are in several index files: " + std::to_string(count));
    }
}

void Check::CheckPacks(CheckState& state)
{
    std::unordered_map<Id, std::uint64_t, Repo::IdHash> files;
    m_repository.GetBackend().List(
        FileKind::Pack, [&](const Id& id, std::uint64_t size) { files.insert_or_assign(id, size); });
    const auto& packs = m_repository.GetIndex().GetPacks();
    m_sizes.assign(packs.size(), PackSubset::NoSize);
    for (std::uint32_t number = 0; number < packs.size(); ++number) {
        RaiseIfInterrupted();
        const auto file = files.find(packs[number].id);
        if (file != files.end()) {
            m_sizes[number] = file->second;
            files.erase(file);
        }
        CheckPack(state, number);
    }
    for (const auto& [id, size] : files)
        m_unindexed.push_back(id);
    std::sort(m_unindexed.begin(), m_unindexed.end());
}

void Check::ReportFurther(const CheckState& state)
{
    if (const std::uint64_t further = state.GetFurther(); further != 0) {
        m_summary.errors += further - 1;
        Fail("further trees with such errors: " + std::to_string(further));
    }
    if (const std::uint64_t further = state.GetFurtherHints(); further != 0)
        m_observer.OnHint("further trees with such members: " + std::to_string(further));
}

// Packs without an index are of no use, unless they have what the index lacks. Without snapshots that is not
// known.
void Check::ReportUnindexed(const CheckState& state)
{
    constexpr std::size_t HintLimit = 100;
    if (m_unindexed.empty())
        return;
    m_isIncomplete = m_summary.isIndexWrong || m_summary.lacksSnapshots || state.LacksBlobs();
    if (m_isIncomplete && !m_summary.isIndexWrong && !HasReadableHeader()) {
        m_summary.unknownPacks = m_unindexed.size();
        m_observer.OnHint("packs that no index refers to, and whose headers can't be read: " +
                          std::to_string(m_unindexed.size()));
        return;
    }
    if (m_isIncomplete) {
        m_summary.isIndexWrong = true;
        m_observer.OnHint("packs that no index refers to, and may have what it lacks: " +
                          std::to_string(m_unindexed.size()));
        return;
    }
    m_summary.hasUnusedPacks = true;
    for (std::size_t i = 0; i < std::min(m_unindexed.size(), HintLimit); ++i)
        m_observer.OnHint(FileName{FileKind::Pack, m_unindexed[i]}.Path() + ": no index refers to the pack");
    if (m_unindexed.size() > HintLimit)
        m_observer.OnHint("further packs that no index refers to: " +
                          std::to_string(m_unindexed.size() - HintLimit));
}

// Returns true if a rebuilt index would have a pack that this one does not have.
bool Check::HasReadableHeader()
{
    return std::any_of(m_unindexed.begin(), m_unindexed.end(), [this](const Id& id) {
        RaiseIfInterrupted();
        try {
            m_repository.LoadPackHeader(id, m_repository.GetBackend().Size({FileKind::Pack, id}));
            return true;
        } catch (const RepositoryError& error) {
            Note(error);
            return false;
        }
    });
}

void Check::CheckPack(CheckState& state, std::uint32_t number)
{
    const Repo::IndexedPack& pack = m_repository.GetIndex().GetPacks()[number];
    const std::string path = FileName{FileKind::Pack, pack.id}.Path();
    const std::uint64_t size = m_sizes[number];
    if (pack.hasData && pack.hasTrees)
        m_observer.OnHint(path + ": the pack has data and trees");
    const std::uint64_t outside = MarkOutside(state, number);
    if (size == PackSubset::NoSize)
        state.AddError(path + ": the pack is missing");
    else if (size != pack.size)
        state.AddError(path + ": the pack has " + std::to_string(size) + " bytes, the index expects " +
                       std::to_string(pack.size));
    else if (outside != 0)
        state.AddError(path + ": the index places blobs outside of the pack: " + std::to_string(outside));
    else
        return;
    m_summary.isIndexWrong = true;
    state.MarkBroken(number);
}

// Marks the blobs that are not within their pack, and returns their number.
std::uint64_t Check::MarkOutside(CheckState& state, std::uint32_t number)
{
    const std::uint64_t size = m_sizes[number] == PackSubset::NoSize ? 0 : m_sizes[number];
    std::uint64_t outside = 0;
    for (const std::uint32_t blob : state.BlobsOf(number)) {
        const Repo::PackedBlob stored = m_repository.GetIndex().At(blob).blob;
        if (std::uint64_t(stored.offset) + stored.length <= size)
            continue;
        state.MarkBad(blob);
        ++outside;
    }
    return outside;
}

void Check::ReadPacks(CheckState& state, const PackSubset& subset)
{
    const std::vector<std::uint32_t> chosen = subset.Choose(m_repository.GetIndex().GetPacks(), m_sizes);
    state.unit = "packs";
    state.totalItems = chosen.size();
    for (const std::uint32_t number : chosen)
        state.totalBytes += m_sizes[number] == PackSubset::NoSize ? 0 : m_sizes[number];
    std::atomic<std::size_t> next{0}, read{0};
    RunOnThreads(
        WorkerCount(),
        [&](const std::function<bool()>& hasFailed) {
            for (std::size_t i = next++; i < chosen.size() && !hasFailed(); i = next++) {
                RaiseIfInterrupted();
                read += CheckPackContent(state, chosen[i], m_sizes[chosen[i]]) ? 1 : 0;
                ++state.items;
            }
        },
        [&] { Report(state); });
    m_observer.OnStage(std::to_string(read) + " of " +
                       std::to_string(m_repository.GetIndex().GetPacks().size()) + " packs were read, " +
                       ShortSize(state.bytes));
}

} // namespace

CheckSummary CheckRepository(Repo::Repository& repository, const std::optional<PackSubset>& readData,
                             ICheckObserver& observer, const std::function<void()>& onLoaded)
{
    return Check(repository, observer).Run(readData, onLoaded);
}

} // namespace Agent
