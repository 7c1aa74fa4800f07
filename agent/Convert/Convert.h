// Conversion: reads records of any kind and form, and returns them as metadata objects, whose ToJSON is the
// modern form.
#pragma once

#include "agent/Convert/KnownKeys.h"
#include "agent/Convert/RecordReader.h"
#include "agent/Run/Report.h"

#include "Backup/File/YMetadataBase.h"

#include "Krt/Exception/YError.h"

#include <string>
#include <vector>

namespace Agent {

/// Converts single records. The paths of legacy headers are appended to `base`.
class RecordConverter
{
public:
    explicit RecordConverter(const Backup::YJobPath& base);

    /// Raises a YError for a record that is damaged or of an unknown kind.
    boost::shared_ptr<Backup::File::YMetadataBase> Convert(const Krt::JSON::YObject& record) const;

private:
    Backup::File::JobPathMapper m_unix;
    Backup::File::JobPathMapper m_windows;
};

/// All records of an input, converted. A record that cannot be converted is reported with its line number and
/// skipped.
class ConvertedRecords
{
public:
    /// See RecordReader for `path`. The report must outlive this object.
    ConvertedRecords(const std::string& path, const Backup::YJobPath& base, Report& report);

    /// Returns the next record; null at the end. Raises if the input cannot be read, or if the user
    /// interrupts the program.
    boost::shared_ptr<Backup::File::YMetadataBase> Next();
    /// Returns the line where the record that Next returned begins, from 1 on.
    unsigned long long GetLine() const { return m_record.line; }
    /// Reports that this record failed.
    void Fail(const Krt::YString& reason);

private:
    RecordReader m_reader;
    RecordConverter m_converter;
    KnownKeys m_keys;
    InputRecord m_record;
    Report& m_report;
};

/// Writes records in the modern form, one per line.
class RecordWriter
{
public:
    explicit RecordWriter(Output& output) : m_output(output) {}
    /// Raises the output's error.
    void Write(const Backup::File::YMetadataBase& record);

private:
    Output& m_output;
    std::string m_line;
    std::string m_printed;
};

/// Maps a Unix path to the job path of its components below `base`.
Backup::File::JobPathMapper MakeUnixMapper(const Backup::YJobPath& base);
/// Maps a Windows path to the job path of its components below `base`. Its volume (C:, \\?\Volume{...} or
/// that of a shadow copy) is one component, unchanged; backslashes and slashes separate the others. The
/// prefix \\?\ of any other path is not a component.
Backup::File::JobPathMapper MakeWindowsMapper(const Backup::YJobPath& base);

/// Returns the job paths that a user may mean by a text:
///   - its JSON form ({"components":[...]})
///   - a path of a file system, Unix or Windows
///   - otherwise, components of no known class, as in job/part
/// A path of a file system may be that of a directory or that of a file, which differ: both are returned, the
/// directory first. Raises InvalidArgument for damaged JSON.
std::vector<Backup::YJobPath> JobPathsOf(const std::string& text);

} // namespace Agent
