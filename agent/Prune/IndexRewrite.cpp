#include "agent/Prune/IndexRewrite.h"

#include "agent/Repository/InOrder.h"
#include "agent/Run/Interrupt.h"

#include <algorithm>
#include <unordered_map>

namespace Agent {

using Repo::FileKind;
using Repo::Id;
using Repo::PackedBlob;

namespace {

constexpr std::size_t FullSize = 50000;  // blobs of an index file
constexpr std::size_t SmallSize = 25000; // blobs, below which index files are joined

} // namespace

IndexRewrite::IndexRewrite(const Repo::Repository& repository, unsigned int threads)
    : m_repository(repository), m_blobs(repository.GetIndex())
{
    const std::vector<Id> ids = repository.ListIds(FileKind::Index);
    Repo::RunInOrder<File>(
        ids.size(), threads, [&](std::size_t number, File& file) { file = ReadFile(ids[number]); },
        [&](std::size_t, File& file, const std::exception_ptr& failure) {
            if (failure)
                std::rethrow_exception(failure);
            m_kept.push_back(std::move(file));
        });
}

IndexRewrite::File IndexRewrite::ReadFile(const Id& id) const
{
    RaiseIfInterrupted();
    const Repo::Index& index = m_repository.GetIndex();
    File file;
    file.id = id;
    std::unordered_map<std::uint32_t, std::size_t> counts; // blobs of each pack
    try {
        Repo::ReadIndexFile(
            m_repository.LoadText({FileKind::Index, id}),
            [&](const Id& pack, std::span<const PackedBlob> blobs) {
                const auto number = index.FindPack(pack);
                KRT_RAISE_UNLESS(number, Krt::ErrorCode::InvalidState, "Another process writes to the index");
                if (counts.emplace(*number, 0).second)
                    file.packs.push_back(*number);
                counts[*number] += blobs.size();
                file.blobs += blobs.size();
            },
            RaiseIfInterrupted);
    } catch (const Repo::RepositoryError& error) {
        if (error.GetFailure() != Repo::Failure::Damaged)
            throw;
        file.isDamaged = true;
        file.isExact = false;
    }
    for (const std::uint32_t pack : file.packs)
        file.isExact = file.isExact && counts[pack] == index.GetPacks()[pack].blobs;
    return file;
}

std::size_t IndexRewrite::KeepDamaged()
{
    return std::erase_if(m_kept, [](const File& file) { return file.isDamaged; });
}

void IndexRewrite::Choose(const std::vector<bool>& isKept, bool joinsSmall)
{
    std::vector<bool> isNamed(isKept.size());
    const auto isFine = [&](const File& file) {
        return file.isExact && std::all_of(file.packs.begin(), file.packs.end(), [&](std::uint32_t pack) {
                   return isKept[pack] && !isNamed[pack];
               });
    };
    // So what was replaced before, but could not be removed, is not written again.
    std::stable_sort(m_kept.begin(), m_kept.end(),
                     [](const File& a, const File& b) { return a.blobs > b.blobs; });
    std::vector<File> kept;
    for (File& file : m_kept) {
        const bool stays = isFine(file);
        for (const std::uint32_t pack : file.packs)
            isNamed[pack] = isNamed[pack] || stays;
        (stays ? kept : m_replaced).push_back(std::move(file));
    }
    m_kept.clear();
    bool writes = m_writer.CountBlobs() != 0;
    for (std::uint32_t pack = 0; pack < isKept.size(); ++pack)
        writes = writes || (isKept[pack] && !isNamed[pack]);
    const auto small =
        std::count_if(kept.begin(), kept.end(), [](const File& file) { return file.blobs < SmallSize; });
    const bool joins = joinsSmall && !m_replaced.empty() && (writes || small > 1);
    for (File& file : kept) {
        const bool stays = !joins || file.blobs >= SmallSize;
        for (const std::uint32_t pack : file.packs)
            isNamed[pack] = stays;
        (stays ? m_kept : m_replaced).push_back(std::move(file));
    }
    m_isWritten.assign(isKept.size(), false);
    for (std::uint32_t pack = 0; pack < isKept.size(); ++pack)
        m_isWritten[pack] = isKept[pack] && !isNamed[pack];
}

std::vector<bool> IndexRewrite::FindNamed() const
{
    std::vector<bool> isNamed(m_repository.GetIndex().GetPacks().size());
    for (const std::vector<File>* const files : {&m_kept, &m_replaced}) {
        for (const File& file : *files) {
            for (const std::uint32_t pack : file.packs)
                isNamed[pack] = true;
        }
    }
    return isNamed;
}

void IndexRewrite::RemoveUseless()
{
    std::erase_if(m_replaced, [&](const File& file) {
        const bool isUseless =
            file.isExact && std::none_of(file.packs.begin(), file.packs.end(),
                                         [this](std::uint32_t pack) { return m_isWritten[pack]; });
        if (isUseless)
            m_repository.RemoveFile({FileKind::Index, file.id});
        return isUseless;
    });
}

void IndexRewrite::SaveIfFull(std::size_t limit, const SaveCall& save)
{
    if (m_writer.CountBlobs() < limit)
        return;
    RaiseIfInterrupted();
    save(m_writer.Finish());
}

void IndexRewrite::Write(const SaveCall& save)
{
    std::vector<PackedBlob> blobs;
    for (std::uint32_t pack = 0; pack < m_isWritten.size(); ++pack) {
        if (!m_isWritten[pack])
            continue;
        blobs.clear();
        for (const std::uint32_t number : m_blobs.Of(pack))
            blobs.push_back(m_repository.GetIndex().At(number).blob);
        std::sort(blobs.begin(), blobs.end(),
                  [](const PackedBlob& a, const PackedBlob& b) { return a.offset < b.offset; });
        m_writer.Add(m_repository.GetIndex().GetPacks()[pack].id, blobs);
        SaveIfFull(FullSize, save);
    }
    SaveIfFull(1, save);
}

void IndexRewrite::Add(const Id& pack, std::span<const PackedBlob> blobs, const SaveCall& save)
{
    m_writer.Add(pack, blobs);
    SaveIfFull(FullSize, save);
}

void IndexRewrite::RemoveReplaced(IWorkObserver& observer, const Repo::FailureVisitor& onLeft)
{
    observer.OnStage("deleting obsolete index files");
    std::uint64_t count = 0;
    for (const File& file : m_replaced) {
        m_repository.RemoveFile({FileKind::Index, file.id}, onLeft);
        observer.OnProgress(++count, m_replaced.size(), "index files");
    }
    m_replaced.clear();
}

} // namespace Agent
