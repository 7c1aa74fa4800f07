// SnapshotRun: stores what a walk selects in a repository: contents as data blobs, directories as trees. What
// did not change since the parent snapshot is neither opened nor read.
//
// The thread of the walk captures entries and compares them with the trees of the parent. The threads of a
// ContentPool read files. An entry that fails is reported, and the run continues; a repository that fails
// ends the run. Memory grows with the largest directory, the depth, and the hard links whose other names are
// still to come.
#pragma once

#include "agent/Backup/LinkedContents.h"
#include "agent/Backup/NodeCapture.h"
#include "agent/Backup/ParentTree.h"
#include "agent/Backup/SnapshotBuild.h"
#include "agent/Walk/Walker.h"

#include <list>
#include <memory>
#include <string>
#include <vector>

namespace Agent {

/// How a run decides and works.
struct SnapshotRunOptions : SnapshotBuildOptions
{
    std::optional<Repo::Snapshot> parent; ///< the snapshot with which entries are compared
    bool ignoresChangeTime = false;
    bool ignoresInode = false; ///< implies ignoresChangeTime
    bool reportsExcluded = false;
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
    void OnSkipped(const Krt::File::YPath& path) override;
    void OnFailed(const Krt::File::YPath& path, const Krt::YString& reason) override;
    void OnLeftOut(const Krt::File::YPath& path, std::string_view by) override;
    bool IsCancelled() override;

    /// Stores what is read from the handle as the file of this path, as in "/a/b", with the current time and
    /// in directories that belong to root. A stream without data has failed. Instead of a walk.
    void AddStream(const std::string& path, std::shared_ptr<const Krt::Util::YUnxHandle> stream);

    /// Raises the failure that ended the run, if any.
    void RaiseFailure() const { m_build.RaiseFailure(); }
    /// Called after the walk. Waits until everything is stored, and returns the root's tree; nothing if no
    /// entry was stored. The blobs are durable after Finish of the saver. Raises the failure that ended the
    /// run.
    std::optional<Repo::Id> Finish();
    SnapshotCounts GetCounts() const { return Complete(m_build.GetCounts()); }
    /// Returns what was done so far.
    SnapshotCounts GetProgress() const { return Complete(m_build.GetProgress()); }
    /// The paths of the files that are being read.
    std::vector<std::string> GetReading() const { return m_build.GetReading(); }

private:
    struct VisitedDirectory; // a directory on the path to the current entry

    SnapshotCounts Complete(SnapshotCounts counts) const;
    VisitedDirectory& VisitDirectory(const std::string& directory);
    void EnterUnselected(const std::string& name);
    CapturedEntry Capture(const Krt::File::YDirectory& parent, const Krt::YString& name,
                          const Krt::File::YPath& path, const struct stat& status);
    void LoadBefore(VisitedDirectory& visited, const Repo::Id& tree);
    void Push(Repo::Node node, const Repo::Node* before, bool needsEntries);
    void Pop();
    Repo::Node* FindBefore(VisitedDirectory& visited, const std::string& name);

    bool IsTrusted(const Repo::Node& before, const struct stat& status) const;
    bool HasContentOfParent(const Repo::Id& id);
    bool IsContentUnchanged(const Repo::Node& before, const struct stat& status);
    bool IsNodeUnchanged(const Repo::Node& before, const struct stat& status);
    void AddUnmodified(VisitedDirectory& visited, const struct stat& status, const Repo::Node& node,
                       std::string_view text);
    void AddFile(VisitedDirectory& visited, CapturedEntry captured, const Repo::Node* before);
    void FileDone(const std::shared_ptr<DirectoryBuild>& directory, Repo::Node& node,
                  const std::string& before, const StoredContent& content);
    void StreamDone(const std::shared_ptr<DirectoryBuild>& directory, Repo::Node& node, bool isNew,
                    const StoredContent& content);

    const Repo::Repository& m_repository;
    Report& m_report;
    const SnapshotRunOptions m_options;
    std::optional<Repo::Timestamp> m_trustedBefore; // entries of the parent with earlier times are trusted
    const bool m_trustsAttributes;                  // of the parent
    NodeCapture m_capture;
    LinkedContents m_links;
    std::uint64_t m_others = 0;
    std::uint64_t m_sockets = 0;
    std::uint64_t m_excluded = 0;
    std::uint64_t m_leftOut = 0;
    LeftOut m_byRules;
    LeftOut m_byOptions;
    std::list<VisitedDirectory> m_visited; // from the root to the directory of the current entry
    SnapshotBuild m_build;                 // last, so that its threads end before what they use
};

} // namespace Agent
