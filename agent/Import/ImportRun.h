// ImportRun: stores records that were kept elsewhere, in any order, as the trees of a snapshot, with contents
// from a directory. A record that fails is reported and the run continues; a repository that fails ends the
// run. The nodes are in memory until the last record was imported, as their JSON text; contents are not.
#pragma once

#include "agent/Backup/LinkedContents.h"
#include "agent/Backup/SnapshotBuild.h"
#include "agent/Import/ContentFolder.h"
#include "agent/Import/ImportedNode.h"

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace Agent {

class ImportRun
{
public:
    /// All arguments outlive the run. The index of the repository is loaded.
    ImportRun(const Repo::Repository& repository, Repo::BlobSaver& saver, Report& report,
              ContentFolder contents, SnapshotBuildOptions options);

    /// Imports one record, with the content if the record is that of a file. Each of its paths is reported
    /// and left out if no file can have it, or if an earlier record has it; without the first one, the record
    /// is left out. So is a file without content. A content whose size differs from the record's is reported
    /// and stored. `line` is that of the record in the input. Raises what ends the run, and InvalidState if
    /// the user interrupts the program.
    void Import(Backup::File::YMetadataBase& metadata, unsigned long long line);

    /// Called after the last record. Waits until everything is stored, and returns the root's tree; nothing
    /// if no record was imported. The blobs are durable after Finish of the saver. Raises the failure that
    /// ended the run.
    std::optional<Repo::Id> Finish();
    /// The paths of the entries of the root; after Finish.
    const std::vector<std::string>& GetTops() const { return m_tops; }
    SnapshotCounts GetCounts() const { return Complete(m_build.GetCounts()); }
    /// Returns what was done so far.
    SnapshotCounts GetProgress() const { return Complete(m_build.GetProgress()); }
    /// The paths of the files that are being read.
    std::vector<std::string> GetReading() const { return m_build.GetReading(); }

private:
    static constexpr std::size_t NotDirectory = SIZE_MAX;
    struct Directory
    {
        std::shared_ptr<DirectoryBuild> build;
        std::map<std::string, std::size_t>
            entries{}; // index of a directory in m_directories, or NotDirectory
        bool hasRecord = false;
    };
    // A path of an entry that is not a directory.
    struct Name
    {
        std::shared_ptr<DirectoryBuild> directory;
        std::string path;
    };
    struct Taken
    {
        ImportedEntry entry;
        std::vector<Name> names;
        std::string shown; // for messages
    };

    void Take(Backup::File::YMetadataBase& metadata, const std::string& shown, unsigned long long line);
    void TakeDirectory(const TargetLocation& location, ImportedEntry entry);
    void CheckFree(const TargetLocation& location, bool isDirectory) const;
    std::size_t Enter(const TargetLocation& location, std::size_t count);
    void Claim(const TargetLocation& location, std::vector<Name>& names);
    void AddFile(Taken taken, Krt::Util::YUnxHandle file);
    void FileDone(Taken& taken, const StoredContent& content);
    static void AddNodes(Taken& taken);
    SnapshotCounts Complete(SnapshotCounts counts) const;

    Report& m_report;
    ContentFolder m_contents;
    LinkedContents m_links;
    std::vector<std::string> m_tops;
    std::uint64_t m_linked = 0; // entries with several names
    std::uint64_t m_others = 0;
    std::deque<Directory> m_directories; // the root first, and each after the one above it
    SnapshotBuild m_build;               // last, so that its threads end before what they use
};

} // namespace Agent
