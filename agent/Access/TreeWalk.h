// The entries of a snapshot, read from its trees. Trees of a hostile repository are bounded: no entry is more
// than DepthLimit levels deep, and only the trees on the path to an entry are in memory. A tree can't
// contain itself, since its id is the SHA-256 of its text.
#pragma once

#include "agent/Repository/Node.h"
#include "agent/Repository/Repository.h"

#include <functional>
#include <string>

namespace Agent {

/// Levels of directories that are read, at most.
constexpr std::size_t DepthLimit = 10000;

/// How a walk continues after an entry.
enum class Step
{
    Into, ///< with the entries of this one, if it is a directory
    Past, ///< with the entry after this one
    End   ///< not at all
};

/// Called for an entry with its path, which begins with "/". The path and the node are valid during the
/// call.
using EntryVisitor = std::function<Step(const std::string& path, Repo::Node& node)>;
/// Called for a directory whose entries can't be read, or not all of them: once, or for each entry that is
/// wrong in itself, such as by its name. The walk goes on with the others.
using TreeFailure = std::function<void(const std::string& path, const Krt::Exception::YError& error)>;

/// Calls `visit` for each entry below the tree, a directory before its entries. `path` is that of the tree's
/// directory, empty for the root of a snapshot. The index is loaded. Raises InvalidState if the user
/// interrupts. What the calls raise passes through.
void WalkTree(const Repo::Repository& repository, const Repo::Id& tree, const std::string& path,
              const EntryVisitor& visit, const TreeFailure& onFailure);

/// An entry that was found by its path.
struct FoundEntry
{
    std::string path; ///< with the names' own bytes; "/" for the root
    Repo::Node node;  ///< with unknown members
};

/// Returns the entry that a path names. Each name of the path is the entry's name as Printable shows it, or
/// otherwise its bytes. Other entries that are wrong in themselves are ignored. Raises InvalidArgument if
/// there is no such entry, or Damaged if it may be one that is wrong in itself, and what loading a tree
/// raises.
FoundEntry FindEntry(const Repo::Repository& repository, const Repo::Id& tree, const std::string& path);
/// Returns why FindEntry failed, for a message that begins with the path.
Krt::YString ReasonOfSearch(const Krt::Exception::YError& error);

} // namespace Agent
