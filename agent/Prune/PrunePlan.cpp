#include "agent/Prune/PrunePlan.h"

#include "agent/Repository/Backend.h"
#include "agent/Repository/Failure.h"
#include "agent/Repository/Pack.h"
#include "agent/Run/Text.h"
#include "agent/Run/UsageError.h"

#include <algorithm>
#include <array>
#include <tuple>

namespace Agent {

using Repo::BlobType;
using Repo::IndexedBlob;
using Repo::IndexedPack;

namespace {

constexpr std::size_t SmallPacks = 10;            // of a type, which are worth to be repacked
constexpr std::uint64_t UsualLeastSize = 4 << 20; // bytes of a pack that is full, at least
constexpr std::uint64_t NoLimit = UINT64_MAX;

std::uint64_t SizeInPack(const Repo::PackedBlob& blob)
{
    return std::uint64_t(blob.length) + Repo::PackEntrySize(blob.isCompressed);
}

// What is known of a pack of the index.
struct PackState
{
    bool exists = false;
    bool isWhole = false;          // it has the size that the index expects
    std::uint64_t wasteBytes = 0;  // of blobs that are not used
    std::uint64_t singleBytes = 0; // of used blobs that are in no other pack
    BlobAmount needed;
    BlobAmount spare;
    BlobAmount unused;
    bool hasPlainTree = false;
    bool hasPlainData = false;

    std::uint64_t Unneeded() const { return spare.bytes + unused.bytes; }
};

// Chooses the copy of each used blob that stays, and finds out what that means for each pack.
class CopyChoice
{
public:
    // Fills in the parts of the plan about blobs and files.
    CopyChoice(const Repo::Index& index, const BlobFacts& facts, const PackSizes& files,
               const std::function<void()>& onLook, PrunePlan& plan)
        : m_index(index), m_packs(index.GetPacks()), m_facts(facts), m_files(files), m_onLook(onLook),
          m_states(m_packs.size()), m_plan(plan)
    {
        m_plan.isNeeded.resize(index.CountBlobs());
    }

    // Returns the states of the packs, by their numbers.
    std::vector<PackState> Run()
    {
        CompareFiles();
        FindWaste();
        ChooseCopies();
        CountBlobs();
        return std::move(m_states);
    }

private:
    void CompareFiles()
    {
        for (std::uint32_t number = 0; number < m_packs.size(); ++number) {
            const auto file = m_files.find(m_packs[number].id);
            if (file == m_files.end())
                continue;
            m_states[number].exists = true;
            m_states[number].isWhole = file->second == m_packs[number].size;
        }
        for (const auto& [id, size] : m_files) {
            if (m_index.FindPack(id))
                continue;
            m_plan.unindexed.push_back(id);
            m_plan.statistics.unindexedBytes += size;
        }
        std::sort(m_plan.unindexed.begin(), m_plan.unindexed.end());
    }

    // Calls `visit` with each blob of the index.
    template <class Visit>
    void VisitBlobs(const Visit& visit)
    {
        for (std::uint32_t number = 0; number < m_facts.isUsed.size(); ++number) {
            if (number % BlobsPerLook == 0)
                m_onLook();
            visit(m_index.At(number));
        }
    }

    // Calls `visit` with the handle of each used blob.
    template <class Visit>
    void VisitUsed(const Visit& visit)
    {
        VisitBlobs([&](const IndexedBlob& blob) {
            if (m_facts.isUsed[blob.number])
                visit(blob.blob.handle);
        });
    }

    void FindWaste()
    {
        m_isCopy.resize(m_facts.isUsed.size());
        VisitUsed([this](const Repo::BlobHandle& handle) {
            std::size_t count = 0;
            IndexedBlob last;
            m_index.VisitAll(handle, [&](const IndexedBlob& copy) {
                m_isCopy[copy.number] = true;
                ++count;
                last = copy;
            });
            if (count == 1)
                m_states[last.pack].singleBytes += SizeInPack(last.blob);
        });
        VisitBlobs([this](const IndexedBlob& blob) {
            if (!m_isCopy[blob.number])
                m_states[blob.pack].wasteBytes += SizeInPack(blob.blob);
        });
    }

    bool IsUsable(const IndexedBlob& copy) const
    {
        return m_states[copy.pack].isWhole && !m_facts.isBad[copy.number];
    }

    // The least is the best.
    auto RankOf(const IndexedBlob& copy) const
    {
        const PackState& state = m_states[copy.pack];
        return std::tuple(!IsUsable(copy), state.wasteBytes, ~state.singleBytes, ~m_packs[copy.pack].size,
                          copy.pack, copy.number);
    }

    void ChooseCopies()
    {
        VisitUsed([this](const Repo::BlobHandle& handle) {
            std::optional<IndexedBlob> best;
            m_index.VisitAll(handle, [&](const IndexedBlob& copy) {
                if (!best || RankOf(copy) < RankOf(*best))
                    best = copy;
            });
            if (!IsUsable(*best))
                RaiseUnusable(*best);
            m_plan.isNeeded[best->number] = true;
        });
    }

