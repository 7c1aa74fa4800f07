#include "agent/Cli/RepositoryArguments.h"

#include <CLI/CLI.hpp>

namespace Agent {

const char* const RepositoryHelp =
    "The repository is that of --repo, --repository-file or the variable KBAGENT_REPOSITORY or\n"
    "KBAGENT_REPOSITORY_FILE. The password is that of --password-file or --password-command, or of\n"
    "KBAGENT_PASSWORD_FILE, KBAGENT_PASSWORD_COMMAND or KBAGENT_PASSWORD; otherwise it is asked for.\n"
    "KBAGENT_KEY_HINT is that of --key-hint.\n"
    "Without such a variable, that of restic is used: RESTIC_REPOSITORY and so on.\n\n";

// Scripts for restic have them. There is no cache. They are not in the help.
static void AddOptionsWithoutEffect(CLI::App& command)
{
    for (const char* const name : {"--no-cache", "--cleanup-cache"})
        command.add_flag(name)->group("");
    command
        .add_option(
            "--cache-dir", [](const CLI::results_t&) { return true; }, "")
        ->group("");
}

void RepositoryArguments::AddTo(CLI::App& command)
{
    const std::size_t first = command.get_options().size();
    command.add_option("-r,--repo", m_options.location, "The repository: a directory")->type_name("LOCATION");
    command
        .add_option("--repository-file", m_options.locationFile, "A file that has the repository's location")
        ->type_name("FILE");
    command.add_option("-p,--password-file", m_options.passwordFile, "A file that has the password")
        ->type_name("FILE");
    command
        .add_option("--password-command", m_options.passwordCommand,
                    "A command that prints the password; it is run without a shell")
        ->type_name("COMMAND");
    command.add_option("--key-hint", m_options.keyHint, "The ID of the key to try first")->type_name("ID");
    command.add_flag("--no-lock", m_options.isUnlocked, "Do not lock the repository");
    command
        .add_option("--retry-lock", m_retryLock,
                    "Wait this long for a repository that is locked, as in 90s, 5m or 1h30m")
        ->type_name("DURATION");
    command.add_flag("--json", m_options.isJson, "Print JSON");
    command.add_flag("-q,--quiet", m_options.isQuiet, "Print only what was asked for");
    command.add_flag("-v,--verbose", m_options.isVerbose, "Report the repository and the key, too");
    const std::vector<CLI::Option*> options = command.get_options();
    for (std::size_t i = first; i < options.size(); ++i)
        options[i]->group("Repository options")->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    AddOptionsWithoutEffect(command);
}

void RepositoryArguments::AddSnapshotOptionsTo(CLI::App& command)
{
    command.add_option("-H,--host", m_snapshots.hosts, "Consider only snapshots of this host")
        ->type_name("HOST")
        ->allow_extra_args(false);
    command
        .add_option(
            "--tag", m_snapshots.tags,
            "Consider only snapshots with all tags of a list, as in a,b; \",\" for those without tags")
        ->type_name("LIST")
        ->allow_extra_args(false);
    command.add_option("--path", m_snapshots.paths, "Consider only snapshots of this path")
        ->type_name("PATH")
        ->allow_extra_args(false);
}

RepositoryOptions RepositoryArguments::Get() const
{
    RepositoryOptions options = m_options;
    if (!m_retryLock.empty())
        options.retryLock = ParseDuration(m_retryLock);
    return options;
}

std::string IndentJson(std::string_view json)
{
    std::string out;
    std::size_t depth = 0;
    bool isInString = false;
    const auto breakLine = [&] {
        out.append(1, '\n').append(2 * depth, ' ');
    };
    for (std::size_t i = 0; i < json.size(); ++i) {
        const char byte = json[i];
        const bool isBlank = byte == ' ' || byte == '\n' || byte == '\t' || byte == '\r';
        if (isInString) {
            out += byte;
            if (byte == '\\' && i + 1 < json.size())
                out += json[++i];
            isInString = byte != '"';
        } else if (byte == '{' || byte == '[') {
            out += byte;
            ++depth;
            std::size_t next = json.find_first_not_of(" \n\t\r", i + 1);
            if (next != std::string_view::npos && (json[next] == '}' || json[next] == ']'))
                --depth, out += json[i = next];
            else
                breakLine();
        } else if (byte == '}' || byte == ']') {
            depth -= depth == 0 ? 0 : 1;
            breakLine();
            out += byte;
        } else if (byte == ',') {
            out += byte;
            breakLine();
        } else if (byte == ':') {
            out += ": ";
        } else if (!isBlank) {
            out += byte;
            isInString = byte == '"';
        }
    }
    return out;
}

} // namespace Agent
