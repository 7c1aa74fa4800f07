#include "agent/Cli/Command.h"

#include "agent/Cli/RecordArguments.h"
#include "agent/Convert/Convert.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace Agent {

using Backup::YJobPath;
using Krt::YString;

namespace {

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
    command->add_option("--from", m_from, "The job path to move, with everything below it")
        ->type_name("JOBPATH")
        ->required();
    command->add_option("--to", m_to, "New job path")->type_name("JOBPATH")->required();
    command->footer(
        "A file or directory keeps its name: --from /home/a --to /srv moves /home/a to /srv/a. Any\n"
        "other item is replaced by the new path as a whole. If a record has several paths, the first one\n"
        "at or below --from is moved and the others are dropped. All other records are not changed.\n"
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
        report.Note("No record was renamed: none is at or below --from");
}

} // namespace

std::unique_ptr<ICommand> MakeRenameCommand()
{
    return std::make_unique<RenameCommand>();
}

} // namespace Agent
