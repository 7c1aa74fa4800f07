// Conversion: reads records of any kind and form, and gives them as metadata objects, whose ToJSON is the
// modern form.
#pragma once

#include "agent/Convert/KnownKeys.h"
#include "agent/Convert/RecordReader.h"
#include "agent/Run/Report.h"

#include "Backup/File/YMetadataBase.h"

#include "Krt/Exception/YError.h"

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

/// All records of an input, converted. What can't be is told to the report, with its line, and left out.
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
    /// Tells that this record failed.
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

} // namespace Agent
