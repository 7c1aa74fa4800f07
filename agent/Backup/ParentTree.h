// ParentTree: the entries that a directory had in the parent snapshot, found one after the other while the
// directory is walked.
#pragma once

#include "agent/Repository/Repository.h"

#include <memory>

namespace Agent {

/// A tree that was read from the repository.
struct LoadedTree
{
    Repo::Id id;
    std::shared_ptr<const Repo::Bytes> text;
};

/// One thread at a time.
class ParentTree
{
public:
    /// Loads the tree. Raises what loading a blob raises.
    ParentTree(const Repo::Repository& repository, const Repo::Id& tree);

    /// The entry of this name, or null. It is valid until the next call. The names of successive calls are in
    /// the order of their bytes; others are not found. Raises Damaged.
    Repo::Node* Find(const std::string& name);
    /// The JSON text of the entry that Find has returned.
    std::string_view GetText() const { return m_reader.GetNodeText(); }
    /// The whole tree.
    const LoadedTree& GetTree() const { return m_tree; }

private:
    LoadedTree m_tree;
    Repo::TreeReader m_reader;
    Repo::Node m_node;
    bool m_isAtNode = false;
    bool m_isAtEnd = false;
};

} // namespace Agent