    [[noreturn]] void RaiseUnusable(const IndexedBlob& copy) const
    {
        const Repo::FileName file{Repo::FileKind::Pack, m_packs[copy.pack].id};
        const PackState& state = m_states[copy.pack];
        REPOSITORY_RAISE(state.exists ? Repo::Failure::Damaged : Repo::Failure::Missing,
                         file.Prefix() << (state.isWhole  ? "the pack is damaged"
                                           : state.exists ? "the pack has not the size that the index expects"
                                                          : "the pack is missing")
                                       << ", and a snapshot needs its blob " << copy.blob.handle.ToText());
    }

    void CountBlobs()
    {
        VisitBlobs([this](const IndexedBlob& blob) {
            PackState& state = m_states[blob.pack];
            BlobAmount& amount = m_plan.isNeeded[blob.number] ? state.needed
                                 : m_isCopy[blob.number]      ? state.spare
                                                              : state.unused;
            amount.Add({1, SizeInPack(blob.blob)});
            if (blob.blob.isCompressed)
                return;
            (blob.blob.handle.type == BlobType::Tree ? state.hasPlainTree : state.hasPlainData) = true;
            if (state.exists)
                m_plan.statistics.uncompressedBytes += SizeInPack(blob.blob);
        });
        for (const PackState& state : m_states) {
            if (!state.exists)
                continue;
            m_plan.statistics.used.Add(state.needed);
            m_plan.statistics.duplicate.Add(state.spare);
            m_plan.statistics.unused.Add(state.unused);
        }
    }

    const Repo::Index& m_index;
    const std::vector<IndexedPack>& m_packs;
    const BlobFacts& m_facts;
    const PackSizes& m_files;
    const std::function<void()>& m_onLook;
    std::vector<bool> m_isCopy; // of a used blob, by the number of the blob
    std::vector<PackState> m_states;
    PrunePlan& m_plan;
};

// Decides what is done with each pack.
class FateChoice
{
public:
    // Fills in the parts of the plan about packs.
    FateChoice(const std::vector<IndexedPack>& packs, const std::vector<PackState>& states,
               const PruneOptions& options, PrunePlan& plan)
        : m_packs(packs), m_states(states), m_options(options), m_plan(plan)
    {
        m_plan.fates.assign(packs.size(), PackFate::Remove);
    }

    void Run()
    {
        ChooseFates();
        CountFates();
    }

private:
    // Packs far below this size are small.
    std::uint64_t SmallLimit() const
    {
        if (m_options.smallSize != 0)
            return m_options.smallSize;
        std::vector<std::uint64_t> sizes;
        for (std::uint32_t number = 0; number < m_packs.size(); ++number) {
            if (m_states[number].exists)
                sizes.push_back(m_packs[number].size);
        }
        if (sizes.empty())
            return 0;
        const auto low = sizes.begin() + static_cast<std::ptrdiff_t>(sizes.size() * 3 / 100);
        std::nth_element(sizes.begin(), low, sizes.end());
        const std::uint64_t ofNew = m_options.save.packSize;
        return std::min(std::max(UsualLeastSize, *low), ofNew) / 5 * 4;
    }

    // A pack that may be repacked. Candidates that compare less come first.
    struct Candidate
    {
        std::uint32_t pack;
        bool hasTrees;
        bool isForced; // whatever stays unused
        bool isSmall;
        double share; // that is not needed

        auto Rank() const { return std::tuple(!hasTrees, !isForced, !isSmall, -share, pack); }
    };

    std::vector<Candidate> FindCandidates()
    {
        const std::uint64_t smallLimit = SmallLimit();
        std::vector<Candidate> candidates;
        std::array<std::vector<Candidate>, 2> small; // by type
        for (std::uint32_t number = 0; number < m_packs.size(); ++number) {
            const IndexedPack& pack = m_packs[number];
            const PackState& state = m_states[number];
            if (state.needed.blobs == 0)
                continue; // it is removed
            m_plan.fates[number] = PackFate::Keep;
            if (m_options.hasNoFreeSpace || (m_options.repacksOnlyTrees && pack.hasData))
                continue;
            const bool isPlain = state.hasPlainTree || (m_options.repacksUncompressed && state.hasPlainData);
            const double share = static_cast<double>(state.Unneeded()) / static_cast<double>(pack.size);
            const bool isSmall = pack.size < smallLimit && pack.blobs < Repo::PackBlobLimit;
            const Candidate candidate{number, pack.hasTrees, pack.hasTrees || isPlain, isSmall, share};
            if (state.Unneeded() != 0 || (pack.hasData && pack.hasTrees) || isPlain)
                candidates.push_back(candidate);
            else if (candidate.isSmall)
                small[pack.hasTrees].push_back(candidate);
        }
        const std::size_t enough = m_options.smallSize != 0 ? 2 : SmallPacks;
        for (std::vector<Candidate>& ofType : small) {
            if (ofType.size() < enough)
                continue;
            for (Candidate& candidate : ofType) {
                candidate.isForced = true;
                candidates.push_back(candidate);
            }
        }
        std::sort(candidates.begin(), candidates.end(),
                  [](const Candidate& a, const Candidate& b) { return a.Rank() < b.Rank(); });
        return candidates;
    }

