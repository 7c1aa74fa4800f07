// ImportRun: stores records that were kept elsewhere in a snapshot, with contents from a directory. A record
// that fails is reported and the run continues; a store that fails ends the run with a StoreError.
#pragma once

#include "agent/Restore/RecordedEntry.h"
#include "agent/Restore/TargetLocation.h"
#include "agent/Run/Report.h"
#include "agent/Store/ObjectWriter.h"
#include "agent/Store/SnapshotWriter.h"

#include "Krt/File/YDirectory.h"

#include <vector>

namespace Agent {

/// The directory of the contents of an import, each at the path that the components of the record's job path
/// name. Symlinks are not followed, so nothing outside the directory is ever read. The directories on the
/// path to the last content stay open, since records are usually sorted by directory.
class ContentFolder
{
public:
    explicit ContentFolder(Krt::File::YDirectory root) : m_root(std::move(root)) {}

    /// Opens the file at the first path of the record for reading; returns an empty handle if it is missing
    /// or can only be reached through a symlink. A Windows volume is searched by its own name, and then by
    /// the name that a restore uses for it. Raises InvalidArgument for a path that could lead out of the
    /// directory, or the operating system's error.
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
    /// Session, snapshot and report must outlive the run.
    ImportRun(StoreSession& session, SnapshotWriter& snapshot, ContentFolder contents, Report& report);

    /// Stores one record, with the content if the record is that of a file. A file without content is
    /// reported and not stored; a content whose size differs from the record's is reported and stored. `line`
    /// is the line of the record, for a record without a path. Raises if the user interrupts the program.
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
    std::string m_record; // kept for its capacity
    EntryCounts m_counts;
};

} // namespace Agent
