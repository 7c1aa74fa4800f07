#include "agent/Inspect/CheckState.h"

#include <algorithm>
#include <cerrno>
#include <utility>

namespace Agent {

namespace {

constexpr std::uint64_t ConsequenceLimit = 100; // errors, or hints, that are reported one by one

} // namespace

using Krt::Thread::AnnotatedLock;
using Repo::BlobType;
using Repo::NodeType;

bool IsDenied(const Repo::RepositoryError& error)
{
    return error.GetOsError() == EACCES || error.GetOsError() == EPERM;
}

bool IsReadError(const Repo::RepositoryError& error)
{
    return error.GetOsError() == EIO;
}

bool IsUnavailable(const Repo::RepositoryError& error)
{
    return (error.IsOfLocation() || error.GetFailure() == Repo::Failure::NoMemory) && !IsDenied(error);
}

CheckState::CheckState(const Repo::Repository& repository)
    : m_repository(repository), m_blobs(GetIndex()), m_isBad(GetIndex().CountBlobs())
{}

void CheckState::MarkBad(std::uint32_t number)
{
    const AnnotatedLock lock(m_mutex);
    m_isBad[number] = true;
    m_hasDamage = true;
}

void CheckState::MarkBroken(std::uint32_t pack)
{
    const AnnotatedLock lock(m_mutex);
    m_broken.insert(pack);
}

void CheckState::MarkUnreadable(std::uint32_t pack)
{
    const AnnotatedLock lock(m_mutex);
    m_unreadable.insert(pack);
}

void CheckState::MarkFaulty(const Repo::Id& tree)
{
    const AnnotatedLock lock(m_mutex);
    m_faulty.insert(tree);
    m_hasDamage = true;
}

bool CheckState::IsReadable(const Repo::BlobHandle& handle) const
{
    const std::vector<Repo::IndexedBlob> copies = GetIndex().FindAll(handle);
    const AnnotatedLock lock(m_mutex);
    return std::any_of(copies.begin(), copies.end(), [this](const Repo::IndexedBlob& copy) {
        m_mutex.AssertHeld();
        return !m_isBad[copy.number];
    });
}

bool CheckState::IsFaulty(const Repo::Id& tree) const
{
    const AnnotatedLock lock(m_mutex);
    return m_faulty.contains(tree);
}

bool CheckState::HasDamage() const
{
    const AnnotatedLock lock(m_mutex);
    return m_hasDamage;
}

std::vector<Repo::Id> CheckState::GetBrokenPacks() const
{
    const AnnotatedLock lock(m_mutex);
    return SortedIds(m_broken);
}

std::vector<Repo::Id> CheckState::GetUnreadablePacks() const
{
    const AnnotatedLock lock(m_mutex);
    return SortedIds(m_unreadable);
}

std::vector<Repo::Id> CheckState::SortedIds(const std::unordered_set<std::uint32_t>& packs) const
{
    std::vector<Repo::Id> ids;
    ids.reserve(packs.size());
    for (const std::uint32_t pack : packs)
        ids.push_back(GetIndex().GetPacks()[pack].id);
    std::sort(ids.begin(), ids.end());
    return ids;
}

std::string CheckState::FaultOf(const Repo::Node& node) const
{
    if (node.type == NodeType::Unknown)
        return "its type is not known: " + node.typeText;
    if (node.type == NodeType::Directory && !node.subtree)
        return "the directory has no tree";
    if (node.type != NodeType::File)
        return {};
    if (!node.content)
        return "the file has no list of blobs";
    std::uint64_t size = 0;
    for (const Repo::Id& id : *node.content) {
        const auto found = GetIndex().Find({BlobType::Data, id});
        if (!found)
            return "blob " + id.ToHex() + " is not in the index";
        if (!IsReadable({BlobType::Data, id}))
            return "blob " + id.ToHex() + " can't be read";
        size += found->blob.plainLength;
    }
    if (size != node.size)
        return "its size is " + std::to_string(node.size) + " bytes, but its blobs have " +
               std::to_string(size);
    return {};
}

void CheckState::AddError(std::string text, std::uint64_t count)
{
    const AnnotatedLock lock(m_mutex);
    m_errors.push_back(std::move(text));
    m_unlisted += count - 1;
}

std::uint64_t CheckState::TakeUnlisted()
{
    const AnnotatedLock lock(m_mutex);
    return std::exchange(m_unlisted, 0);
}

void CheckState::AddConsequence(std::string text)
{
    const AnnotatedLock lock(m_mutex);
    if (++m_consequences <= ConsequenceLimit)
        m_errors.push_back(std::move(text));
}

void CheckState::AddHint(std::string text)
{
    const AnnotatedLock lock(m_mutex);
    if (++m_hintCount <= ConsequenceLimit)
        m_hints.push_back(std::move(text));
}

std::vector<std::string> CheckState::TakeHints()
{
    const AnnotatedLock lock(m_mutex);
    return std::exchange(m_hints, {});
}

std::uint64_t CheckState::GetFurtherHints() const
{
    const AnnotatedLock lock(m_mutex);
    return m_hintCount - std::min(m_hintCount, ConsequenceLimit);
}

std::uint64_t CheckState::GetFurther() const
{
    const AnnotatedLock lock(m_mutex);
    return m_consequences - std::min(m_consequences, ConsequenceLimit);
}

void CheckState::NoteUnread(const Repo::RepositoryError& error)
{
    if (Agent::IsDenied(error))
        m_isDenied = true;
    if (Agent::IsUnavailable(error))
        m_isUnavailable = true;
}

std::vector<std::string> CheckState::TakeErrors()
{
    const AnnotatedLock lock(m_mutex);
    return std::exchange(m_errors, {});
}

} // namespace Agent
