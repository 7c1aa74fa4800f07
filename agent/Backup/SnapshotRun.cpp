#include "agent/Backup/SnapshotRun.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Backup/File/Unix/File.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <filesystem>
#include <unistd.h>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;
using Krt::File::YPath;
using Repo::Id;
using Repo::Node;
using Repo::NodeType;
using Repo::Timestamp;

namespace {

constexpr std::int64_t CoarsestClock = 2; // seconds between two times that a file system distinguishes
constexpr std::string_view Replacement = "\xEF\xBF\xBD"; // in place of bytes that are not UTF-8

// The instant, whatever the zone, which takes longer to find. Local replaces years that have no text.
Timestamp InstantOf(const timespec& time)
{
    constexpr std::int64_t Last = INT64_C(4000000000); // in the year 2096
    return time.tv_sec >= 0 && time.tv_sec <= Last
               ? Timestamp{time.tv_sec, static_cast<std::uint32_t>(time.tv_nsec), 0}
               : Timestamp::Local(time.tv_sec, static_cast<std::uint32_t>(time.tv_nsec));
}

// Times from this one on may hide a change that came after the parent was made. Its own time may have been
// chosen by the user, even in the future.
std::optional<Timestamp> TrustedBefore(const std::optional<Repo::Snapshot>& parent)
{
    if (!parent)
        return std::nullopt;
    const bool hasStart =
        parent->summary && parent->summary->backupStart.seconds != Timestamp::UnknownSeconds;
    Timestamp time = std::min(parent->time, hasStart ? parent->summary->backupStart : Timestamp::Now());
    time.seconds -= CoarsestClock;
    return time;
}

// Returns true if the user of the parent saw all attributes that this process sees.
bool SawAllAttributes(const std::optional<Repo::Snapshot>& parent)
{
    return parent && (parent->uid == 0 || parent->uid == geteuid());
}

std::string DirectoryOf(const std::string& path)
{
    return path.substr(0, path.rfind('/'));
}

std::string TextOf(const Node& node)
{
    std::string text;
    Repo::AppendNode(node, text);
    return text;
}

YPath PathOf(const std::string& path)
{
    return YPath(YString(path.empty() ? "/" : path));
}

// `device` is that of the directory, and `above` that of the directory above. If they are equal, the
// directory is not a mount point, so that the policy lets the walk enter it.
bool MayEnter(const WalkedEntry& directory, dev_t device, std::optional<std::uint64_t> above)
{
    return !directory.IsBoundary() &&
           (device == above || Backup::File::IsFollowableDirectoryFromKrtAttributes(
                                   directory.path, Krt::File::AttributeDirectory));
}

// Counts an entry that is left out. One that can't be examined is not counted, which is not a failure.
void Examine(const YPath& path, LeftOut& counts)
{
    struct stat status = {};
    if (lstat(path.CStr(), &status) != 0)
        return;
    ++(S_ISDIR(status.st_mode) ? counts.dirs : counts.others);
    counts.bytes += S_ISREG(status.st_mode) ? static_cast<std::uint64_t>(status.st_size) : 0;
}

Node StreamNode(const std::string& name, NodeType type, unsigned int statMode)
{
    Node node;
    node.name = name;
    node.type = type;
    node.mode = Repo::MakeNodeMode(statMode);
    node.mtime = node.atime = node.ctime = Timestamp::Now();
    return node;
}

} // namespace

struct SnapshotRun::VisitedDirectory
{
    std::shared_ptr<DirectoryBuild> build;
    std::string path;
    std::optional<std::uint64_t> device; // unknown for the root of the snapshot
    std::unique_ptr<ParentTree> before;
};

SnapshotRun::SnapshotRun(const Repo::Repository& repository, Repo::BlobSaver& saver, Report& report,
                         SnapshotRunOptions options)
    : m_repository(repository), m_report(report), m_options(std::move(options)),
      m_trustedBefore(TrustedBefore(m_options.parent)),
      m_trustsAttributes(SawAllAttributes(m_options.parent)), m_build(repository, saver, report, m_options)
{
    m_visited.push_back({m_build.GetRoot(), "", {}, nullptr});
    if (m_options.parent)
        LoadBefore(m_visited.back(), m_options.parent->tree);
}

SnapshotRun::~SnapshotRun() = default;

