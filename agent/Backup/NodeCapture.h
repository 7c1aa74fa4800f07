// NodeCapture: the nodes of entries of the file system, filled from the status and what the library reads.
#pragma once

#include "agent/Backup/Unix/Owners.h"
#include "agent/Repository/Node.h"

#include "Krt/File/YDirectory.h"
#include "Krt/Util/YUnxHandle.h"

#include <memory>

#include <sys/stat.h>

namespace Agent {

/// An entry that was captured.
struct CapturedEntry
{
    /// Without content and subtree. If the extended attributes can't be read, without these, and the reason
    /// is its error.
    Repo::Node node;
    struct stat status = {};                           ///< at the opening
    std::shared_ptr<const Krt::Util::YUnxHandle> file; ///< open for reading if the entry is a regular file
};

/// One thread at a time. The configuration is read once.
class NodeCapture
{
public:
    /// Raises what Krt::Profile::OpenSystem raises.
    NodeCapture();

    /// Captures an entry of an open directory, whose status was read before. If another process replaces the
    /// entry meanwhile, captures the new one. Raises the errors of the library, and InvalidState for an entry
    /// that is replaced all the time.
    CapturedEntry Capture(const Krt::File::YDirectory& parent, const Krt::YString& name,
                          const Krt::File::YPath& path, const struct stat& status);
    /// Renews all of a node that comes from the status. Names of owners that are not UTF-8 are in the member
    /// "kbagent", whose attributes stay.
    /// Returns true if something is different now.
    bool Renew(const struct stat& status, Repo::Node& node);

private:
    void FillFromStatus(const struct stat& status, Repo::Node& node);
    void FillOwnerNames(Repo::Node& node, std::vector<Repo::NodeAttribute> oddAttributes);

    Owners m_owners;
    const bool m_hasAttributes; // they are not disabled
};

/// The node's type for a mode of stat(2).
Repo::NodeType NodeTypeOf(unsigned int statMode);
/// Sets the times (in the local zone), links and size of a file's node from the status.
void SetFileStatus(const struct stat& status, Repo::Node& node);

} // namespace Agent
