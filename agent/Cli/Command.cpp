#include "agent/Cli/Command.h"

#include <CLI/CLI.hpp>

#include <limits>

namespace Agent {

void AddStoreOption(CLI::App& command, std::string& path)
{
    command.add_option("--store", path, "The directory that holds the backups")->type_name("DIR")->required();
}

CLI::Option* AddPathArguments(CLI::App& command, const std::string& description)
{
    // The option has no variable of its own: the conversion to a list would read "{}" and "[a,b]" as
    // notations.
    return command
        .add_option(
            "PATH", [](const CLI::results_t&) { return true; }, description)
        ->expected(1, std::numeric_limits<int>::max())
        ->allow_extra_args();
}

const std::vector<std::string>& PathsOf(const CLI::Option* option)
{
    return option->results();
}

} // namespace Agent
