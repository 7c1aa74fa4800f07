// ParentTree: the entries that a directory had in the parent snapshot, found one after the other while the
// directory is walked.
#pragma once

#include "agent/Repository/Repository.h"

#include <optional>

namespace Agent {

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

private:
    Repo::Bytes m_text;
    Repo::TreeReader m_reader;
    Repo::Node m_node;
    bool m_isAtNode = false;
    bool m_isAtEnd = false;
};

} // namespace Agent
