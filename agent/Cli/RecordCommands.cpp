// The commands that read records: convert, rename and import.
#include "agent/Cli/Command.h"
#include "agent/Cli/NewSnapshotArguments.h"
#include "agent/Convert/Convert.h"
#include "agent/Import/RepositoryImport.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace Agent {

using Backup::YJobPath;
using Krt::YString;

namespace {

// The forms of a JOBPATH, for the help of a command.
constexpr const char* JobPathHelp =
    "A JOBPATH is a path of a file system (/a/b or C:\\a\\b), its JSON form {\"components\":[...]}, or\n"
    "otherwise names without a known class (job/part).\n\n";

// Returns the job paths that the value of an option may mean, at least one; see JobPathsOf. Raises a
// UsageError that names the option.
std::vector<YJobPath> JobPathArgument(const std::string& option, const std::string& text)
{
    try {
        return JobPathsOf(text);
    } catch (const Krt::Exception::YError& error) {
        throw UsageError(option + " is not a job path: " + ReasonOf(error).Bytes());
    }
}

// The arguments of the commands that read records.
class RecordArguments
{
public:
    // Adds FILE and --base JOBPATH, whose values are stored in this object.
    void AddTo(CLI::App& command);

    // Returns the file name; empty for standard input.
    const std::string& GetFile() const { return m_file; }
    // Returns the job path. Raises a UsageError.
    YJobPath GetBase() const;

private:
    std::string m_file;
    std::string m_base;
};

void RecordArguments::AddTo(CLI::App& command)
{
    command.add_option("FILE", m_file, "The records; - or no FILE means standard input");
    command.add_option("--base", m_base, "Put the paths of legacy headers below this job path")
        ->type_name("JOBPATH");
}

YJobPath RecordArguments::GetBase() const
{
    return m_base.empty() ? YJobPath() : JobPathArgument("--base", m_base).front();
}

class ConvertCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RecordArguments m_records;
};

CLI::App* ConvertCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("convert", "Convert legacy and foreign records to the current form");
    m_records.AddTo(*command);
    command->add_flag("--json")->description("Report errors as JSON, too");
    command->footer(
        "FILE contains one record per line, one array of records, or records over several lines each.\n"
        "Writes one record per line. A damaged line, or a record that cannot be converted, is reported with\n"
        "its line number and skipped. Damage in the other forms ends the reading; its byte offset\n"
        "is reported.\n\n" +
        std::string(JobPathHelp) + "Example: kbagent convert old-records.json > records.jsonl");
    return command;
}

void ConvertCommand::Run(Report& report)
{
    ConvertedRecords records(m_records.GetFile(), m_records.GetBase(), report);
    RecordWriter writer(report.Out());
    while (const auto record = records.Next())
        writer.Write(*record);
}

class RenameCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RecordArguments m_records;
    std::string m_from;
    std::string m_to;
};

CLI::App* RenameCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("rename", "Move the paths of records from below one job path to another");
    m_records.AddTo(*command);
    command->add_flag("--json")->description("Report errors as JSON, too");
    command->add_option("--from", m_from, "The job path to move, with everything below it")
        ->type_name("JOBPATH")
        ->required();
    command->add_option("--to", m_to, "New job path")->type_name("JOBPATH")->required();
    command->footer(
        "A file or directory keeps its name: --from /home/a --to /srv moves /home/a to /srv/a. Any\n"
        "other item is replaced by the new path as a whole. If a record has several paths, the first one\n"
        "at or below --from is moved and the others are dropped. All other records are not changed.\n"
        "If no record is at or below --from, a note says so, and the exit code is 0: the output is "
        "complete.\n"
        "Records are read and written as by convert.\n\n" +
        std::string(JobPathHelp) +
        "Example: kbagent rename --from 'C:\\Users' --to /srv/restored records.jsonl");
    return command;
}

void RenameCommand::Run(Report& report)
{
    const std::vector<YJobPath> sources = JobPathArgument("--from", m_from);
    const YJobPath destination = JobPathArgument("--to", m_to).front();
    if (sources.front().GetComponentCount() == 0)
        throw UsageError("--from names no component");
    for (unsigned long i = 0; i < destination.GetComponentCount(); ++i) {
        if (const YString& name = destination.GetComponent(i).m_name; name == "." || name == "..")
            throw UsageError("--to has a component that no path can contain: " + name.Bytes());
    }

    ConvertedRecords records(m_records.GetFile(), m_records.GetBase(), report);
    RecordWriter writer(report.Out());
    bool isAnyBelow = false;
    unsigned long long dropped = 0;
    while (const auto record = records.Next()) {
        const unsigned long paths = record->GetFilePathCount();
        try {
            const bool isRenamed = std::any_of(sources.begin(), sources.end(), [&](const YJobPath& source) {
                return record->RenamePath(source, destination);
            });
            isAnyBelow |= isRenamed;
            dropped += isRenamed ? paths - 1 : 0;
        } catch (const Krt::Exception::YError& error) {
            isAnyBelow = true;
            records.Fail(ReasonOf(error));
            continue;
        }
        writer.Write(*record);
    }
    if (dropped != 0)
        report.Note(
            YString("Warning: other paths of renamed records, now dropped: " + std::to_string(dropped)));
    if (!isAnyBelow)
        report.Note("No record was renamed: no record is at or below --from");
}

class ImportCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    NewSnapshotArguments m_snapshot;
    std::string m_contents;
    RecordArguments m_records;
};

CLI::App* ImportCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("import", "Store records that were kept elsewhere as a new snapshot");
    m_snapshot.AddTo(*command);
    command->add_option("--contents", m_contents, "Directory with the file contents, laid out by job path")
        ->type_name("DIR")
        ->required();
    m_records.AddTo(*command);
    command->footer(
        "The entry of C:\\a\\b is stored as /C/a/b, and its content is read from DIR/C:/a/b or DIR/C/a/b. "
        "The\n"
        "other paths of a record become hard links. Symlinks below DIR are not followed. The record is\n"
        "what 'show --json' prints of the entry.\n\n" +
        std::string(JobPathHelp) + std::string(RepositoryHelp) +
        "Example: kbagent import --repo /backup/repository --contents /mnt/old records.json");
    return command;
}

void ImportCommand::Run(Report& report)
{
    ImportSettings settings;
    static_cast<SnapshotSettings&>(settings) = m_snapshot.Get();
    settings.contents = m_contents;
    settings.file = m_records.GetFile();
    settings.base = m_records.GetBase();
    report.NameWork("archival");
    CreateSnapshot(
        settings, report,
        [&](ISnapshotObserver& observer) { return ImportRecords(settings, report, observer); },
        [&](const SnapshotOutcome& outcome) { return SummaryText(settings, outcome); });
}

} // namespace

std::unique_ptr<ICommand> MakeConvertCommand()
{
    return std::make_unique<ConvertCommand>();
}

std::unique_ptr<ICommand> MakeRenameCommand()
{
    return std::make_unique<RenameCommand>();
}

std::unique_ptr<ICommand> MakeImportCommand()
{
    return std::make_unique<ImportCommand>();
}

} // namespace Agent
