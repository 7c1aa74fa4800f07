#include "agent/Remote/CachedBackend.h"

#include "agent/Repository/Failure.h"

#include <algorithm>

namespace Agent::Remote {

using Krt::Thread::AnnotatedLock;
using Repo::Bytes;
using Repo::ByteView;
using Repo::FileKind;
using Repo::FileName;
using Repo::Id;

void CachedBackend::Load(const FileName& file, std::uint64_t offset, std::uint64_t length, Bytes& out)
{
    const bool isOfTrees = file.kind == FileKind::Pack && file.hasTrees;
    if (m_directory && isOfTrees && KeepPack(file) && m_directory->LoadPart(file, offset, length, out))
        return;
    m_backend->Load(file, offset, length, out);
}

// Returns true if there is a copy that was verified.
bool CachedBackend::KeepPack(const FileName& file)
{
    std::shared_ptr<Pack> pack;
    {
        const AnnotatedLock lock(m_mutex);
        std::shared_ptr<Pack>& known = m_packs[file.id];
        if (!known)
            known = std::make_shared<Pack>();
        pack = known;
    }
    const AnnotatedLock lock(pack->mutex);
    if (!pack->isKnown)
        pack->isKept = FetchPack(file);
    pack->isKnown = true;
    return pack->isKept;
}

bool CachedBackend::FetchPack(const FileName& file)
{
    Bytes content;
    if (m_directory->Load(file, PackLimit, content) && Id::Of(content) == file.id)
        return true;
    try {
        m_backend->LoadWhole(file, PackLimit, content);
    } catch (const Repo::RepositoryError& error) {
        const Repo::Failure failure = error.GetFailure();
        if (failure != Repo::Failure::Damaged && failure != Repo::Failure::Missing)
            throw; // the part that is asked for would fail as well
        return false;
    }
    return Id::Of(content) == file.id && m_directory->Save(file, content);
}

void CachedBackend::LoadWhole(const FileName& file, std::uint64_t limit, Bytes& out)
{
    const bool isKept = m_directory && file.kind != FileKind::Pack && CacheDirectory::IsKept(file);
    if (isKept && m_directory->Load(file, limit, out) && Id::Of(out) == file.id)
        return;
    m_backend->LoadWhole(file, limit, out);
    if (isKept && Id::Of(out) == file.id)
        m_directory->Save(file, out);
}

void CachedBackend::List(FileKind kind, const std::function<void(const Id& id, std::uint64_t size)>& visit)
{
    const bool isKept = m_directory && (kind == FileKind::Pack || CacheDirectory::IsKept({kind, {}}));
    const std::vector<Id> copies = isKept ? m_directory->List(kind) : std::vector<Id>();
    std::vector<bool> isListed(copies.size(), false);
    m_backend->List(kind, [&](const Id& id, std::uint64_t size) {
        const auto found = std::lower_bound(copies.begin(), copies.end(), id);
        if (found != copies.end() && *found == id)
            isListed[static_cast<std::size_t>(found - copies.begin())] = true;
        visit(id, size);
    });
    for (std::size_t i = 0; i < copies.size(); ++i) {
        if (!isListed[i])
            m_directory->Remove({kind, copies[i]});
    }
}

void CachedBackend::Save(const FileName& file, ByteView content)
{
    m_backend->Save(file, content);
    const bool isTooLarge = file.kind == FileKind::Pack && content.size() > PackLimit;
    if (m_directory && CacheDirectory::IsKept(file) && !isTooLarge)
        m_directory->Save(file, content);
}

void CachedBackend::Remove(const FileName& file)
{
    m_backend->Remove(file);
    if (m_directory && (file.kind == FileKind::Pack || CacheDirectory::IsKept(file)))
        m_directory->Remove(file);
}

} // namespace Agent::Remote
