// TreeRepair: replaces trees that have lost something. The trees are visited with an explicit stack, so that
// deep directories do not exhaust that of the thread. Of the trees on the path to the visited one, all nodes
// are in memory.
#pragma once

#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/Node.h"

#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Agent {

class TreeRepair
{
public:
    /// Called for a change with the path, which begins with "/".
    using ChangeVisitor = std::function<void(const std::string& path, const std::string& change)>;

    /// Trees that change are given to `saver`; not if it is null.
    TreeRepair(const Repo::Repository& repository, Repo::BlobSaver* saver, ChangeVisitor onChange)
        : m_repository(repository), m_saver(saver), m_onChange(std::move(onChange))
    {}

    /// Returns the tree that replaces the root of a snapshot, which is the same one if nothing is lost;
    /// nothing if the root can't be read.
    std::optional<Repo::Id> Repair(const Repo::Id& root);

private:
    struct OpenTree
    {
        Repo::Id id;
        std::vector<Repo::Node> nodes;
        std::vector<Repo::RawMember> unknown;
        std::size_t next = 0; // of the nodes
        bool isChanged = false;
        std::size_t pathLength = 0;
    };

    bool Open(const Repo::Id& tree);
    bool RepairNext();
    void RepairDirectory(OpenTree& open, Repo::Node& node);
    void RepairFile(OpenTree& open, Repo::Node& node) const;
    void Close();
    Repo::Id Save(OpenTree& open) const;
    Repo::Id SaveText(const std::string& text) const;
    void Change(OpenTree& open, const std::string& path, const std::string& change) const;

    const Repo::Repository& m_repository;
    Repo::BlobSaver* m_saver;
    ChangeVisitor m_onChange;
    std::unordered_map<Repo::Id, Repo::Id, Repo::IdHash> m_done; // what replaces each tree
    std::vector<OpenTree> m_open;
    std::string m_path;
};

} // namespace Agent
