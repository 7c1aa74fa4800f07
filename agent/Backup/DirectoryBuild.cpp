#include "agent/Backup/DirectoryBuild.h"

#include "agent/Repository/Sealing.h"
#include "agent/Repository/Tree.h"
#include "agent/Run/Text.h"

#include <algorithm>
#include <cstdint>

namespace Agent {

using Krt::Thread::AnnotatedLock;
using Repo::Node;

namespace {

// A header has 32 bits for the length of a blob, and zstd may add some bytes to it.
constexpr std::size_t LargestTree = UINT32_MAX - (64 << 20);

// The text of a tree around its nodes.
constexpr std::string_view TreeBegin = "{\"nodes\":[";
constexpr std::string_view TreeEnd = "]}\n";

} // namespace

Change ChangeSince(const std::string& before, const std::string& after)
{
    return before.empty() ? Change::New : before == after ? Change::Unchanged : Change::Modified;
}

double SecondsSince(std::chrono::steady_clock::time_point begin)
{
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
}

DirectoryBuild::DirectoryBuild(BuildContext& context, std::shared_ptr<DirectoryBuild> above, std::string name)
    : m_context(context), m_above(std::move(above)), m_name(std::move(name))
{}

std::string DirectoryBuild::GetPath() const
{
    std::vector<const DirectoryBuild*> directories;
    for (const DirectoryBuild* each = this; each->m_above != nullptr; each = each->m_above.get())
        directories.push_back(each);
    std::string path;
    for (; !directories.empty(); directories.pop_back())
        path += "/" + directories.back()->m_name;
    return path;
}

void DirectoryBuild::SetNode(Node node, std::string before)
{
    m_node = std::move(node);
    m_before = std::move(before);
}

void DirectoryBuild::SetTreeBefore(LoadedTree tree)
{
    m_treeBefore = tree.id;
    m_alike = TreeBegin.size();
    if (Repo::AsText(*tree.text).starts_with(TreeBegin))
        m_textBefore = std::move(tree.text);
}

void DirectoryBuild::Announce()
{
    const AnnotatedLock lock(m_mutex);
    ++m_pending;
    m_hasEntries = true;
}

void DirectoryBuild::Add(std::shared_ptr<DirectoryBuild> directory, const Node& node)
{
    std::string text;
    Repo::AppendNode(node, text);
    directory->Put(node.name, text);
    Drop(std::move(directory));
}

void DirectoryBuild::AddText(const std::string& name, std::string_view text)
{
    m_hasEntries = true;
    Put(name, text);
}

// A loop, since the last entry of a directory completes the directory, which may be the last one itself.
void DirectoryBuild::Drop(std::shared_ptr<DirectoryBuild> directory)
{
    while (directory != nullptr && directory->Release()) {
        const std::optional<std::string> text = directory->Complete();
        if (text && directory->m_above != nullptr)
            directory->m_above->Put(directory->m_node.name, *text);
        directory = directory->m_above;
    }
}

std::optional<Repo::Id> DirectoryBuild::GetTree() const
{
    const AnnotatedLock lock(m_mutex);
    return m_tree;
}

void DirectoryBuild::Put(const std::string& name, std::string_view text)
{
    const AnnotatedLock lock(m_mutex);
    if (IsNextOfTreeBefore(name, text)) {
        m_alike += m_entries.empty() ? 0 : 1; // the comma
        m_entries.push_back({name, m_alike, text.size()});
        m_alike += text.size();
        return;
    }
    CopyAlike();
    m_entries.push_back({name, m_text.size(), text.size()});
    m_text += text;
}

// Returns true if the text of the tree before goes on with this node.
bool DirectoryBuild::IsNextOfTreeBefore(const std::string& name, std::string_view text) const
{
    if (!m_textBefore)
        return false;
    const std::string_view rest = Repo::AsText(*m_textBefore).substr(m_alike);
    if (m_entries.empty())
        return rest.starts_with(text);
    return m_entries.back().name < name && rest.starts_with(',') && rest.substr(1).starts_with(text);
}

// Copies the nodes that are those of the tree before, since others follow.
void DirectoryBuild::CopyAlike()
{
    if (!m_textBefore)
        return;
    m_text = Repo::AsText(*m_textBefore).substr(0, m_alike);
    m_textBefore.reset();
}

// Returns true if the nodes make the tree before, byte by byte.
bool DirectoryBuild::IsTreeBefore() const
{
    return m_textBefore && Repo::AsText(*m_textBefore).substr(m_alike) == TreeEnd;
}

// Returns true if nothing is pending any more.
bool DirectoryBuild::Release()
{
    const AnnotatedLock lock(m_mutex);
    return --m_pending == 0;
}

// Stores the tree. Returns the JSON text of the directory's node, "" for the root; nothing if the directory
// is not part of the snapshot.
std::optional<std::string> DirectoryBuild::Complete()
{
    if (m_entries.empty() && (m_needsEntries || m_above == nullptr))
        return std::nullopt;
    if (m_text.size() + m_entries.size() > LargestTree) {
        m_context.onFailed(GetPath(),
                           "The directory has too many entries for the format: its tree would have " +
                               ShortSize(m_text.size()));
        return std::nullopt;
    }
    const StoredBlob stored = StoreTree();
    if (m_above == nullptr) {
        const AnnotatedLock lock(m_mutex);
        m_tree = stored.id;
        return "";
    }
    m_node.subtree = stored.id;
    std::string after;
    Repo::AppendNode(m_node, after);
    const Change change = ChangeSince(m_before, after);
    m_context.directories.Add(change);
    if (m_context.onStored)
        m_context.onStored(
            {GetPath() + "/", change, SecondsSince(m_begin), 0, 0, stored.added, stored.packed});
    return after;
}

// Stores the tree. The memory of the nodes is freed.
StoredBlob DirectoryBuild::StoreTree()
{
    if (IsTreeBefore()) {
        m_entries = {};
        return m_context.keep(*m_treeBefore, *std::exchange(m_textBefore, nullptr));
    }
    CopyAlike();
    const std::string tree = MakeTree();
    return m_context.store(Repo::AsBytes(tree), m_treeBefore);
}

// The tree's JSON text. The memory of the nodes is freed.
std::string DirectoryBuild::MakeTree()
{
    const auto byName = [](const Entry& a, const Entry& b) {
        return a.name < b.name;
    };
    if (!std::is_sorted(m_entries.begin(), m_entries.end(), byName))
        std::sort(m_entries.begin(), m_entries.end(), byName);
    std::string tree;
    tree.reserve(m_text.size() + m_entries.size() + 16);
    tree += TreeBegin;
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        const Entry& entry = m_entries[i];
        if (i != 0 && entry.name == m_entries[i - 1].name) {
            m_context.onFailed(GetPath() + "/" + entry.name, "The directory changed while it was walked");
            continue;
        }
        tree += i == 0 ? "" : ",";
        tree.append(m_text, entry.begin, entry.size);
    }
    tree += TreeEnd;
    m_text = {};
    m_entries = {};
    return tree;
}

} // namespace Agent
