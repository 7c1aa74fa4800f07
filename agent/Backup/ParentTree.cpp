#include "agent/Backup/ParentTree.h"

namespace Agent {

namespace {

Repo::Bytes LoadTree(const Repo::Repository& repository, const Repo::Id& tree)
{
    Repo::Bytes text;
    repository.LoadBlob({Repo::BlobType::Tree, tree}, text);
    return text;
}

} // namespace

ParentTree::ParentTree(const Repo::Repository& repository, const Repo::Id& tree)
    : m_text(LoadTree(repository, tree)), m_reader(Repo::AsText(m_text), Repo::UnknownMembers::Keep)
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
