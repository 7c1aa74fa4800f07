// NodeRecord: the library's record of a node, and the member "kbagent" of a node, which has what the fields
// of a node can't express. docs/repository.md describes the member.
#pragma once

#include "agent/Repository/Node.h"

#include "Backup/File/YMetadataBase.h"

#include "Krt/File/File.h"

#include <boost/shared_ptr.hpp>

#include <optional>
#include <string>
#include <vector>

namespace Agent {

/// The content of the member "kbagent".
struct KbagentMember
{
    static constexpr const char* Key = "kbagent";
    static constexpr std::uint64_t Version = 1; ///< the only version that is read

    std::string record;               ///< JSON text of a record that no Unix node can express, or empty
    std::optional<std::string> user;  ///< owner's name, if it is not valid UTF-8
    std::optional<std::string> group; ///< group's name, if it is not valid UTF-8
    std::vector<Repo::NodeAttribute> attributes; ///< those whose names are not valid UTF-8

    bool IsEmpty() const { return record.empty() && !user && !group && attributes.empty(); }
};

/// The attributes of a record, sorted by name.
std::vector<Repo::NodeAttribute> AttributesOf(const Krt::File::ExtendedAttributeMap& map);
/// Moves the attributes whose names are not valid UTF-8 to the result.
std::vector<Repo::NodeAttribute> TakeOddAttributes(std::vector<Repo::NodeAttribute>& attributes);

/// Appends the member to those of a node, unless it is empty.
void AppendKbagentMember(const KbagentMember& member, std::vector<Repo::RawMember>& members);

/// Reads the member of a node that was read with Repo::UnknownMembers::Keep; returns nothing without one.
/// Members of it that are not known are ignored. For a version that is not known, and for damaged content,
/// nothing is returned, and `note` becomes a sentence on that. Otherwise `note` is not changed.
std::optional<KbagentMember> ReadKbagentMember(const Repo::Node& node, std::string& note);

/// The record of a node. It is that of the member "kbagent" if it has one, of the node's type; otherwise a
/// Unix record:
///   - the times in seconds, 0 for a time that is not known
///   - the size of a directory is 0, that of a symlink the length of its target
///   - the extended attributes of the node and of the member
///   - the path that is given, whose names are the entry's own
/// A member that can't be used makes `note` a sentence, and the record is that of the node's fields.
boost::shared_ptr<Backup::File::YMetadataBase> RecordOf(const Repo::Node& node, const std::string& path,
                                                        std::string& note);

/// Why the member of a node can't be used, as a sentence; empty if it can, or if there is none. See
/// ReadKbagentMember.
std::string FaultOfKbagentMember(const Repo::Node& node);

} // namespace Agent