bool SnapshotRun::OnSelected(const WalkedEntry& entry)
{
    m_build.Tick();
    const struct stat& status = entry.Status();
    if (S_ISSOCK(status.st_mode)) {
        ++m_sockets;
        return false;
    }
    VisitedDirectory& visited = VisitDirectory(DirectoryOf(entry.path.Bytes()));
    Node* const before = FindBefore(visited, entry.name.Bytes());
    if (before != nullptr && IsNodeUnchanged(*before, status)) {
        if (before->type == NodeType::File) {
            const bool isOther = m_capture.Renew(status, *before);
            const std::string renewed = isOther ? TextOf(*before) : "";
            const std::string_view text = isOther ? renewed : visited.before->GetText();
            AddUnmodified(visited, status, *before, text);
            return false;
        }
        Node node = *before;
        m_capture.Renew(status, node);
        node.subtree.reset();
        const bool mayEnter = MayEnter(entry, status.st_dev, visited.device);
        Push(std::move(node), before, false);
        return mayEnter;
    }

    CapturedEntry captured = Capture(entry.parent, entry.name, entry.path, status);
    if (captured.node.type == NodeType::Socket) { // it was another entry before
        ++m_sockets;
        return false;
    }
    const bool mayEnter =
        captured.node.type == NodeType::Directory && MayEnter(entry, captured.status.st_dev, visited.device);
    if (captured.node.type == NodeType::Directory) {
        Push(std::move(captured.node), before, false);
    } else if (captured.node.type != NodeType::File) {
        ++m_others;
        visited.build->Announce();
        DirectoryBuild::Add(visited.build, captured.node);
    } else if (before != nullptr && IsContentUnchanged(*before, captured.status)) {
        captured.node.content = before->content;
        AddUnmodified(visited, captured.status, captured.node, TextOf(captured.node));
    } else {
        AddFile(visited, std::move(captured), before);
    }
    return mayEnter;
}

// Returns true if the status proves that the entry has not changed since the parent was made.
bool SnapshotRun::IsTrusted(const Node& before, const struct stat& status) const
{
    if (!m_trustedBefore || before.type != NodeTypeOf(status.st_mode))
        return false;
    const bool ignoresChangeTime = m_options.ignoresChangeTime || m_options.ignoresInode;
    const Timestamp write = InstantOf(Krt::File::WriteTime(status));
    const Timestamp change = InstantOf(Krt::File::ChangeTime(status));
    return write == before.mtime && write < *m_trustedBefore &&
           (ignoresChangeTime || (change == before.ctime && change < *m_trustedBefore)) &&
           (m_options.ignoresInode || status.st_ino == before.inode);
}

// Returns true if the repository has a blob of a file of the parent.
bool SnapshotRun::HasContentOfParent(const Id& id)
{
    const Repo::BlobHandle handle{Repo::BlobType::Data, id};
    if (m_repository.HasBlob(handle))
        return true;
    if (!m_repository.GetIndex().Has(handle))
        m_build.NoteLackingIndex();
    return false;
}

bool SnapshotRun::IsContentUnchanged(const Node& before, const struct stat& status)
{
    return before.type == NodeType::File && before.content && IsTrusted(before, status) &&
           before.size == static_cast<std::uint64_t>(status.st_size) &&
           std::all_of(before.content->begin(), before.content->end(),
                       [this](const Id& id) { return HasContentOfParent(id); });
}

// Returns true if the attributes and the content of a file or directory are those of the parent's node. The
// change time proves it. But older programs lose names of attributes that are not UTF-8, another user may not
// have seen all attributes, and a node with an error lacks some.
bool SnapshotRun::IsNodeUnchanged(const Node& before, const struct stat& status)
{
    const bool isKind = S_ISDIR(status.st_mode) || S_ISREG(status.st_mode);
    if (!isKind || !m_trustsAttributes || !before.error.empty() || !IsTrusted(before, status) ||
        status.st_ino != before.inode)
        return false;
    const Timestamp change = InstantOf(Krt::File::ChangeTime(status));
    if (change != before.ctime || change >= *m_trustedBefore)
        return false;
    if (std::any_of(before.attributes.begin(), before.attributes.end(),
                    [](const Repo::NodeAttribute& attribute) {
                        return attribute.name.find(Replacement) != std::string::npos;
                    }))
        return false;
    return S_ISDIR(status.st_mode) || IsContentUnchanged(before, status);
}

// The text is that of the node.
void SnapshotRun::AddUnmodified(VisitedDirectory& visited, const struct stat& status, const Node& node,
                                std::string_view text)
{
    if (LinkedContents::MayHave(status))
        m_links.Forget(status);
    m_build.CountFile(Change::Unchanged, node.size);
    if (m_build.ReportsStored())
        m_build.PostStored({visited.path + "/" + node.name, Change::Unchanged});
    m_build.CountUnread(node.size);
    visited.build->AddText(node.name, text);
}

void SnapshotRun::AddFile(VisitedDirectory& visited, CapturedEntry captured, const Node* before)
{
    visited.build->Announce();
    std::string path = visited.path + "/" + captured.node.name;
    LinkedContents::Completion onDone =
        [this, directory = visited.build, node = std::move(captured.node),
         beforeText = before == nullptr ? "" : TextOf(*before)](const StoredContent& content) mutable {
            FileDone(directory, node, beforeText, content);
        };
    if (LinkedContents::MayHave(captured.status)) {
        onDone = m_links.Join(captured.status, std::move(onDone));
        if (!onDone)
            return;
    }
    m_build.AddContent(
        {std::move(captured.file), std::move(path), std::move(onDone), false, captured.status});
}

