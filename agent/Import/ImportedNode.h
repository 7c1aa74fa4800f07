// ImportedNode: the node of a repository that a record becomes, whichever system the record comes from.
#pragma once

#include "agent/Record/NodeRecord.h"

namespace Agent {

/// An entry that is imported.
struct ImportedEntry
{
    Repo::Node node;             ///< without name, content, subtree and member
    KbagentMember member;        ///< what the node can't express, without the record
    std::string record;          ///< the record in the current form
    unsigned long long size = 0; ///< bytes of the content, as recorded
    bool mayLackContent = false; ///< a reparse point, whose record is worth keeping without its content
};

/// Returns the entry of a record. A Windows file or directory becomes one that only its owner can use. An ODS
/// object becomes an empty directory, because others may be below it. Times are in UTC; one that the format
/// can't express, and 0 where it means that there is none, is unknown. Raises NotSupported for a device, a
/// socket and an unknown type, and InvalidArgument for a link without a target.
ImportedEntry ImportedEntryOf(Backup::File::YMetadataBase& metadata);

/// Adds the member "kbagent" to the node of the entry, whose other fields are complete, if it is needed: with
/// the record if RecordOf of the node at this path would differ from it.
void AddMember(const ImportedEntry& entry, const std::string& path, Repo::Node& node);

/// The node of a directory that has no record: a time that is not known, and a mode that only its owner can
/// use.
Repo::Node PlainDirectory(const std::string& name);

} // namespace Agent
