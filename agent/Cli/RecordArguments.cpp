#include "agent/Cli/RecordArguments.h"

#include "agent/Cli/Command.h"
#include "agent/Convert/PathMapping.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

namespace Agent {

using Backup::YJobPath;

const char* const JobPathHelp =
    "A JOBPATH is a path of a file system (/a/b or C:\\a\\b), its JSON form {\"components\":[...]}, or\n"
    "otherwise names without a known class (job/part).\n\n";

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

std::vector<YJobPath> JobPathArgument(const std::string& option, const std::string& text)
{
    try {
        return JobPathsOf(text);
    } catch (const Krt::Exception::YError& error) {
        throw UsageError(option + " is not a job path: " + ReasonOf(error).Bytes());
    }
}

} // namespace Agent
