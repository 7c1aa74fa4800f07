#include "agent/Cli/Command.h"

#include "agent/Cli/RecordArguments.h"
#include "agent/Convert/Convert.h"

#include <CLI/CLI.hpp>

namespace Agent {

namespace {

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

} // namespace

std::unique_ptr<ICommand> MakeConvertCommand()
{
    return std::make_unique<ConvertCommand>();
}

} // namespace Agent
