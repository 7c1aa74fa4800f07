#include "agent/Walk/Walker.h"

#include "agent/Run/Text.h"
#include "agent/Walk/NameList.h"

#include "Backup/File/Unix/File.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <dirent.h>
#include <optional>
#include <sys/stat.h>

namespace Agent {

using Backup::File::YSelectionDescriptor;
using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;
using Krt::File::YPath;

namespace {

// The maximum number of descriptors that a walk keeps open. The directories above those are closed, and
// opened again when the walk returns to them.
constexpr std::size_t MaxOpenDirectories = 64;

// Compares paths name by name, so that everything below a directory comes right after it.
bool ComesBefore(const YPath& a, const YPath& b)
{
    const auto byteOrder = [](char x, char y) {
        const auto weight = [](char byte) {
            return byte == '/' ? 0u : 1u + static_cast<unsigned char>(byte);
        };
        return weight(x) < weight(y);
    };
    return std::lexicographical_compare(a.Bytes().begin(), a.Bytes().end(), b.Bytes().begin(),
                                        b.Bytes().end(), byteOrder);
}

} // namespace

bool WalkedEntry::IsDirectory() const
{
    if (!m_status && m_listedType != DT_UNKNOWN)
        return m_listedType == DT_DIR;
    return S_ISDIR(Status().st_mode);
}

Walker::Walker(const Backup::File::YSelectionManager& rules, std::set<YPath> roots, IWalkVisitor& visitor)
    : m_rules(rules), m_roots(roots.begin(), roots.end()), m_rootsToDo(std::move(roots)), m_visitor(visitor)
{
    std::sort(m_roots.begin(), m_roots.end(), ComesBefore);
}

Walker::~Walker() = default;

void Walker::Skip(const struct stat& directory)
{
    m_skipped = FileId(directory);
}

void Walker::Filter(const EntryFilter& filter, const std::set<YPath>& named)
{
    m_filter = filter.IsEmpty() ? nullptr : &filter;
    m_named = &named;
}

bool Walker::IsSkipped(const struct stat& directory) const
{
    return m_skipped == FileId(directory);
}

bool Walker::IsBelowSkipped(const YPath& root) const
{
    for (YPath above = root; above != "/";) {
        above = above.GetParent();
        if (IsSkipped(YDirectory::OpenToSearch(above).Stat()))
            return true;
    }
    return false;
}

void Walker::Run()
{
    for (const YPath& root : m_roots)
        TryRoot(root);
}

// Walks the root unless its walk has begun.
void Walker::TryRoot(const YPath& root)
{
    if (m_visitor.IsCancelled() || m_rootsToDo.erase(root) == 0 || (m_visits && !m_visits(root)))
        return;
    try {
        WalkRoot(root);
    } catch (const Krt::Exception::YError& error) {
        m_visitor.OnFailed(root, ReasonOf(error));
    }
}

// Walks the roots below an entry that is not entered.
void Walker::TryRootsBelow(const YPath& path)
{
    if (m_rootsToDo.empty())
        return;
    for (auto root = std::upper_bound(m_roots.begin(), m_roots.end(), path, ComesBefore);
         root != m_roots.end() && root->IsChildOf(path, false); ++root)
        TryRoot(*root);
}

void Walker::WalkRoot(const YPath& root)
{
    const std::size_t depth = m_visited.size();
    if (root == "/") {
        Enter(root, YDirectory::Open(root));
    } else if (IsBelowSkipped(root)) {
        m_visitor.OnSkipped(root);
    } else {
        const YDirectory parent = YDirectory::OpenToSearch(root.GetParent());
        VisitEntry(root, parent, YPath::GetFileFromPath(root, "/"), DT_UNKNOWN, true);
    }
    WalkEntered(depth);
}

// Walks the directories that were entered until `depth` of them are left.
void Walker::WalkEntered(std::size_t depth)
{
    while (m_visited.size() > depth) {
        VisitedDirectory& visited = m_visited.back();
        if (visited.next == visited.names.Size() || m_visitor.IsCancelled()) {
            m_visited.pop_back();
            continue;
        }
        const unsigned char type = visited.names.TypeAt(visited.next);
        const YString name(visited.names.NameAt(visited.next++));
        const YPath path = visited.path.Append(name);
        if (m_visits && !m_visits(path))
            continue;
        const std::size_t current = m_visited.size();
        try {
            VisitEntry(path, DirectoryOf(visited), name, type, m_rootsToDo.erase(path) != 0);
        } catch (const Krt::Exception::YError& error) {
            m_visitor.OnFailed(path, ReasonOf(error));
        }
        if (m_visited.size() == current)
            TryRootsBelow(path);
    }
}

void Walker::VisitEntry(const YPath& path, const YDirectory& parent, const YString& name, unsigned char type,
                        bool isRoot)
{
    const YSelectionDescriptor::SelectionType answer = m_rules.GetPathSelectionType(path);
    if (answer == YSelectionDescriptor::Exclude)
        m_visitor.OnExcluded(path);
    else if (answer != YSelectionDescriptor::Include)
        m_visitor.OnNotSelected(path);
    bool selected = answer == YSelectionDescriptor::Include;
    if (!selected && answer != YSelectionDescriptor::NotSelectedDoRecurse)
        return;
    if (!selected && type != DT_DIR && type != DT_UNKNOWN && !HasIncludeForAllNames(path))
        return;
    if (m_filter != nullptr) {
        if (const std::string_view by = LeftOutByName(path, name, isRoot); !by.empty()) {
            m_visitor.OnLeftOut(path, by);
            return;
        }
    }

    WalkedEntry entry(path, parent, name, type);
    if (!selected && !S_ISDIR(entry.Status().st_mode)) {
        selected = IsSelectedByRulesAtPath(entry);
        if (!selected)
            return;
    }
    if (m_filter != nullptr && m_filter->NeedsStatus()) {
        if (const std::string_view by = LeftOutByStatus(entry, isRoot); !by.empty()) {
            m_visitor.OnLeftOut(path, by);
            return;
        }
    }
    if (m_skipped && entry.IsDirectory() && IsSkipped(entry.Status())) {
        m_visitor.OnSkipped(path);
        return;
    }
    if (!MayEnter(entry, selected, isRoot))
        return;

    YDirectory directory = parent.OpenDirectory(name);
    if (const std::optional<struct stat>& known = entry.KnownStatus())
        KRT_RAISE_UNLESS(FileId(directory.Stat()) == FileId(*known), Krt::ErrorCode::InvalidState,
                         "The directory was replaced during the walk");
    Enter(path, std::move(directory));
}

// Returns what leaves the entry out; empty for nothing. A root that the user did not name is the place of a
// rule, to which patterns apply.
std::string_view Walker::LeftOutByName(const YPath& path, const YString& name, bool isRoot) const
{
    if (isRoot && m_named->contains(path))
        return {};
    if (!isRoot && !m_visited.empty()) {
        for (const std::string& mark : m_visited.back().marks) {
            if (mark != name.Bytes())
                return mark;
        }
    }
    if (!m_filter->patterns.IsEmpty() && m_filter->patterns.Match(path.Bytes()).matches)
        return "a pattern";
    return {};
}

std::string_view Walker::LeftOutByStatus(WalkedEntry& entry, bool isRoot) const
{
    if (!(isRoot && m_named->contains(entry.path)) && m_filter->IsTooLarge(entry.Status()))
        return "--exclude-larger-than";
    if (isRoot || m_visited.empty() || !m_filter->staysOnFileSystem ||
        entry.Status().st_dev == m_visited.back().device)
        return {};
    if (!S_ISDIR(entry.Status().st_mode))
        return "--one-file-system";
    entry.SetBoundary();
    return {};
}

// Returns true if this path has an include for all names.
bool Walker::HasIncludeForAllNames(const YPath& path) const
{
    const auto [node, isFound] = m_rules.FindNode(path, false);
    return isFound && node->HasAnyIncludes() &&
           node->VisitPathsAndDescriptors(
               YSelectionDescriptor::Include,
               [](const YPath&, const YSelectionDescriptor& rule) { return rule.CoversAllNames(); }, false);
}

// Rules apply to the entries of the directory that is their path. If the path is not a directory, they apply
// to the entry itself.
bool Walker::IsSelectedByRulesAtPath(const WalkedEntry& entry)
{
    if (!HasIncludeForAllNames(entry.path))
        return false;
    bool isReported = false;
    if (m_rules.PathMatchesExclude(entry.path.PopulateComponents(), isReported)) {
        if (isReported)
            m_visitor.OnExcluded(entry.path);
        return false;
    }
    if (S_ISLNK(entry.Status().st_mode))
        m_visitor.OnLinkTaken(entry.path);
    return true;
}

// Captures a selected entry, and returns true if it is a directory that may be entered.
bool Walker::MayEnter(const WalkedEntry& entry, bool selected, bool isRoot)
{
    const bool listedAsDirectory = entry.IsDirectory();
    bool followable = false;
    try {
        if (selected)
            followable = m_visitor.OnSelected(entry);
        else if (!entry.IsBoundary())
            followable = Backup::File::IsFollowableDirectoryFromKrtAttributes(entry.path,
                                                                              Krt::File::AttributeDirectory);
    } catch (const Krt::Exception::YError& error) {
        m_visitor.OnFailed(entry.path, ReasonOf(error));
        // The entries below a directory that the user named are walked nevertheless.
        return listedAsDirectory && isRoot;
    }
    if (entry.IsBoundary())
        return false;
    if (followable)
        return !entry.KnownStatus() || entry.IsDirectory();
    // The listing may be outdated.
    if (!entry.IsDirectory() || !S_ISDIR(entry.Status().st_mode))
        return false;
    if (isRoot)
        m_visitor.OnMountEntered(entry.path);
    else
        m_visitor.OnMountNotEntered(entry.path);
    return isRoot;
}

void Walker::Enter(const YPath& path, YDirectory directory)
{
    NameList names(directory);
    dev_t device = 0;
    std::vector<std::string> marks;
    if (m_filter != nullptr && m_filter->staysOnFileSystem)
        device = directory.Stat().st_dev;
    if (m_filter != nullptr && !m_filter->marks.empty())
        marks = m_filter->MarksIn(directory, names);
    m_visited.push_back({path, std::move(directory), {}, std::move(names), 0, device, std::move(marks)});
    if (m_visited.size() > MaxOpenDirectories)
        Close(m_visited[m_visited.size() - MaxOpenDirectories - 1]);
    m_visitor.OnEntered(path);
}

void Walker::Close(VisitedDirectory& visited)
{
    if (!visited.directory)
        return;
    visited.closed = FileId(visited.directory->Stat());
    visited.directory.reset();
}

const YDirectory& Walker::DirectoryOf(VisitedDirectory& visited)
{
    if (!visited.directory) {
        YDirectory directory = YDirectory::OpenToSearch(visited.path);
        KRT_RAISE_UNLESS(FileId(directory.Stat()) == visited.closed, Krt::ErrorCode::InvalidState,
                         "The directory above was replaced during the walk");
        visited.directory = std::move(directory);
    }
    return *visited.directory;
}

} // namespace Agent