    void ChooseFates()
    {
        const std::vector<Candidate> candidates = FindCandidates();
        const std::uint64_t limit = m_options.maxUnused.For(m_plan.statistics.used.bytes);
        std::uint64_t unused = 0; // bytes, in packs that are not removed
        for (std::uint32_t number = 0; number < m_packs.size(); ++number) {
            if (m_plan.fates[number] != PackFate::Remove)
                unused += m_states[number].Unneeded();
        }
        std::uint64_t repacked = 0; // bytes of packs
        for (const Candidate& candidate : candidates) {
            const std::uint64_t size = m_packs[candidate.pack].size;
            const bool isWanted = candidate.isForced || unused > limit;
            if (!isWanted || size > m_options.maxRepackSize - repacked)
                continue;
            m_plan.fates[candidate.pack] = PackFate::Repack;
            repacked += size;
            unused -= m_states[candidate.pack].Unneeded();
        }
    }

    void CountFates()
    {
        PruneStatistics& statistics = m_plan.statistics;
        statistics.unindexedPacks = m_plan.unindexed.size();
        for (std::uint32_t number = 0; number < m_packs.size(); ++number) {
            const PackState& state = m_states[number];
            if (!state.exists)
                continue;
            BlobAmount unneeded = state.spare;
            unneeded.Add(state.unused);
            (state.needed.blobs == 0 ? statistics.unusedPacks
             : unneeded.blobs == 0   ? statistics.usedPacks
                                     : statistics.partlyUsedPacks) += 1;
            switch (m_plan.fates[number]) {
            case PackFate::Keep:
                ++statistics.keptPacks;
                break;
            case PackFate::Repack:
                ++statistics.repackedPacks;
                statistics.repack.Add(state.needed);
                statistics.repack.Add(unneeded);
                statistics.repackRemove.Add(unneeded);
                break;
            case PackFate::Remove:
                ++statistics.removedPacks;
                statistics.remove.Add(unneeded);
                break;
            }
        }
    }

    const std::vector<IndexedPack>& m_packs;
    const std::vector<PackState>& m_states;
    const PruneOptions& m_options;
    PrunePlan& m_plan;
};

} // namespace

UnusedLimit UnusedLimit::Parse(const std::string& text)
{
    UnusedLimit limit;
    if (text == "unlimited") {
        limit.percent = 100;
        return limit;
    }
    if (text.ends_with('%')) {
        std::size_t end = 0;
        try {
            limit.percent = std::stod(text, &end);
        } catch (const std::exception&) {
            end = 0;
        }
        if (end + 1 == text.size() && limit.percent >= 0 && limit.percent <= 100)
            return limit;
    } else if (const std::optional<std::uint64_t> size = ParseSize(text)) {
        limit.bytes = size;
        return limit;
    }
    throw UsageError("--max-unused takes a size such as 500M, a percentage such as 2.5%, or unlimited: '" +
                     text + "'");
}

std::uint64_t UnusedLimit::For(std::uint64_t used) const
{
    if (bytes)
        return *bytes;
    if (percent >= 100)
        return NoLimit;
    const double limit = static_cast<double>(used) * percent / (100 - percent);
    return limit < 1e18 ? static_cast<std::uint64_t>(limit) : NoLimit;
}

BlobAmount PruneStatistics::Total() const
{
    BlobAmount total = used;
    total.Add(duplicate);
    total.Add(unused);
    total.bytes += unindexedBytes;
    return total;
}

BlobAmount PruneStatistics::TotalRemove() const
{
    BlobAmount total = remove;
    total.Add(repackRemove);
    total.bytes += unindexedBytes;
    return total;
}

BlobAmount PruneStatistics::Remaining() const
{
    const BlobAmount total = Total(), removed = TotalRemove();
    return {total.blobs - removed.blobs, total.bytes - removed.bytes};
}

std::uint64_t PruneStatistics::RemainingUnused() const
{
    return duplicate.bytes + unused.bytes - remove.bytes - repackRemove.bytes;
}

PrunePlan MakePrunePlan(const Repo::Index& index, const BlobFacts& facts, const PackSizes& files,
                        const PruneOptions& options, const std::function<void()>& onLook)
{
    PrunePlan plan;
    const std::vector<PackState> states = CopyChoice(index, facts, files, onLook, plan).Run();
    FateChoice(index.GetPacks(), states, options, plan).Run();
    return plan;
}

} // namespace Agent
