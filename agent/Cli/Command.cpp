#include "agent/Cli/Command.h"

#include <CLI/CLI.hpp>

namespace Agent {

void AddStoreOption(CLI::App& command, std::string& path)
{
    command.add_option("--store", path, "The directory that holds the backups")->type_name("DIR")->required();
}

CLI::Option* AddPathArguments(CLI::App& command, const std::string& description)
{
    // The option has no variable of its own, and takes one argument at a time: the conversion to one, and to
    // a list, would read "{}" and "[a,b]" as notations.
    return command
        .add_option(
            "PATH", [](const CLI::results_t&) { return true; }, description)
        ->type_size(1)
        ->expected(-1)
        ->allow_extra_args(false);
}

const std::vector<std::string>& PathsOf(const CLI::Option* option)
{
    return option->results();
}

} // namespace Agent
