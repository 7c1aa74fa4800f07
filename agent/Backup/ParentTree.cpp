#include "agent/Backup/ParentTree.h"

namespace Agent {

namespace {

LoadedTree LoadTree(const Repo::Repository& repository, const Repo::Id& tree)
{
    const auto text = std::make_shared<Repo::Bytes>();
    repository.LoadBlob({Repo::BlobType::Tree, tree}, *text);
    return {tree, text};
}

} // namespace

ParentTree::ParentTree(const Repo::Repository& repository, const Repo::Id& tree)
    : m_tree(LoadTree(repository, tree)), m_reader(Repo::AsText(*m_tree.text), Repo::UnknownMembers::Keep)
{}

Repo::Node* ParentTree::Find(const std::string& name)
{
    while (!m_isAtEnd && (!m_isAtNode || m_node.name < name)) {
        m_isAtNode = true;
        m_isAtEnd = !m_reader.Next(m_node);
    }
    return !m_isAtEnd && m_node.name == name ? &m_node : nullptr;
}

} // namespace Agent
