// SnapshotRun: stores what a walk selects in a repository: contents as data blobs, directories as trees. What
// did not change since the parent snapshot is neither opened nor read.
//
// The thread of the walk captures entries and compares them with the trees of the parent. The threads of a
// ContentPool read files. An entry that fails is reported, and the run continues; a repository that fails
// ends the run. Memory grows with the largest directory, the depth, and the hard links whose other names are
// still to come.
#pragma once

#include "agent/Backup/DirectoryBuild.h"
#include "agent/Backup/LinkedContents.h"
#include "agent/Backup/NodeCapture.h"
#include "agent/Backup/ParentTree.h"
#include "agent/Repository/BlobSaver.h"
#include "agent/Run/Report.h"
#include "agent/Walk/Walker.h"

#include <list>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

/// How a run decides and works.
struct SnapshotRunOptions
{
    std::optional<Repo::Snapshot> parent; ///< with which entries are compared
    bool ignoresChangeTime = false;
    bool ignoresInode = false; ///< implies ignoresChangeTime
    bool isDryRun = false;     ///< blobs are not stored
    bool reportsExcluded = false;
    unsigned int readers = 2; ///< files that are read at the same time
    /// Called about 10 times a second, to report progress. What it raises ends the run.
    std::function<void()> onTick = [] {
    };
};

/// What a run did. Counts are of entries of the snapshot.
struct SnapshotCounts
{
    std::uint64_t filesNew = 0;
    std::uint64_t filesChanged = 0;
    std::uint64_t filesUnmodified = 0;
    std::uint64_t dirsNew = 0;
    std::uint64_t dirsChanged = 0;
    std::uint64_t dirsUnmodified = 0;
    std::uint64_t others = 0; ///< symlinks, devices and fifos
    std::uint64_t bytes = 0;  ///< of the contents of all files; while the run goes on, also of parts of files
    std::uint64_t sockets = 0; ///< which are not stored
    std::uint64_t excluded = 0;
    Repo::SavedBlobs data;  ///< new data blobs
    Repo::SavedBlobs trees; ///< new tree blobs

    std::uint64_t Files() const { return filesNew + filesChanged + filesUnmodified; }
};

class SnapshotRun : public IWalkVisitor
{
public:
    /// All arguments outlive the run. The index of the repository is loaded.
    SnapshotRun(const Repo::Repository& repository, Repo::BlobSaver& saver, Report& report,
                SnapshotRunOptions options);
    ~SnapshotRun() override;

    bool OnSelected(const WalkedEntry& entry) override;
    void OnExcluded(const Krt::File::YPath& path) override;
    void OnMountNotEntered(const Krt::File::YPath& path) override;
    void OnMountEntered(const Krt::File::YPath& path) override;
    void OnLinkTaken(const Krt::File::YPath& path) override;
    void OnStoreSkipped(const Krt::File::YPath& path) override;
    void OnFailed(const Krt::File::YPath& path, const Krt::YString& reason) override;
    bool IsCancelled() override;

    /// Called after the walk. Waits until everything is stored, and returns the root's tree; nothing if no
    /// entry was stored. The blobs are durable after Finish of the saver. Raises the failure that ended the
    /// run.
    std::optional<Repo::Id> Finish();
    SnapshotCounts GetCounts() const;
    /// Returns what was done so far.
    SnapshotCounts GetProgress() const;

private:
    struct VisitedDirectory; // a directory on the path to the current entry
    struct Message
    {
        std::string path;
        std::string text;
        bool isFailure;
    };

    void Tick();
    void Post(std::string path, std::string text, bool isFailure);
    void ReportMessages();
    template <class Call>
    void EndRunOnError(const Call& call);
    bool HasFailed() const { return m_isFailed; }
    Repo::Id StoreBlob(Repo::BlobType type, Repo::ByteView plaintext);
    Repo::Id CountBlob(const Repo::BlobHandle& handle, std::size_t size);

    VisitedDirectory& VisitDirectory(const std::string& directory);
    void EnterUnselected(const std::string& name);
    void Push(Repo::Node node, const Repo::Node* before, bool needsEntries);
    void Pop();
    Repo::Node* FindBefore(VisitedDirectory& visited, const std::string& name);

    bool IsTrusted(const Repo::Node& before, const struct stat& status) const;
    bool IsContentUnchanged(const Repo::Node& before, const struct stat& status) const;
    bool IsNodeUnchanged(const Repo::Node& before, const struct stat& status) const;
    void AddUnmodified(VisitedDirectory& visited, const struct stat& status, const Repo::Node& node);
    void AddFile(VisitedDirectory& visited, CapturedEntry captured, const Repo::Node* before);
    void FileDone(const std::shared_ptr<DirectoryBuild>& directory, Repo::Node& node,
                  const std::string& before, const StoredContent& content);

    const Repo::Repository& m_repository;
    Repo::BlobSaver& m_saver;
    Report& m_report;
    SnapshotRunOptions m_options;
    std::optional<Repo::Timestamp> m_trustedBefore; // entries of the parent with earlier times are trusted
    NodeCapture m_capture;
    LinkedContents m_links;
    std::uint64_t m_others = 0;
    std::uint64_t m_sockets = 0;
    std::uint64_t m_excluded = 0;
    ChangeCounts m_files;
    std::atomic<std::uint64_t> m_bytes{0}; // of files that are done
    std::uint64_t m_unreadBytes = 0;       // of files that were not read
    std::atomic<bool> m_isFailed{false};
    std::chrono::steady_clock::time_point m_lastTick;

    mutable std::mutex m_mutex; // for the following four of the following
    std::vector<Message> m_messages;
    std::exception_ptr m_failure;                                            // of the repository
    boost::unordered_flat_set<Repo::BlobHandle, Repo::BlobHandleHash> m_dry; // what a dry run would store
    std::array<Repo::SavedBlobs, 2> m_drySaved;

    BuildContext m_context;
    std::shared_ptr<DirectoryBuild> m_root;
    std::list<VisitedDirectory> m_visited; // from the root to the directory of the current entry
    ContentPool m_pool;                    // last, so that its threads end before what they use
};

} // namespace Agent
