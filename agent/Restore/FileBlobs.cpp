#include "agent/Restore/FileBlobs.h"

#include <unordered_set>

namespace Agent {

using Repo::BlobType;
using Repo::Id;

FileBlobs::~FileBlobs()
{
    if (m_ids != nullptr)
        m_loader.Drop();
}

void FileBlobs::Begin(const std::vector<Id>& ids, const std::vector<bool>& isUpToDate)
{
    m_ids = &ids;
    m_isUpToDate = &isUpToDate;
    m_windowEnd = 0;
}

Repo::ByteView FileBlobs::Get(std::size_t i, const Id& id)
{
    if (m_single.capacity() > Repo::LargeBlobSize)
        Repo::Bytes().swap(m_single);
    while (m_ids != nullptr && i >= m_windowEnd) {
        StartWindows();
        m_windowEnd = m_ends.front();
        m_ends.pop_front();
        m_blobs = m_loader.Take();
        StartWindows();
    }
    const auto found = m_blobs.find(id);
    if (found != m_blobs.end() && found->second->failure)
        std::rethrow_exception(found->second->failure);
    if (found != m_blobs.end() && found->second->memory)
        return found->second->content;
    m_repository.LoadBlob({BlobType::Data, id}, m_single);
    return m_single;
}

void FileBlobs::StartWindows()
{
    std::size_t end = m_ends.empty() ? m_windowEnd : m_ends.back();
    while (end < m_ids->size() && m_ends.size() < m_loader.PartsAtOnce()) {
        std::vector<Id> window;
        std::unordered_set<Id, Repo::IdHash> known;
        for (std::uint64_t bytes = 0; end < m_ids->size() && bytes < LoadedBytes; ++end) {
            const Id& id = (*m_ids)[end];
            if ((!m_isUpToDate->empty() && (*m_isUpToDate)[end]) || !known.insert(id).second)
                continue;
            window.push_back(id);
            if (const auto found = m_repository.GetIndex().Find({BlobType::Data, id}))
                bytes += found->blob.plainLength;
        }
        m_loader.Start(window);
        m_ends.push_back(end);
    }
}

} // namespace Agent
