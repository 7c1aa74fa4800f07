// RestoreItem: an entry of a snapshot, with what is known about it before it is created.
#pragma once

#include "agent/Access/LinkKey.h"
#include "agent/Restore/RecordedEntry.h"
#include "agent/Restore/TargetLocation.h"

#include <exception>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unordered_set>
#include <vector>

namespace Agent {

struct RestoreItem
{
    enum class Action
    {
        Restore,
        Update,        ///< a file that exists has other content
        KeepUnchanged, ///< the content of the file that exists is equal
        Skip           ///< what exists is kept
    };

    std::string path;
    TargetLocation location;
    RecordedEntry recorded;
    std::string linkTarget;
    unsigned long long device = 0;
    std::vector<Repo::Id> content;
    std::vector<bool> isUpToDate; ///< parts of the content that the file that exists has, too; or empty
    std::optional<LinkKey> link;
    std::uint64_t links = 0; ///< names of the file
    Action action = Action::Restore;
    struct stat existing
    {};                         ///< of the file that exists
    bool isUnseen = false;      ///< its directory could not be opened, so what exists is not known yet
    std::exception_ptr failure; ///< why the entry can't be restored
    bool isPending = false;     ///< a directory that is restored only for what is below it
    std::optional<std::unordered_set<std::string>> names; ///< of a directory that is cleaned
};

} // namespace Agent
