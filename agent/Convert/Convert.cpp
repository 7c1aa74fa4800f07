#include "agent/Convert/Convert.h"

#include "agent/Run/Text.h"

#include "Krt/JSON/YValue.h"
#include "Krt/String/Printable.h"

#include <algorithm>
#include <memory>

namespace Agent {

using Backup::YJobPath;
using Backup::File::JobPathMapper;
using Backup::File::YMetadataBase;
using Krt::YString;
using Krt::File::YPath;
using Krt::JSON::YObject;

namespace {

// Returns the key whose value makes a modern record fail, as the beginning of the reason. Errors about a
// missing key name it themselves.
std::string KeyOf(const Krt::Exception::YError& error, const YObject& record)
{
    if (error.GetCode() == Krt::ErrorCode::NotFound || record.FindOpt("legacy_metadata"))
        return {};
    const std::string key = KnownKeys::FindMisfit(record);
    return key.empty() ? key : key + ": ";
}

constexpr std::string_view DevicePrefix = "\\\\?\\";

std::string Replaced(std::string text, char from, char to)
{
    std::replace(text.begin(), text.end(), from, to);
    return text;
}

// Replaces slashes by backslashes, which identify the volume.
YPath NormalWindowsPath(const YPath& path)
{
    return YPath(YString(Replaced(path.Bytes(), '/', '\\')));
}

YJobPath FromWindowsPath(YJobPath base, const YPath& path, bool isDirectory)
{
    const YPath normal = NormalWindowsPath(path);
    const YPath volume = normal.GetVolume();
    std::string_view rest = normal.Bytes();
    if (!volume.IsEmpty()) {
        base.AppendComponent({volume, YString(), YJobPath::ClassFileSystemContainer, 0});
        rest.remove_prefix(volume.Bytes().size());
    } else if (rest.starts_with(DevicePrefix)) {
        rest.remove_prefix(DevicePrefix.size());
    }
    // The leading slash keeps a name such as D: from being read as a volume.
    const std::string names = "/" + Replaced(std::string(rest), '\\', '/');
    return YJobPath::FromFilePath(std::move(base), YPath(YString(names)), isDirectory);
}

bool IsWindowsPath(const std::string& text)
{
    return text.starts_with('\\') || !NormalWindowsPath(YPath(YString(text))).GetVolume().IsEmpty();
}

} // namespace

// Mappers are copied for each record, so they share the base.
JobPathMapper MakeUnixMapper(const YJobPath& base)
{
    return [base = std::make_shared<const YJobPath>(base)](const YPath& path, bool isDirectory) {
        return YJobPath::FromFilePath(*base, path, isDirectory);
    };
}

JobPathMapper MakeWindowsMapper(const YJobPath& base)
{
    return [base = std::make_shared<const YJobPath>(base)](const YPath& path, bool isDirectory) {
        return FromWindowsPath(*base, path, isDirectory);
    };
}

std::vector<YJobPath> JobPathsOf(const std::string& text)
{
    if (text.starts_with('{'))
        return {Krt::JSON::YValue::Parse(text)->Convert<YJobPath>()};
    const YPath path{YString(text)};
    if (IsWindowsPath(text))
        return {FromWindowsPath({}, path, true), FromWindowsPath({}, path, false)};
    if (text.starts_with('/'))
        return {YJobPath::FromFilePath({}, path, true), YJobPath::FromFilePath({}, path, false)};
    return {YJobPath(path)};
}

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
        const YObject& record = m_record.Object();
        m_keys.Check(record, m_record.line, m_report);
        try {
            return m_converter.Convert(record);
        } catch (const Krt::Exception::YError& error) {
            Fail(YString(std::string_view(KeyOf(error, record))) + ReasonOf(error));
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
