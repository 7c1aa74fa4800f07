// PackSubset: the part of the packs whose content a check reads.
#pragma once

#include "agent/Repository/Index.h"

#include <cstdint>
#include <string>
#include <vector>

namespace Agent {

struct PackSubset
{
    static constexpr std::uint64_t NoSize = UINT64_MAX; ///< of a pack that does not exist

    unsigned int part = 1;            ///< of the packs in `parts` parts, by the first byte of the id; from 1
    unsigned int parts = 1;           ///< at most 256
    double percent = 100;             ///< of the packs, chosen at random
    std::uint64_t bytes = UINT64_MAX; ///< of packs, chosen at random, and up to one pack more

    /// Reads "n/t", "n%" or a size such as "500M". Raises UsageError for other text.
    static PackSubset Parse(const std::string& text);
    /// The numbers of the packs to be read. `sizes` are those of their files, by number; packs that do not
    /// exist are left out.
    std::vector<std::uint32_t> Choose(const std::vector<Repo::IndexedPack>& packs,
                                      const std::vector<std::uint64_t>& sizes) const;
};

} // namespace Agent