void SnapshotRun::AddStream(const std::string& path, std::shared_ptr<const Krt::Util::YUnxHandle> stream)
{
    for (std::size_t begin = 1;;) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        const std::string name = path.substr(begin, end - begin);
        VisitedDirectory& above = m_visited.back();
        const Node* const before = FindBefore(above, name);
        begin = end + 1;
        if (end < path.size()) {
            Push(StreamNode(name, NodeType::Directory, S_IFDIR | 0755), before, true);
            continue;
        }
        above.build->Announce();
        m_build.AddContent(
            {std::move(stream), path,
             [this, directory = above.build, node = StreamNode(name, NodeType::File, S_IFREG | 0644),
              isNew = before == nullptr](const StoredContent& content) mutable {
                 StreamDone(directory, node, isNew, content);
             },
             true});
        return;
    }
}

// Completes the node of a stream. Any thread.
void SnapshotRun::StreamDone(const std::shared_ptr<DirectoryBuild>& directory, Node& node, bool isNew,
                             const StoredContent& content)
{
    const std::string path = directory->GetPath() + "/" + node.name;
    if (!content.failure.empty() || content.size == 0) {
        m_build.Post(path, content.failure.empty() ? "Standard input has no data" : content.failure, true);
        DirectoryBuild::Drop(directory);
        return;
    }
    node.size = content.size;
    node.links = 1;
    node.content = content.blobs;
    const Change change = isNew ? Change::New : Change::Modified;
    m_build.CountFile(change, node.size);
    if (m_build.ReportsStored())
        m_build.PostStored({path, change, SecondsSince(content.begin), content.added, content.packed});
    DirectoryBuild::Add(directory, node);
}

// Completes the node of a file. Any thread.
void SnapshotRun::FileDone(const std::shared_ptr<DirectoryBuild>& directory, Node& node,
                           const std::string& before, const StoredContent& content)
{
    const auto path = [&] {
        return directory->GetPath() + "/" + node.name;
    };
    if (!content.failure.empty()) {
        m_build.Post(path(), content.failure, true);
        DirectoryBuild::Drop(directory);
        return;
    }
    const Timestamp captured = node.ctime;
    SetFileStatus(content.status, node);
    node.ctime = captured; // of the mode, the owner and the attributes, which a later change time would prove
    node.size = content.size;
    node.content = content.blobs;
    if (content.isChanged)
        m_build.Post(path(), "Warning: the file changed while it was read, and was stored as it was read",
                     false);
    const Change change = before.empty() ? Change::New : ChangeSince(before, TextOf(node));
    m_build.CountFile(change, node.size);
    if (m_build.ReportsStored())
        m_build.PostStored({path(), change, SecondsSince(content.begin), content.added, content.packed});
    DirectoryBuild::Add(directory, node);
}

SnapshotRun::VisitedDirectory& SnapshotRun::VisitDirectory(const std::string& directory)
{
    const auto isAbove = [&directory](const std::string& path) {
        return directory.starts_with(path) &&
               (directory.size() == path.size() || directory[path.size()] == '/');
    };
    while (!isAbove(m_visited.back().path))
        Pop();
    for (;;) {
        const std::size_t done = m_visited.back().path.size();
        if (done == directory.size())
            return m_visited.back();
        const std::size_t end = std::min(directory.find('/', done + 1), directory.size());
        EnterUnselected(directory.substr(done + 1, end - done - 1));
    }
}

// Enters a directory that leads to a selected entry, and is not selected itself.
void SnapshotRun::EnterUnselected(const std::string& name)
{
    VisitedDirectory& visited = m_visited.back();
    std::string path = visited.path + "/" + name;
    struct stat status = YDirectory::OpenToSearch(PathOf(visited.path)).Stat(YString(name));
    if (S_ISLNK(status.st_mode)) {
        // What a symlink on the path leads to has the metadata of the directory.
        std::error_code error;
        path = std::filesystem::canonical(path, error).string();
        if (error)
            KRT_RAISE_OS(error.value(), "Can't resolve " << path.c_str());
    }
    const YDirectory parent = YDirectory::OpenToSearch(PathOf(DirectoryOf(path)));
    const YString realName(path.substr(path.rfind('/') + 1));
    status = parent.Stat(realName);
    KRT_RAISE_UNLESS(S_ISDIR(status.st_mode), Krt::ErrorCode::InvalidState,
                     YString(path) << " is not a directory");
    CapturedEntry captured = Capture(parent, realName, PathOf(path), status);
    captured.node.name = name;
    Push(std::move(captured.node), FindBefore(visited, name), true);
}

