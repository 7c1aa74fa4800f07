#include "agent/Repository/BlobsByPack.h"

namespace Agent::Repo {

BlobsByPack::BlobsByPack(const Index& index)
    : m_numbers(index.CountBlobs()), m_begins(index.GetPacks().size() + 1)
{
    const auto count = static_cast<std::uint32_t>(m_numbers.size());
    for (std::uint32_t i = 0; i < count; ++i)
        ++m_begins[index.At(i).pack];
    // Ends of the packs now; each blob moves its pack's end towards the begin.
    for (std::size_t i = 1; i < m_begins.size(); ++i)
        m_begins[i] += m_begins[i - 1];
    for (std::uint32_t i = 0; i < count; ++i)
        m_numbers[--m_begins[index.At(i).pack]] = i;
}

} // namespace Agent::Repo
