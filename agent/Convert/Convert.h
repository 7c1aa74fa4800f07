// Conversion: reads records of any kind and form, and gives them as metadata objects, whose ToJSON is the
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

/// Converts single records. The paths of legacy headers come to lie below `base`.
class RecordConverter
{
public:
    explicit RecordConverter(const Backup::YJobPath& base);

    /// Raises a YError for a record that is damaged or of no known kind.
    boost::shared_ptr<Backup::File::YMetadataBase> Convert(const Krt::JSON::YObject& record) const;

private:
    Backup::File::JobPathMapper m_unix;
    Backup::File::JobPathMapper m_windows;
};

/// All records of an input, converted. What can't be converted is reported, with its line, and left out.
class ConvertedRecords
{
public:
    /// As RecordReader; the report outlives this object.
    ConvertedRecords(const std::string& path, const Backup::YJobPath& base, Report& report);

    /// The next record; null at the end. Raises if the input can't be read, or if the user interrupts the
    /// program.
    boost::shared_ptr<Backup::File::YMetadataBase> Next();
    /// Where the record that Next gave begins, from 1 on.
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

/// Writes records in the modern form, a line each.
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

/// Gives a Unix path the job path of its components below `base`.
Backup::File::JobPathMapper MakeUnixMapper(const Backup::YJobPath& base);
/// Gives a Windows path the job path of its components below `base`. Its volume, as C:, \\?\Volume{...} or
/// that of a shadow copy, is one component, unchanged; backslashes and slashes separate the others. The
/// \\?\ in front of any other path is not a component.
Backup::File::JobPathMapper MakeWindowsMapper(const Backup::YJobPath& base);

/// The job paths that a user may mean by a text: its JSON form ({"components":[...]}), a path of a file
/// system, Unix or Windows, or else components of no known class, as in job/part. A path of a file system may
/// be that of a directory and that of a file, which differ; both are given, the directory first. Raises
/// InvalidArgument for damaged JSON.
std::vector<Backup::YJobPath> JobPathsOf(const std::string& text);

} // namespace Agent
