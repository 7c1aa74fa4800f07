// BlobsByPack: the blobs of an index in the order of their packs. It takes 4 bytes of memory for each blob.
#pragma once

#include "agent/Repository/Index.h"

#include <span>
#include <vector>

namespace Agent::Repo {

class BlobsByPack
{
public:
    /// The index does not change while the object is used.
    explicit BlobsByPack(const Index& index);

    /// The numbers of a pack's blobs in the index, in no particular order.
    std::span<const std::uint32_t> Of(std::uint32_t pack) const
    {
        return std::span(m_numbers).subspan(m_begins[pack], m_begins[pack + 1] - m_begins[pack]);
    }

private:
    std::vector<std::uint32_t> m_numbers; // of all blobs, by pack
    std::vector<std::size_t> m_begins;    // in m_numbers, of each pack and of the end
};

} // namespace Agent::Repo
