// LinkKey: which entries of a snapshot are hard links of one file.
#pragma once

#include "agent/Repository/Node.h"

#include <compare>
#include <optional>

namespace Agent {

/// Equal for entries with the same inode that also have the same type and content. A file that changes
/// during its backup can have another content under each of its names.
struct LinkKey
{
    std::uint64_t device = 0;
    std::uint64_t inode = 0;
    Repo::Id content; ///< of type, blobs, target and device number

    auto operator<=>(const LinkKey&) const = default;
};

/// Returns nothing for an entry that has no further hard links.
std::optional<LinkKey> LinkKeyOf(const Repo::Node& node);

/// Returns true if the map has a key with the inode of `key` and another content.
template <class Map>
bool HasOtherContent(const Map& known, const LinkKey& key)
{
    auto each = known.lower_bound(LinkKey{key.device, key.inode, {}});
    for (; each != known.end() && each->first.device == key.device && each->first.inode == key.inode;
         ++each) {
        if (each->first.content != key.content)
            return true;
    }
    return false;
}

/// The text of a note about an entry for which HasOtherContent is true.
extern const char* const OtherContentNote;

} // namespace Agent
