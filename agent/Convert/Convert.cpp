#include "agent/Convert/Convert.h"

#include "agent/Convert/PathMapping.h"
#include "agent/Run/Text.h"

#include "Krt/String/Printable.h"

namespace Agent {

using Backup::File::YMetadataBase;
using Krt::YString;
using Krt::JSON::YObject;

namespace {

// The key whose value a modern record fails with, as the front of the reason. That of a missing key names it.
std::string KeyOf(const Krt::Exception::YError& error, const YObject& record)
{
    if (error.GetCode() == Krt::ErrorCode::NotFound || record.FindOpt("legacy_metadata"))
        return {};
    const std::string key = KnownKeys::FindMisfit(record);
    return key.empty() ? key : key + ": ";
}

} // namespace

RecordConverter::RecordConverter(const Backup::YJobPath& base)
    : m_unix(MakeUnixMapper(base)), m_windows(MakeWindowsMapper(base))
{}

boost::shared_ptr<YMetadataBase> RecordConverter::Convert(const YObject& record) const
{
    const boost::shared_ptr<Krt::JSON::YValue>& type = record.FindOpt("metadata_type");
    const bool isWindows = type && type->IsString() && type->AsString() == "win";
    return YMetadataBase::ConstructFromJson(record, isWindows ? m_windows : m_unix);
}

ConvertedRecords::ConvertedRecords(const std::string& path, const Backup::YJobPath& base, Report& report)
    : m_reader(path), m_converter(base), m_report(report)
{}

boost::shared_ptr<YMetadataBase> ConvertedRecords::Next()
{
    while (m_reader.Next(m_record)) {
        if (!m_record.json) {
            Fail(m_record.reason);
            continue;
        }
        m_keys.Check(m_record.Object(), m_record.line, m_report);
        try {
            return m_converter.Convert(m_record.Object());
        } catch (const Krt::Exception::YError& error) {
            Fail(YString(std::string_view(KeyOf(error, m_record.Object()))) + ReasonOf(error));
        }
    }
    return nullptr;
}

void ConvertedRecords::Fail(const YString& reason)
{
    m_report.EntryFailed(YString("line " + std::to_string(m_record.line)), reason);
}

void RecordWriter::Write(const YMetadataBase& record)
{
    m_line.clear();
    record.StringifyTo(m_line);
    m_printed.clear();
    Krt::String::AppendPrintableJson(m_printed, m_line);
    m_printed += '\n';
    m_output << m_printed;
}

} // namespace Agent
