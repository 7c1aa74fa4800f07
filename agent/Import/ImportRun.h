// ImportRun: turns records that were kept elsewhere into a snapshot, with contents that lie in a folder. A
// record that fails is reported and the run goes on; a store that fails ends it by a StoreError.
#pragma once

#include "agent/Restore/RecordedEntry.h"
#include "agent/Restore/TargetLocation.h"
#include "agent/Run/Report.h"
#include "agent/Store/ObjectWriter.h"
#include "agent/Store/SnapshotWriter.h"

#include "Krt/File/YDirectory.h"

#include <vector>

namespace Agent {

/// The folder in which an import finds contents, each at the path that the components of the
/// record's job path name. No link is followed, so nothing outside the folder is ever read. The directories
/// on the way to the last content stay open, since records mostly come directory by directory.
class ContentFolder
{
public:
    explicit ContentFolder(Krt::File::YDirectory root) : m_root(std::move(root)) {}

    /// Opens the file at the first path of the record for reading; empty if there is none, or only behind a
    /// link. A Windows volume is looked for by its own name and then, where there is none such, by the one
    /// that a restore gives it. Raises InvalidArgument for a path that could lead out of the folder, or the
    /// operating system's error.
    Krt::Util::YUnxHandle Open(Backup::File::YMetadataBase& metadata);

private:
    struct Name
    {
        Krt::YString own;
        Krt::YString restored;
        friend bool operator==(const Name&, const Name&) = default;
    };
    struct OpenDirectory
    {
        Name name;
        Krt::File::YDirectory directory;
    };

    static std::vector<Name> NamesOf(Backup::File::YMetadataBase& metadata);
    static const Krt::YString& Choose(const Krt::File::YDirectory& parent, const Name& name);
    const Krt::File::YDirectory& Top() const { return m_open.empty() ? m_root : m_open.back().directory; }

    Krt::File::YDirectory m_root;
    std::vector<OpenDirectory> m_open;
};

class ImportRun
{
public:
    /// Session, snapshot and report outlive the run.
    ImportRun(StoreSession& session, SnapshotWriter& snapshot, ContentFolder contents, Report& report);

    /// Stores one record, with its content if it is one of a file. Without that, it is reported and not
    /// stored; a content of another size than the record's is reported and stored. `line` is where the record
    /// comes from, for one that has no path. Raises if the user interrupts the program.
    void Import(Backup::File::YMetadataBase& metadata, unsigned long long line);
    const EntryCounts& GetCounts() const { return m_counts; }

private:
    RecordedEntry Complete(Backup::File::YMetadataBase& metadata, EntryFacts& facts);
    bool ReadContent(const Krt::Util::YUnxHandle& file, unsigned long long recordedSize, EntryFacts& facts);

    SnapshotWriter& m_snapshot;
    ContentFolder m_contents;
    Report& m_report;
    ObjectWriter m_objects;
    std::vector<unsigned char> m_buffer;
    std::string m_record; // kept for its memory
    EntryCounts m_counts;
};

} // namespace Agent
