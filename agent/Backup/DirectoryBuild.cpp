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

void DirectoryBuild::SetNode(Node node, std::string before, std::optional<Repo::Id> soundTree)
{
    m_node = std::move(node);
    m_before = std::move(before);
    m_soundTree = soundTree;
}

void DirectoryBuild::Announce()
{
    const AnnotatedLock lock(m_mutex);
    ++m_pending;
    m_hasEntries = true;
}

void DirectoryBuild::Add(std::shared_ptr<DirectoryBuild> directory, const Node& node)
{
    directory->Put(node);
    Drop(std::move(directory));
}

void DirectoryBuild::AddText(const std::string& name, std::string_view text)
{
    const AnnotatedLock lock(m_mutex);
    m_hasEntries = true;
    m_entries.push_back({name, m_text.size(), text.size()});
    m_text += text;
}

// A loop, since the last entry of a directory completes the directory, which may be the last one itself.
void DirectoryBuild::Drop(std::shared_ptr<DirectoryBuild> directory)
{
    while (directory != nullptr && directory->Release()) {
        if (directory->Complete() && directory->m_above != nullptr)
            directory->m_above->Put(directory->m_node);
        directory = directory->m_above;
    }
}

std::optional<Repo::Id> DirectoryBuild::GetTree() const
{
    const AnnotatedLock lock(m_mutex);
    return m_tree;
}

void DirectoryBuild::Put(const Node& node)
{
    const AnnotatedLock lock(m_mutex);
    const std::size_t begin = m_text.size();
    Repo::AppendNode(node, m_text);
    m_entries.push_back({node.name, begin, m_text.size() - begin});
}

// Returns true if nothing is pending any more.
bool DirectoryBuild::Release()
{
    const AnnotatedLock lock(m_mutex);
    return --m_pending == 0;
}

// Stores the tree. Returns false if the directory is not part of the snapshot.
bool DirectoryBuild::Complete()
{
    if (m_entries.empty() && (m_needsEntries || m_above == nullptr))
        return false;
    if (m_text.size() + m_entries.size() > LargestTree) {
        m_context.onFailed(GetPath(),
                           "The directory has too many entries for the format: its tree would have " +
                               ShortSize(m_text.size()));
        return false;
    }
    const std::string tree = MakeTree();
    const StoredBlob stored = m_context.store(Repo::AsBytes(tree), m_soundTree);
    if (m_above == nullptr) {
        const AnnotatedLock lock(m_mutex);
        m_tree = stored.id;
        return true;
    }
    m_node.subtree = stored.id;
    std::string after;
    Repo::AppendNode(m_node, after);
    const Change change = ChangeSince(m_before, after);
    m_context.directories.Add(change);
    if (m_context.onStored)
        m_context.onStored(
            {GetPath() + "/", change, SecondsSince(m_begin), 0, 0, stored.added, stored.packed});
    return true;
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
    tree += "{\"nodes\":[";
    for (std::size_t i = 0; i < m_entries.size(); ++i) {
        const Entry& entry = m_entries[i];
        if (i != 0 && entry.name == m_entries[i - 1].name) {
            m_context.onFailed(GetPath() + "/" + entry.name, "The directory changed while it was walked");
            continue;
        }
        tree += i == 0 ? "" : ",";
        tree.append(m_text, entry.begin, entry.size);
    }
    tree += "]}\n";
    m_text = {};
    m_entries = {};
    return tree;
}

} // namespace Agent
