// NodeCapture: the nodes of entries of the file system, filled from the library's YFile and from the status.
#pragma once

#include "agent/Backup/Unix/Owners.h"
#include "agent/Repository/Node.h"

#include "Backup/File/Unix/YFile.h"

#include "Krt/File/YDirectory.h"

#include <memory>

#include <sys/stat.h>

namespace Agent {

/// An entry that was captured.
struct CapturedEntry
{
    /// Without content and subtree. If the extended attributes can't be read, without these, and the reason
    /// is its error.
    Repo::Node node;
    struct stat status = {};                   ///< at the opening
    std::unique_ptr<Backup::File::YFile> file; ///< open for reading if the entry is a regular file
};

/// One thread at a time.
class NodeCapture
{
public:
    /// Captures an entry of an open directory. If another process replaces the entry meanwhile, captures the
    /// new one. Raises the errors of the library, and InvalidState for an entry that is replaced all the
    /// time.
    CapturedEntry Capture(const Krt::File::YDirectory& parent, const Krt::YString& name,
                          const Krt::File::YPath& path, const struct stat& status);
    /// Renews all of a node that comes from the status. Names of owners that are not UTF-8 are in the member
    /// "kbagent", whose attributes stay.
    void Renew(const struct stat& status, Repo::Node& node);

private:
    void FillFromStatus(const struct stat& status, Repo::Node& node);
    void FillOwnerNames(Repo::Node& node, std::vector<Repo::NodeAttribute> oddAttributes);

    Owners m_owners;
};

/// The node's type for a mode of stat(2).
Repo::NodeType NodeTypeOf(unsigned int statMode);
/// The times of a status, in the local zone.
Repo::Timestamp WriteTimeOf(const struct stat& status);
Repo::Timestamp ChangeTimeOf(const struct stat& status);
/// Sets the times, links and size of a file's node from the status.
void SetFileStatus(const struct stat& status, Repo::Node& node);

} // namespace Agent
