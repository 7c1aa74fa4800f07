#include "agent/Cli/Command.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Profile/YProfile.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <iterator>
#include <limits>
#include <string_view>

namespace Agent {

namespace {

// The parser splits "[a,b]" as a list. With this prefix it is a path to the same entry.
constexpr std::string_view ListMask = "./";

// Options that take a list. An empty one is that without a word.
constexpr std::string_view ListOptions[] = {"--group-by", "-g", "--keep-tag", "--tag"};
constexpr const char* EmptyList = ",";

bool IsListOption(std::string_view argument)
{
    return std::find(std::begin(ListOptions), std::end(ListOptions), argument) != std::end(ListOptions);
}

bool LooksLikeList(std::string_view argument)
{
    return argument.starts_with('[') && argument.ends_with(']');
}

} // namespace

CLI::Option* AddPathArguments(CLI::App& command, const std::string& description, const std::string& name)
{
    // Not bound to a variable: the conversion to a list would read "{}" as an empty list.
    return command
        .add_option(
            name, [](const CLI::results_t&) { return true; }, description)
        ->expected(1, std::numeric_limits<int>::max())
        ->allow_extra_args();
}

CLI::Option* AddPathArgument(CLI::App& command, const std::string& name, const std::string& description)
{
    return AddPathArguments(command, description, name)->expected(1)->allow_extra_args(false);
}

std::string AsTyped(std::string argument)
{
    if (argument.starts_with(ListMask) && LooksLikeList(std::string_view(argument).substr(ListMask.size())))
        argument.erase(0, ListMask.size());
    return argument;
}

std::vector<std::string> PathsOf(const CLI::Option* option)
{
    std::vector<std::string> paths = option->results();
    for (std::string& path : paths)
        path = AsTyped(std::move(path));
    return paths;
}

std::vector<std::string> ArgumentsForParser(int argc, const char* const* argv)
{
    const auto* const end =
        std::find_if(argv, argv + argc, [](std::string_view argument) { return argument == "--"; });
    std::vector<std::string> arguments;
    for (int i = argc - 1; i > 0; --i) {
        const std::string_view argument = argv[i];
        // The parser would read the argument after "--to=" as its value.
        const bool isEmptyOption = argv + i < end && argument.starts_with("--") && argument.ends_with('=');
        if (isEmptyOption && IsListOption(argument.substr(0, argument.size() - 1))) {
            arguments.push_back(std::string(argument) + EmptyList);
            continue;
        }
        if (argument.empty() && argv + i < end && IsListOption(argv[i - 1])) {
            arguments.emplace_back(EmptyList);
            continue;
        }
        if (argument.empty() || isEmptyOption) {
            const std::string_view before = argv[i - 1];
            const bool isOption = i > 1 && before.starts_with('-') && before.find('=') == before.npos;
            throw UsageError("Argument " + std::to_string(i) +
                             (isOption ? ", after " + std::string(before) + "," : "") + " is empty: '" +
                             std::string(argument) + "'");
        }
        arguments.push_back(argv[i]);
        if (LooksLikeList(arguments.back()))
            arguments.back().insert(0, ListMask);
    }
    return arguments;
}

void RequireSwitches(std::initializer_list<const char*> keys)
{
    constexpr const char* section = "configuration";
    const boost::shared_ptr<Krt::Profile::YProfile> profile = Krt::Profile::OpenSystem();
    for (const char* key : keys) {
        try {
            profile->Get<bool>(section, key, false);
        } catch (const Krt::Exception::YError&) {
            KRT_RAISE(Krt::ErrorCode::InvalidArgument,
                      "The configuration " << Krt::Profile::GetSystemPath() << " has neither yes nor no for "
                                           << key << ": '" << profile->GetKeyValue(section, key, "") << "'");
        }
    }
}

} // namespace Agent
