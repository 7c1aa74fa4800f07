#include "agent/Cli/LeadingOptions.h"

#include "agent/Cli/RepositoryArguments.h"
#include "agent/Run/UsageError.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <string_view>

namespace Agent {

namespace {

constexpr const char* LeadingGroup = "Options of commands on repositories, before or after the command";

// Options of restic that have no meaning here.
constexpr std::string_view ResticOptions[] = {"--insecure-tls",    "--stuck-request-timeout",
                                              "--tls-client-cert", "--with-cache",
                                              "--http-user-agent", "--no-extra-verify"};

// Commands of restic that kbagent does not have, and what to use instead.
struct ResticCommand
{
    std::string_view name;
    std::string_view instead;
};

constexpr ResticCommand ResticCommands[] = {
    {"cache", "old files of the cache are removed by each command"},
    {"diff", "the outputs of 'kbagent ls --long' for two snapshots can be compared"},
    {"find", "'kbagent ls' prints all paths of a snapshot, which grep can search"},
    {"generate", "the package has the manual page and the completion"},
    {"mount", "'kbagent restore' and 'kbagent dump' read single entries"},
    {"self-update", "the system's package manager updates it"},
    {"version", "use --version"},
};

// An argument that is an option, or several in one, as in -qv.
struct Typed
{
    std::string name;       // of the last option
    bool takesNext = false; // the next argument is its value
    bool isLeading = false; // an option of repositories
};

Typed Understand(const CLI::App& program, const std::string& argument)
{
    Typed typed;
    const auto look = [&](const std::string& name, bool hasValue) {
        const CLI::Option* const option = program.get_option_no_throw(name);
        const bool takesValue = option != nullptr && option->get_items_expected_max() > 0;
        typed.name = name;
        typed.takesNext = takesValue && !hasValue;
        typed.isLeading = option != nullptr && option->get_group() == LeadingGroup;
        return takesValue;
    };
    if (argument.starts_with("--")) {
        look(argument.substr(0, argument.find('=')), argument.find('=') != std::string::npos);
        return typed;
    }
    for (std::size_t i = 1; i < argument.size(); ++i) {
        if (look(std::string("-") + argument[i], i + 1 < argument.size()))
            break;
    }
    return typed;
}

bool HasCommands(const CLI::App& command)
{
    return !command.get_subcommands([](const CLI::App*) { return true; }).empty();
}

} // namespace

const CLI::App* FindCommand(const CLI::App& parent, const std::string& name)
{
    const auto all = parent.get_subcommands([&name](const CLI::App* each) { return each->check_name(name); });
    return all.empty() ? nullptr : all.front();
}

void AddLeadingOptions(CLI::App& program)
{
    static RepositoryArguments unused;
    const std::size_t first = program.get_options().size();
    unused.AddTo(program);
    const std::vector<CLI::Option*> options = program.get_options();
    for (std::size_t i = first; i < options.size(); ++i) {
        if (!options[i]->get_group().empty())
            options[i]->group(LeadingGroup);
    }
}

void MoveLeadingOptions(const CLI::App& program, std::vector<std::string>& arguments)
{
    std::vector<std::string> before;
    std::vector<std::string> moved;
    std::vector<std::string> names;
    auto at = arguments.rbegin();
    const auto end = arguments.rend();
    // The command, and its own command, as in "key list". Options may precede each of them.
    const CLI::App* command = &program;
    while (at != end && *at != "--" && HasCommands(*command)) {
        if (at->size() > 1 && at->front() == '-') {
            const Typed typed = Understand(program, *at);
            if (!typed.isLeading && command != &program)
                break;
            std::vector<std::string>& list = typed.isLeading ? moved : before;
            if (typed.isLeading)
                names.push_back(typed.name);
            list.push_back(*at++);
            if (typed.takesNext && at != end)
                list.push_back(*at++);
        } else if (const CLI::App* const next = FindCommand(*command, *at); next != nullptr) {
            before.push_back(*at++);
            command = next;
        } else {
            break;
        }
    }
    if (moved.empty() || command == &program)
        return;
    for (const std::string& name : names) {
        if (command->get_option_no_throw(name) == nullptr)
            throw UsageError("The command " + command->get_name() + " does not have the option " + name);
    }
    before.insert(before.end(), moved.begin(), moved.end());
    before.insert(before.end(), at, end);
    arguments.assign(before.rbegin(), before.rend());
}

std::string HintForResticOption(const std::string& option)
{
    const bool isKnown =
        std::find(std::begin(ResticOptions), std::end(ResticOptions), option) != std::end(ResticOptions);
    return isKnown ? " (kbagent does not have restic's option " + option + ")" : "";
}

std::string HintForResticCommand(const std::string& command)
{
    for (const ResticCommand& each : ResticCommands) {
        if (each.name == command)
            return " (kbagent does not have this command of restic; " + std::string(each.instead) + ")";
    }
    return "";
}

} // namespace Agent
