#include "agent/Access/LinkKey.h"

#include <string>

namespace Agent {

const char* const OtherContentNote =
    ": It has the inode of another entry, but not its content, and becomes a file of its own";

std::optional<LinkKey> LinkKeyOf(const Repo::Node& node)
{
    if (node.links <= 1 || node.inode == 0 || node.type == Repo::NodeType::Directory)
        return std::nullopt;
    std::string content = std::to_string(static_cast<int>(node.type)) + " " + std::to_string(node.device) +
                          " " + node.linkTarget + '\0';
    if (node.content) {
        for (const Repo::Id& id : *node.content)
            content.append(reinterpret_cast<const char*>(id.bytes.data()), Repo::Id::Size);
    }
    return LinkKey{node.deviceId, node.inode, Repo::Id::Of(Repo::AsBytes(content))};
}

} // namespace Agent
