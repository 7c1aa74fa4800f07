#include "agent/Backup/SnapshotRun.h"

#include "agent/Access/Workers.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Backup/File/Unix/File.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <filesystem>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;
using Krt::File::YPath;
using Repo::BlobType;
using Repo::Id;
using Repo::Node;
using Repo::NodeType;
using Repo::Timestamp;

namespace {

constexpr std::chrono::milliseconds BetweenTicks{100};
constexpr std::int64_t CoarsestClock = 2; // seconds between two times that a file system tells apart
constexpr std::string_view Replacement = "\xEF\xBF\xBD"; // in place of bytes that are not UTF-8

// Times from this one on may hide a change that came after the parent was made. Its own time may have been
// chosen by the user.
std::optional<Timestamp> TrustedBefore(const std::optional<Repo::Snapshot>& parent)
{
    if (!parent)
        return std::nullopt;
    Timestamp time = parent->time;
    if (parent->summary && parent->summary->backupStart.seconds != Timestamp::UnknownSeconds)
        time = std::min(time, parent->summary->backupStart);
    time.seconds -= CoarsestClock;
    return time;
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

} // namespace

struct SnapshotRun::VisitedDirectory
{
    std::shared_ptr<DirectoryBuild> build;
    std::unique_ptr<ParentTree> before;
};

// An error that the call raises ends the run. The walk would take it for the failure of an entry.
template <class Call>
void SnapshotRun::EndRunOnError(const Call& call)
{
    try {
        call();
    } catch (...) {
        const std::lock_guard guard(m_mutex);
        if (!m_failure)
            m_failure = std::current_exception();
        m_isFailed = true;
        throw;
    }
}

SnapshotRun::SnapshotRun(const Repo::Repository& repository, Repo::BlobSaver& saver, Report& report,
                         SnapshotRunOptions options)
    : m_repository(repository), m_saver(saver), m_report(report), m_options(std::move(options)),
      m_trustedBefore(TrustedBefore(m_options.parent)), m_lastTick(std::chrono::steady_clock::now()),
      m_pool(
          repository.GetConfig().polynomial,
          [this](BlobType type, Repo::ByteView plaintext) { return StoreBlob(type, plaintext); },
          PoolOptions{.threads = WorkerCount(), .readers = std::max(1u, m_options.readers), .onWait = [this] {
                          RaiseIfInterrupted();
                          Tick();
                      }})
{
    m_context.store = [this](BlobType type, Repo::ByteView plaintext) {
        return StoreBlob(type, plaintext);
    };
    m_context.onFailed = [this](const std::string& path, const std::string& reason) {
        Post(path, reason, true);
    };
    m_root = std::make_shared<DirectoryBuild>(m_context, nullptr, "");
    m_visited.push_back({m_root, nullptr});
    if (m_options.parent) {
        try {
            m_visited.back().before = std::make_unique<ParentTree>(m_repository, m_options.parent->tree);
        } catch (const Repo::RepositoryError& error) {
            m_report.Note("Warning: the parent can't be used: " + ReasonOf(error));
        }
    }
}

SnapshotRun::~SnapshotRun() = default;

bool SnapshotRun::OnSelected(const WalkedEntry& entry)
{
    EndRunOnError([this] {
        Tick();
        m_pool.RaiseFailure();
    });
    const struct stat& status = entry.Status();
    if (S_ISSOCK(status.st_mode)) {
        ++m_sockets;
        return false;
    }
    VisitedDirectory& visited = VisitDirectory(DirectoryOf(entry.path.Bytes()));
    Node* const before = FindBefore(visited, entry.name.Bytes());
    if (before != nullptr && IsNodeUnchanged(*before, status)) {
        if (before->type == NodeType::File) {
            m_capture.Renew(status, *before);
            AddUnmodified(visited, status, *before);
            return false;
        }
        Node node = *before;
        m_capture.Renew(status, node);
        node.subtree.reset();
        const bool mayEnter =
            Backup::File::IsFollowableDirectoryFromKrtAttributes(entry.path, Krt::File::AttributeDirectory);
        Push(std::move(node), before, false);
        return mayEnter;
    }

    CapturedEntry captured = m_capture.Capture(entry.parent, entry.name, entry.path, status);
    const bool mayEnter = captured.mayEnter;
    if (captured.node.type == NodeType::Directory) {
        Push(std::move(captured.node), before, false);
    } else if (captured.node.type != NodeType::File) {
        ++m_others;
        visited.build->Announce();
        DirectoryBuild::Add(visited.build, captured.node);
    } else if (before != nullptr && IsContentUnchanged(*before, captured.status)) {
        captured.node.content = before->content;
        AddUnmodified(visited, captured.status, captured.node);
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
    const Timestamp write = WriteTimeOf(status);
    const Timestamp change = ChangeTimeOf(status);
    return write == before.mtime && write < *m_trustedBefore &&
           (ignoresChangeTime || (change == before.ctime && change < *m_trustedBefore)) &&
           (m_options.ignoresInode || status.st_ino == before.inode);
}

bool SnapshotRun::IsContentUnchanged(const Node& before, const struct stat& status) const
{
    return before.type == NodeType::File && before.content && IsTrusted(before, status) &&
           before.size == static_cast<std::uint64_t>(status.st_size) &&
           std::all_of(before.content->begin(), before.content->end(), [this](const Id& id) {
               return m_repository.GetIndex().Has({BlobType::Data, id});
           });
}

// Returns true if the attributes and the content of a file or directory are those of the parent's node. The
// change time proves it. Older programs lose names of attributes that are not UTF-8.
bool SnapshotRun::IsNodeUnchanged(const Node& before, const struct stat& status) const
{
    const bool isKind = S_ISDIR(status.st_mode) || S_ISREG(status.st_mode);
    if (!isKind || !IsTrusted(before, status) || status.st_ino != before.inode ||
        ChangeTimeOf(status) != before.ctime || ChangeTimeOf(status) >= *m_trustedBefore)
        return false;
    if (std::any_of(before.attributes.begin(), before.attributes.end(),
                    [](const Repo::NodeAttribute& attribute) {
                        return attribute.name.find(Replacement) != std::string::npos;
                    }))
        return false;
    return S_ISDIR(status.st_mode) || IsContentUnchanged(before, status);
}

void SnapshotRun::AddUnmodified(VisitedDirectory& visited, const struct stat& status, const Node& node)
{
    if (LinkedContents::MayHave(status))
        m_links.Forget(status);
    m_bytes += node.size;
    m_unreadBytes += node.size;
    ++m_files.isUnmodified;
    visited.build->Announce();
    DirectoryBuild::Add(visited.build, node);
}

void SnapshotRun::AddFile(VisitedDirectory& visited, CapturedEntry captured, const Node* before)
{
    visited.build->Announce();
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
    EndRunOnError([&] { m_pool.Add({std::move(captured.file), std::move(onDone)}); });
}

// Completes the node of a file. Any thread.
void SnapshotRun::FileDone(const std::shared_ptr<DirectoryBuild>& directory, Node& node,
                           const std::string& before, const StoredContent& content)
{
    const std::string path = directory->GetPath() + "/" + node.name;
    if (!content.failure.empty()) {
        Post(path, content.failure, true);
        DirectoryBuild::Drop(directory);
        return;
    }
    SetFileStatus(content.status, node);
    node.size = content.size;
    node.content = content.blobs;
    if (content.isChanged)
        Post(path, "The file changed while it was read", false);
    m_bytes += node.size;
    ++(before.empty() ? m_files.isNew : before == TextOf(node) ? m_files.isUnmodified : m_files.isChanged);
    DirectoryBuild::Add(directory, node);
}

SnapshotRun::VisitedDirectory& SnapshotRun::VisitDirectory(const std::string& directory)
{
    const auto isAbove = [&directory](const std::string& path) {
        return directory.starts_with(path) &&
               (directory.size() == path.size() || directory[path.size()] == '/');
    };
    while (!isAbove(m_visited.back().build->GetPath()))
        Pop();
    for (;;) {
        const std::size_t done = m_visited.back().build->GetPath().size();
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
    std::string path = visited.build->GetPath() + "/" + name;
    struct stat status = YDirectory::OpenToSearch(PathOf(visited.build->GetPath())).Stat(YString(name));
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
    CapturedEntry captured = m_capture.Capture(parent, realName, PathOf(path), status);
    captured.node.name = name;
    Push(std::move(captured.node), FindBefore(visited, name), true);
}

void SnapshotRun::Push(Node node, const Node* before, bool needsEntries)
{
    VisitedDirectory& above = m_visited.back();
    VisitedDirectory visited;
    visited.build =
        std::make_shared<DirectoryBuild>(m_context, above.build, above.build->GetPath() + "/" + node.name);
    if (needsEntries)
        visited.build->SetNeedsEntries();
    const bool isBefore = before != nullptr && before->type == NodeType::Directory && before->subtree;
    if (isBefore) {
        try {
            visited.before = std::make_unique<ParentTree>(m_repository, *before->subtree);
        } catch (const Repo::RepositoryError& error) {
            RaiseIfInterrupted();
            Post(visited.build->GetPath(),
                 "Warning: the parent's tree can't be used: " + ReasonOf(error).Bytes(), false);
        }
    }
    visited.build->SetNode(std::move(node), before == nullptr ? "" : TextOf(*before));
    above.build->Announce();
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
        Post(visited.build->GetPath(), "Warning: the parent's tree can't be used: " + ReasonOf(error).Bytes(),
             false);
        visited.before.reset();
        return nullptr;
    }
}

std::optional<Id> SnapshotRun::Finish()
{
    {
        const std::lock_guard guard(m_mutex);
        if (m_failure)
            std::rethrow_exception(m_failure);
    }
    RaiseIfInterrupted();
    while (!m_visited.empty())
        Pop();
    m_pool.Finish();
    ReportMessages();
    RaiseIfInterrupted();
    return m_root->GetTree();
}

SnapshotCounts SnapshotRun::GetCounts() const
{
    SnapshotCounts counts;
    counts.filesNew = m_files.isNew;
    counts.filesChanged = m_files.isChanged;
    counts.filesUnmodified = m_files.isUnmodified;
    counts.dirsNew = m_context.directories.isNew;
    counts.dirsChanged = m_context.directories.isChanged;
    counts.dirsUnmodified = m_context.directories.isUnmodified;
    counts.others = m_others;
    counts.bytes = m_bytes;
    counts.sockets = m_sockets;
    counts.excluded = m_excluded;
    const std::lock_guard guard(m_mutex);
    counts.data = m_options.isDryRun ? m_drySaved[0] : m_saver.GetSaved(BlobType::Data);
    counts.trees = m_options.isDryRun ? m_drySaved[1] : m_saver.GetSaved(BlobType::Tree);
    return counts;
}

SnapshotCounts SnapshotRun::GetProgress() const
{
    SnapshotCounts counts = GetCounts();
    counts.bytes = std::max(counts.bytes, m_unreadBytes + m_pool.GetReadBytes());
    return counts;
}

Id SnapshotRun::StoreBlob(BlobType type, Repo::ByteView plaintext)
{
    const Repo::BlobHandle handle{type, Id::Of(plaintext)};
    if (m_options.isDryRun)
        return CountBlob(handle, plaintext.size());
    EndRunOnError([&] { m_saver.Save(handle, plaintext); });
    return handle.id;
}

// Counts a blob that a dry run would store.
Id SnapshotRun::CountBlob(const Repo::BlobHandle& handle, std::size_t size)
{
    if (m_repository.GetIndex().Has(handle))
        return handle.id;
    const std::lock_guard guard(m_mutex);
    if (m_dry.insert(handle).second) {
        Repo::SavedBlobs& saved = m_drySaved[handle.type == BlobType::Tree ? 1 : 0];
        ++saved.blobs;
        saved.bytes += size;
        saved.stored += size;
    }
    return handle.id;
}

void SnapshotRun::Tick()
{
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastTick < BetweenTicks)
        return;
    m_lastTick = now;
    ReportMessages();
    m_options.onTick();
}

void SnapshotRun::Post(std::string path, std::string text, bool isFailure)
{
    const std::lock_guard guard(m_mutex);
    m_messages.push_back({std::move(path), std::move(text), isFailure});
}

void SnapshotRun::ReportMessages()
{
    std::vector<Message> messages;
    {
        const std::lock_guard guard(m_mutex);
        messages.swap(m_messages);
    }
    for (const Message& message : messages) {
        const YString path(message.path.empty() ? "/" : message.path);
        if (message.isFailure)
            m_report.EntryFailed(path, YString(message.text));
        else
            m_report.Note(YString(path) + ": " + YString(message.text));
    }
}

void SnapshotRun::OnExcluded(const YPath& path)
{
    ++m_excluded;
    if (m_options.reportsExcluded)
        m_report.Note(YString("excluded: ") + path);
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

void SnapshotRun::OnStoreSkipped(const YPath& path)
{
    m_report.Note(YString(path) + " is the repository itself or is in it, and is left out");
}

void SnapshotRun::OnFailed(const YPath& path, const YString& reason)
{
    // Neither an interrupt by the user nor the end of the run is a failure of the entry.
    if (IsInterrupted() || HasFailed())
        return;
    ReportMessages();
    m_report.EntryFailed(path, reason);
    DirectoryBuild& directory = *m_visited.back().build;
    if (directory.GetPath() == path.Bytes() && !directory.HasEntries())
        directory.SetNeedsEntries(); // it could not be listed
}

bool SnapshotRun::IsCancelled()
{
    return IsInterrupted() || HasFailed();
}

} // namespace Agent
