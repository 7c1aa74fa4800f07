// TagChange: other tags for snapshots. A file is never changed, so a snapshot gets a new id.
#pragma once

#include "agent/Repository/Repository.h"

#include <optional>
#include <string>
#include <vector>

namespace Agent {

/// Returns the tags of a list as typed: separated by commas, without the blanks around them, each once.
std::vector<std::string> TagsOfList(const std::string& list);

class TagChange
{
public:
    /// The arguments are lists as typed, each of tags separated by commas. `set` replaces all tags; a list
    /// without a tag, such as ",", leaves none. Raises UsageError if there is nothing to be changed, and if
    /// tags are both replaced and added or removed.
    TagChange(const std::vector<std::string>& set, const std::vector<std::string>& add,
              const std::vector<std::string>& remove);

    /// Saves the snapshot with its new tags, then removes the old file. The new one names the first version.
    /// It is not saved again if one of the existing snapshots is equal to it, since an earlier run could not
    /// remove the old file. Returns the id of the new one; nothing if the snapshot has the tags already. The
    /// old file is given to `onLeft` if it can't be removed.
    std::optional<Repo::Id> Apply(const Repo::Repository& repository, const Repo::StoredSnapshot& stored,
                                  const std::vector<Repo::StoredSnapshot>& existing,
                                  const Repo::FailureVisitor& onLeft) const;

private:
    std::vector<std::string> TagsOf(const Repo::Snapshot& snapshot) const;

    bool m_replaces;
    std::vector<std::string> m_add; // or the tags that replace all
    std::vector<std::string> m_remove;
};

} // namespace Agent