CapturedEntry SnapshotRun::Capture(const YDirectory& parent, const YString& name, const YPath& path,
                                   const struct stat& status)
{
    CapturedEntry captured = m_capture.Capture(parent, name, path, status);
    if (!captured.node.error.empty())
        m_build.Post(path.Bytes(), captured.node.error + "; the entry is stored without extended attributes",
                     true);
    return captured;
}

// Loads the tree that the directory has in the parent, if it can be used.
void SnapshotRun::LoadBefore(VisitedDirectory& visited, const Id& tree)
{
    try {
        visited.before = std::make_unique<ParentTree>(m_repository, tree);
        visited.build->SetTreeBefore(visited.before->GetTree());
    } catch (const Repo::RepositoryError& error) {
        RaiseIfInterrupted();
        if (!m_repository.GetIndex().Has({Repo::BlobType::Tree, tree}))
            m_build.NoteLackingIndex();
        m_build.PostLoss(visited.path, "the parent's tree can't be used: " + ReasonOf(error).Bytes());
    }
}

void SnapshotRun::Push(Node node, const Node* before, bool needsEntries)
{
    VisitedDirectory& above = m_visited.back();
    VisitedDirectory visited;
    visited.build = m_build.AddDirectory(above.build, node.name);
    visited.path = above.path + "/" + node.name;
    visited.device = node.deviceId;
    if (needsEntries)
        visited.build->SetNeedsEntries();
    if (before != nullptr && before->type == NodeType::Directory && before->subtree)
        LoadBefore(visited, *before->subtree);
    visited.build->SetNode(std::move(node), before == nullptr ? "" : TextOf(*before));
    m_visited.push_back(std::move(visited));
}

void SnapshotRun::Pop()
{
    const std::shared_ptr<DirectoryBuild> build = std::move(m_visited.back().build);
    m_visited.pop_back();
    DirectoryBuild::Close(build);
}

Node* SnapshotRun::FindBefore(VisitedDirectory& visited, const std::string& name)
{
    if (!visited.before)
        return nullptr;
    try {
        return visited.before->Find(name);
    } catch (const Repo::RepositoryError& error) {
        m_build.PostLoss(visited.path, "the parent's tree can't be used: " + ReasonOf(error).Bytes());
        visited.before.reset();
        return nullptr;
    }
}

std::optional<Id> SnapshotRun::Finish()
{
    m_build.RaiseFailure();
    RaiseIfInterrupted();
    while (!m_visited.empty())
        Pop();
    return m_build.Finish();
}

SnapshotCounts SnapshotRun::Complete(SnapshotCounts counts) const
{
    counts.others = m_others;
    counts.sockets = m_sockets;
    counts.excluded = m_excluded;
    counts.leftOut = m_leftOut;
    counts.byRules = m_byRules;
    counts.byOptions = m_byOptions;
    return counts;
}

void SnapshotRun::OnExcluded(const YPath& path)
{
    ++m_excluded;
    if (m_options.isDryRun)
        Examine(path, m_byRules);
    if (m_options.reportsExcluded)
        m_report.Note(YString("excluded: ") + path);
}

void SnapshotRun::OnLeftOut(const YPath& path, std::string_view by)
{
    ++m_leftOut;
    if (m_options.isDryRun)
        Examine(path, m_byOptions);
    if (m_options.reportsExcluded)
        m_report.Note(YString("excluded by ") + YString(by) + ": " + path);
}

void SnapshotRun::OnMountNotEntered(const YPath& path)
{
    m_report.Note(YString("mount point not entered: ") + path);
}

void SnapshotRun::OnMountEntered(const YPath& path)
{
    m_report.Note(YString(path) +
                  " is a mount point that a walk would not enter; it is entered since it was named");
}

void SnapshotRun::OnLinkTaken(const YPath& path)
{
    m_report.Note(YString("Warning: ") + path +
                  " is a link, which is stored itself; for what it leads to, the job must name that path");
}

void SnapshotRun::OnSkipped(const YPath& path)
{
    m_report.Note(YString(path) + " is the repository itself or is in it, and is left out");
}

void SnapshotRun::OnFailed(const YPath& path, const YString& reason)
{
    // Neither an interrupt by the user nor the end of the run is a failure of the entry.
    if (IsInterrupted() || m_build.HasFailed())
        return;
    m_build.ReportMessages();
    m_report.EntryFailed(path, reason);
    const VisitedDirectory& visited = m_visited.back();
    if (visited.path == path.Bytes() && !visited.build->HasEntries())
        visited.build->SetNeedsEntries(); // it could not be listed
}

bool SnapshotRun::IsCancelled()
{
    return IsInterrupted() || m_build.HasFailed();
}

} // namespace Agent
