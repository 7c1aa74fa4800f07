#include "agent/Restore/FileBlobs.h"

#include <unordered_set>

namespace Agent {

using Repo::BlobType;
using Repo::Id;

void FileBlobs::Begin(const std::vector<Id>& ids, const std::vector<bool>& isUpToDate)
{
    m_ids = &ids;
    m_isUpToDate = &isUpToDate;
    m_windowEnd = 0;
    m_nextEnd = 0;
    StartNext();
}

Repo::ByteView FileBlobs::Get(std::size_t i, const Id& id)
{
    if (m_single.capacity() > Repo::LargeBlobSize)
        Repo::Bytes().swap(m_single);
    while (m_ids != nullptr && i >= m_windowEnd) {
        m_windowEnd = m_nextEnd;
        m_blobs = m_next.get();
        if (m_windowEnd < m_ids->size())
            StartNext();
    }
    const auto found = m_blobs.find(id);
    if (found == m_blobs.end()) {
        m_repository.LoadBlob({BlobType::Data, id}, m_single);
        return m_single;
    }
    if (found->second.failure)
        std::rethrow_exception(found->second.failure);
    return found->second.content;
}

void FileBlobs::StartNext()
{
    std::vector<Id> window;
    std::unordered_set<Id, Repo::IdHash> known;
    for (std::uint64_t bytes = 0; m_nextEnd < m_ids->size() && bytes < LoadedBytes; ++m_nextEnd) {
        const Id& id = (*m_ids)[m_nextEnd];
        if ((!m_isUpToDate->empty() && (*m_isUpToDate)[m_nextEnd]) || !known.insert(id).second)
            continue;
        window.push_back(id);
        if (const auto found = m_repository.GetIndex().Find({BlobType::Data, id}))
            bytes += found->blob.plainLength;
    }
    m_next = m_loader.Start(std::move(window));
}

} // namespace Agent
