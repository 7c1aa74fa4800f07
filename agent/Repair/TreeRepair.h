// TreeRepair: replaces trees that have lost something. The trees are visited with an explicit stack, so that
// deep directories do not exhaust that of the thread. Of the trees on the path to the visited one, all nodes
// are in memory.
#pragma once

#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/Node.h"

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace Agent {

class TreeRepair
{
public:
    /// The change of a directory whose tree is lost.
    static constexpr const char* Emptied = "replaced with an empty directory";
    /// The beginning of the change of a directory whose tree is damaged after its first entry.
    static constexpr const char* CutOff = "removed the entries after the damage";

    /// Called for a change with the path, which begins with "/".
    using ChangeVisitor = std::function<void(const std::string& path, const std::string& change)>;

    /// Called with the number of trees that were done.
    using DoneVisitor = std::function<void(std::uint64_t trees)>;

    /// Trees that change are given to `saver`; not if it is null.
    TreeRepair(const Repo::Repository& repository, Repo::BlobSaver* saver, ChangeVisitor onChange,
               DoneVisitor onDone)
        : m_repository(repository), m_saver(saver), m_onChange(std::move(onChange)),
          m_onDone(std::move(onDone))
    {}

    /// What a tree is replaced with.
    struct Result
    {
        Repo::Id id;
        std::uint64_t files = 0; ///< regular files in it and below
        std::uint64_t bytes = 0; ///< the sum of their sizes
    };

    /// Returns what replaces the root of a snapshot: `root` itself if nothing below it is lost, or nothing if
    /// the root is lost. A tree is lost if it is missing, or damaged before its first entry. Raises Damaged
    /// for a directory too many levels deep, and what reading a tree raises otherwise, such as an error of
    /// the disk.
    std::optional<Result> Repair(const Repo::Id& root);

private:
    struct OpenTree
    {
        Repo::Id id;
        std::vector<Repo::Node> nodes;
        std::vector<Repo::RawMember> unknown;
        std::size_t next = 0; // of the nodes
        bool isChanged = false;
        std::uint64_t files = 0; // before the next node, with those below it
        std::uint64_t bytes = 0;
        std::size_t pathLength = 0;
    };

    bool Open(const Repo::Id& tree);
    void ReadNodes(OpenTree& open, const Repo::Bytes& text) const;
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
    DoneVisitor m_onDone;
    std::unordered_map<Repo::Id, Result, Repo::IdHash> m_done; // what replaces each tree
    std::vector<OpenTree> m_open;
    std::string m_path;
};

} // namespace Agent
