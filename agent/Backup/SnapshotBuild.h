// SnapshotBuild: a snapshot whose contents and trees are being stored. One thread enters directories and
// contents; the threads of a ContentPool store. An entry that fails is reported, and the run continues; a
// repository that fails ends the run.
#pragma once

#include "agent/Backup/ContentPool.h"
#include "agent/Backup/DirectoryBuild.h"
#include "agent/Repository/BlobSaver.h"
#include "agent/Repository/Repository.h"
#include "agent/Run/Report.h"

#include "Krt/Thread/ThreadSafety.h"

#include <boost/unordered/unordered_flat_set.hpp>

#include <array>
#include <atomic>
#include <chrono>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

/// Entries that are not stored, as far as they were examined.
struct LeftOut
{
    std::uint64_t others = 0; ///< entries that are not directories
    std::uint64_t bytes = 0;  ///< of the files among them
    std::uint64_t dirs = 0;   ///< directories with all that is below them, which is not counted
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
    std::uint64_t bytesNew = 0; ///< of the contents of those files
    std::uint64_t bytesChanged = 0;
    std::uint64_t bytesUnmodified = 0;
    std::uint64_t others = 0; ///< symlinks, devices and fifos
    std::uint64_t bytes = 0;  ///< of the contents of all files; while the run goes on, also of parts of files
    std::uint64_t sockets = 0; ///< which are not stored
    LeftOut byRules;           ///< found by dry runs
    LeftOut byOptions;
    std::uint64_t excluded = 0; ///< by rules that ask for a report
    std::uint64_t leftOut = 0;  ///< by options such as --exclude
    Repo::SavedBlobs data;      ///< new data blobs
    Repo::SavedBlobs trees;     ///< new tree blobs

    std::uint64_t Files() const { return filesNew + filesChanged + filesUnmodified; }
    std::uint64_t Directories() const { return dirsNew + dirsChanged + dirsUnmodified; }
};

/// How a snapshot is built.
struct SnapshotBuildOptions
{
    bool isDryRun = false;    ///< blobs are not stored
    unsigned int readers = 2; ///< files that are read at the same time
    /// Called for each file and directory that was stored, on the thread of the run. May be null.
    std::function<void(const StoredItem& item)> onStored;
    /// Called before a loss of the repository is reported. Any thread. What it raises ends the run.
    std::function<void()> beforeLoss = [] {
    };
    /// Called about 10 times a second, to report progress. What it raises ends the run.
    std::function<void()> onTick = [] {
    };
};

/// Operations belong to one thread if not stated otherwise.
class SnapshotBuild
{
public:
    /// All arguments outlive this object. The index of the repository is loaded.
    SnapshotBuild(const Repo::Repository& repository, Repo::BlobSaver& saver, Report& report,
                  SnapshotBuildOptions options);
    ~SnapshotBuild();

    /// The root, which the caller closes. Null after Finish.
    const std::shared_ptr<DirectoryBuild>& GetRoot() const { return m_root; }
    /// Makes a directory, which its caller closes, and announces it to the one above.
    std::shared_ptr<DirectoryBuild> AddDirectory(const std::shared_ptr<DirectoryBuild>& above,
                                                 const std::string& name);
    /// Reads and stores the content of a file. Raises what ended the run.
    void AddContent(FileToRead file);
    /// Counts a file that was stored, and the bytes of its content. Any thread.
    void CountFile(Change change, std::uint64_t size);
    /// Returns true if each entry that was stored is to be reported.
    bool ReportsStored() const { return m_options.onStored != nullptr; }
    /// Leaves an entry to be reported, if ReportsStored. Any thread.
    void PostStored(StoredItem item);
    /// Counts bytes of contents that are not read.
    void CountUnread(std::uint64_t size) { m_unreadBytes += size; }

    /// Called for each entry: reports progress and messages from time to time. Raises what ended the run.
    void Tick();
    /// Leaves a message on an entry, which Tick reports. Any thread.
    void Post(std::string path, std::string text, bool isFailure);
    /// Leaves a warning that a part of the repository can't be read, because of which Finish reports a
    /// failure. Any thread.
    void PostLoss(std::string path, std::string text);
    /// The index lacks a blob of the parent, because of which Finish reports a failure.
    void NoteLackingIndex() { m_isIndexLacking = true; }
    void ReportMessages();
    /// Returns true if the repository failed, which ends the run. Any thread.
    bool HasFailed() const { return m_isFailed; }
    /// Raises what ended the run.
    void RaiseFailure() const;

    /// Called once all directories are closed. Waits until everything is stored, and returns the root's tree;
    /// nothing if no entry was stored. Reports a failure of the repository if it has lost blobs of the
    /// snapshot or of the parent, as far as the run has noticed that. What the snapshot needs of them is
    /// stored again. The blobs are durable after Finish of the saver. Raises the failure that ended the run.
    std::optional<Repo::Id> Finish();
    SnapshotCounts GetCounts() const;
    /// Returns what was done so far.
    SnapshotCounts GetProgress() const;
    /// The paths of the files that are being read.
    std::vector<std::string> GetReading() const { return m_pool.GetReading(); }

private:
    struct Message
    {
        std::string path;
        std::string text;
        bool isFailure;
    };

    template <class Call>
    void EndRunOnError(const Call& call);
    void ReportProgress();
    StoredBlob StoreBlob(const Repo::BlobHandle& handle, Repo::ByteView plaintext);
    StoredBlob StoreTree(Repo::ByteView text, const std::optional<Repo::Id>& sound);
    StoredBlob CountBlob(const Repo::BlobHandle& handle, std::size_t size);
    void ReportLosses();

    const Repo::Repository& m_repository;
    Repo::BlobSaver& m_saver;
    Report& m_report;
    const SnapshotBuildOptions m_options;
    ChangeCounts m_files;
    std::array<std::atomic<std::uint64_t>, 3> m_fileBytes{}; // by Change
    std::atomic<std::uint64_t> m_bytes{0};                   // of files that are done
    std::uint64_t m_unreadBytes = 0;                         // of files that were not read
    bool m_isIndexLacking = false;                           // blobs of the parent
    std::atomic<std::uint64_t> m_storedAgain{0};             // blobs that the repository had lost
    std::atomic<bool> m_hasLosses{false};                    // a part of the repository can't be read
    std::atomic<bool> m_isFailed{false};
    std::chrono::steady_clock::time_point m_lastTick;

    mutable Krt::Thread::AnnotatedMutex m_mutex;
    std::vector<Message> m_messages KRT_GUARDED_BY(m_mutex);
    std::vector<StoredItem> m_stored KRT_GUARDED_BY(m_mutex); // to be reported
    std::exception_ptr m_failure KRT_GUARDED_BY(m_mutex);     // of the repository
    // What a dry run would store.
    boost::unordered_flat_set<Repo::BlobHandle, Repo::BlobHandleHash> m_dry KRT_GUARDED_BY(m_mutex);
    std::array<Repo::SavedBlobs, 2> m_drySaved KRT_GUARDED_BY(m_mutex);

    BuildContext m_context;
    std::shared_ptr<DirectoryBuild> m_root;
    ContentPool m_pool; // last, so that its threads end before what they use
};

} // namespace Agent
