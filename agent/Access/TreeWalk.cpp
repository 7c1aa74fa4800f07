#include "agent/Access/TreeWalk.h"

#include "agent/Repository/Tree.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <memory>
#include <optional>

namespace Agent {

using Krt::YString;
using Repo::BlobType;
using Repo::Id;
using Repo::Node;
using Repo::NodeType;
using Repo::RepositoryError;

namespace {

// A tree whose entries are being visited.
struct VisitedTree
{
    Repo::Bytes text;
    Repo::TreeReader reader{{}};
    std::size_t pathLength = 0;
};

std::unique_ptr<VisitedTree> OpenTree(const Repo::Repository& repository, const Id& tree,
                                      std::size_t pathLength, Repo::BadEntryVisitor onBadEntry)
{
    auto visited = std::make_unique<VisitedTree>();
    repository.LoadBlob({BlobType::Tree, tree}, visited->text);
    visited->reader =
        Repo::TreeReader(Repo::AsText(visited->text), Repo::UnknownMembers::Keep, std::move(onBadEntry));
    visited->pathLength = pathLength;
    return visited;
}

std::vector<std::string_view> NamesOf(std::string_view path)
{
    std::vector<std::string_view> names;
    for (std::size_t begin = 0; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        if (end != begin)
            names.push_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return names;
}

// Finds the entry of a tree; returns false if it is missing. If entries of the tree are damaged, of which it
// may be one, raises that of its name, or otherwise the first of them.
bool FindInTree(const Repo::Repository& repository, const Id& tree, std::string_view name, Node& found)
{
    Repo::Bytes text;
    repository.LoadBlob({BlobType::Tree, tree}, text);
    std::optional<RepositoryError> damage;
    const std::string ofName = "entry \"" + std::string(name) + "\": ";
    const auto onBadEntry = [&](const RepositoryError& error) {
        if (!damage || error.GetMessage().Bytes().starts_with(ofName))
            damage.emplace(error);
    };
    Repo::TreeReader reader(Repo::AsText(text), Repo::UnknownMembers::Keep, onBadEntry);
    bool isFound = false;
    for (Node node; reader.Next(node);) {
        const bool isPrinted = Printable(node.name) == name;
        if (!isPrinted && node.name != name)
            continue;
        found = std::move(node);
        isFound = true;
        if (isPrinted)
            break;
        node = Node();
    }
    if (!isFound && damage)
        throw RepositoryError(*damage);
    return isFound;
}

class Walk
{
public:
    Walk(const Repo::Repository& repository, const EntryVisitor& visit, const TreeFailure& onFailure)
        : m_repository(repository), m_visit(visit), m_onFailure(onFailure)
    {}

    void Run(const Id& tree, const std::string& path)
    {
        m_path = path;
        Descend(tree);
        while (!m_visited.empty()) {
            RaiseIfInterrupted();
            if (!VisitNext())
                return;
        }
    }

private:
    // Returns false at the end of the walk.
    bool VisitNext()
    {
        VisitedTree& visited = *m_visited.back();
        m_path.resize(visited.pathLength);
        if (!Next(visited)) {
            m_visited.pop_back();
            return true;
        }
        m_path += '/';
        m_path += m_node.name;
        const Step step = m_visit(m_path, m_node);
        if (step == Step::Into && m_node.type == NodeType::Directory)
            DescendInto();
        return step != Step::End;
    }

    bool Next(VisitedTree& visited)
    {
        try {
            return visited.reader.Next(m_node);
        } catch (const RepositoryError& error) {
            m_onFailure(PathOrRoot(), error);
            return false;
        }
    }

    void DescendInto()
    {
        try {
            REPOSITORY_RAISE_UNLESS(m_node.subtree, Repo::Failure::Damaged, "The directory has no tree");
            REPOSITORY_RAISE_UNLESS(m_visited.size() < DepthLimit, Repo::Failure::Damaged,
                                    "The directory is more than " << static_cast<unsigned long>(DepthLimit)
                                                                  << " levels deep");
        } catch (const RepositoryError& error) {
            m_onFailure(m_path, error);
            return;
        }
        Descend(*m_node.subtree);
    }

    void Descend(const Id& tree)
    {
        try {
            m_visited.push_back(
                OpenTree(m_repository, tree, m_path.size(),
                         [this](const RepositoryError& error) { m_onFailure(PathOrRoot(), error); }));
        } catch (const RepositoryError& error) {
            m_onFailure(PathOrRoot(), error);
        }
    }

    std::string PathOrRoot() const { return m_path.empty() ? "/" : m_path; }

    const Repo::Repository& m_repository;
    const EntryVisitor& m_visit;
    const TreeFailure& m_onFailure;
    std::vector<std::unique_ptr<VisitedTree>> m_visited;
    std::string m_path;
    Node m_node;
};

} // namespace

void WalkTree(const Repo::Repository& repository, const Id& tree, const std::string& path,
              const EntryVisitor& visit, const TreeFailure& onFailure)
{
    Walk(repository, visit, onFailure).Run(tree, path);
}

FoundEntry FindEntry(const Repo::Repository& repository, const Id& tree, const std::string& path)
{
    FoundEntry found{"/", {}};
    found.node.type = NodeType::Directory;
    found.node.mode = Repo::MakeNodeMode(040755);
    found.node.subtree = tree;
    std::string foundPath;
    const YString shown = YString(std::string_view(path));
    for (const std::string_view name : NamesOf(path)) {
        Node node;
        const bool isFound =
            Repo::Named([&] { return YString("No entry " + shown.Bytes() + " can be found: "); },
                        [&] {
                            if (found.node.type != NodeType::Directory)
                                return false;
                            REPOSITORY_RAISE_UNLESS(found.node.subtree, Repo::Failure::Damaged,
                                                    "the directory " << YString(std::string_view(foundPath))
                                                                     << " has no tree");
                            return FindInTree(repository, *found.node.subtree, name, node);
                        });
        KRT_RAISE_UNLESS(isFound, Krt::ErrorCode::InvalidArgument, "The snapshot has no entry " << shown);
        foundPath += "/" + node.name;
        found.node = std::move(node);
    }
    if (!foundPath.empty())
        found.path = foundPath;
    return found;
}

YString ReasonOfSearch(const Krt::Exception::YError& error)
{
    return error.GetCode() == Krt::ErrorCode::InvalidArgument ? "The snapshot has no entry of this path"
                                                              : ReasonOf(error);
}

} // namespace Agent
