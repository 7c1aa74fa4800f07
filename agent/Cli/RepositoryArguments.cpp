#include "agent/Cli/RepositoryArguments.h"

#include "agent/Cli/SaveArguments.h"
#include "agent/Remote/Location.h"

#include <CLI/CLI.hpp>

#include <climits>

namespace Agent {

const char* const RepositoryHelp =
    "The repository is that of --repo, --repository-file or the variable KBAGENT_REPOSITORY or\n"
    "KBAGENT_REPOSITORY_FILE. The password is that of --password-file or --password-command, or of\n"
    "KBAGENT_PASSWORD_FILE, KBAGENT_PASSWORD_COMMAND or KBAGENT_PASSWORD; otherwise it is asked for.\n"
    "KBAGENT_KEY_HINT is that of --key-hint.\n"
    "Without such a variable, that of restic is used: RESTIC_REPOSITORY and so on.\n\n";

namespace {

constexpr const char* RepositoryGroup = "Repository options";

// Scripts for restic have it. What is old is removed without it. It is not in the help.
void AddOptionsWithoutEffect(CLI::App& command)
{
    command.add_flag("--cleanup-cache")->group("");
}

// All values of an option that may be repeated count.
void MakeRepeatable(CLI::Option& option, const char* type)
{
    option.type_name(type)->allow_extra_args(false)->group(RepositoryGroup);
}

// Of an option that is given twice, as before and after the command, the last one counts.
void GroupFrom(CLI::App& command, std::size_t first)
{
    const std::vector<CLI::Option*> options = command.get_options();
    for (std::size_t i = first; i < options.size(); ++i)
        options[i]->group(RepositoryGroup)->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
}

} // namespace

void RepositoryArguments::AddTo(CLI::App& command, LockOptions lock)
{
    const std::size_t first = command.get_options().size();
    AddAccessTo(command, "", "repository", m_options);
    m_options.mayBeUnlocked = lock == LockOptions::Optional;
    if (m_options.mayBeUnlocked)
        command.add_flag("--no-lock", m_options.isUnlocked, "Do not lock the repository");
    if (lock != LockOptions::None)
        command
            .add_option("--retry-lock", m_retryLock,
                        "Wait this long for a repository that is locked, as in 90s, 5m or 1h30m")
            ->type_name("DURATION");
    command.add_flag("--json", m_options.isJson, "Print JSON");
    command.add_flag("-q,--quiet", m_options.isQuiet, "Print only what was asked for");
    CLI::Option* const verbosity =
        command.add_flag("-v,--verbose", m_verbosity,
                         "Report the repository and the key, too; twice, each file that is stored");
    AddRemoteTo(command);
    GroupFrom(command, first);
    verbosity->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
    MakeRepeatable(*command.add_option("--tls-pin", m_options.remote.pins,
                                       "Trust a server with this key, as sha256:HEX; replaces the CAs"),
                   "PIN");
    MakeRepeatable(*command.add_option("-o,--option", m_options.remote.extended,
                                       "Set s3.region, or s3.bucket-lookup to auto, dns or path"),
                   "KEY=VALUE");
    AddOptionsWithoutEffect(command);
}

void RepositoryArguments::AddRemoteTo(CLI::App& command)
{
    Remote::RemoteOptions& remote = m_options.remote;
    command
        .add_option("--cacert", remote.anchorFile, "Trust the servers of these CAs, instead of the system's")
        ->type_name("FILE");
    command.add_flag("--no-cache", m_options.hasNoCache, "Keep no copies of a repository on a server");
    command
        .add_option("--cache-dir", m_options.cacheDirectory,
                    "The directory for copies of repositories on servers")
        ->type_name("DIR");
    command.add_option("--limit-upload", m_uploadLimit, "Send at most this much to a server")
        ->type_name("KIB/S");
    command.add_option("--limit-download", m_downloadLimit, "Receive at most this much from a server")
        ->type_name("KIB/S");
}

void RepositoryArguments::AddSourceTo(CLI::App& command)
{
    const std::size_t first = command.get_options().size();
    m_source.isSource = true;
    AddAccessTo(command, "from-", "source repository", m_source);
    GroupFrom(command, first);
}

void RepositoryArguments::AddAccessTo(CLI::App& command, const std::string& prefix, const std::string& name,
                                      RepositoryOptions& options)
{
    const auto names = [&prefix](const char* shortName, const char* longName) {
        return (prefix.empty() ? shortName : "") + ("--" + prefix) + longName;
    };
    command
        .add_option(names("-r,", "repo"), options.location,
                    "The " + name + ": a directory, s3:https://HOST/BUCKET or rest:https://HOST/PATH/")
        ->type_name("LOCATION");
    command
        .add_option(names("", "repository-file"), options.locationFile,
                    "A file that has the location of the " + name)
        ->type_name("FILE");
    command
        .add_option(names("-p,", "password-file"), options.passwordFile,
                    "A file that has the password of the " + name)
        ->type_name("FILE");
    command
        .add_option(names("", "password-command"), options.passwordCommand,
                    "A command that prints the password of the " + name + "; it is run without a shell")
        ->type_name("COMMAND");
    command
        .add_option(names("", "key-hint"), options.keyHint,
                    "The ID of the key of the " + name + " to try first")
        ->type_name("ID");
    command.add_flag(names("", "insecure-no-password"), options.hasNoPassword,
                     "The password of the " + name + " is empty");
}

void RepositoryArguments::AddSnapshotOptionsTo(CLI::App& command, const char* hostNames)
{
    command.add_option(hostNames, m_snapshots.hosts, "Consider only snapshots of this host")
        ->type_name("HOST")
        ->allow_extra_args(false);
    command
        .add_option(
            "--tag", m_snapshots.tags,
            "Consider only snapshots with all tags of a list, as in a,b; \"\" or \",\" for those without "
            "tags")
        ->type_name("LIST")
        ->allow_extra_args(false);
    command.add_option("--path", m_snapshots.paths, "Consider only snapshots of this path")
        ->type_name("PATH")
        ->allow_extra_args(false);
}

RepositoryOptions RepositoryArguments::Get() const
{
    Remote::RequireKnownOptions(m_options.remote.extended);
    RepositoryOptions options = m_options;
    options.isVerbose = m_verbosity > 0 && !options.isQuiet;
    options.isVeryVerbose = m_verbosity > 1 && !options.isQuiet;
    // With two repositories, the other one may have TLS.
    const bool hasTrust = !options.remote.anchorFile.empty() || !options.remote.pins.empty();
    options.remote.requiresTls = hasTrust && !m_source.isSource;
    if (!m_uploadLimit.empty())
        options.remote.uploadLimit = NumberOf(m_uploadLimit, "--limit-upload", 0, UINT_MAX);
    if (!m_downloadLimit.empty())
        options.remote.downloadLimit = NumberOf(m_downloadLimit, "--limit-download", 0, UINT_MAX);
    if (!m_retryLock.empty())
        options.retryLock = ParseDuration(m_retryLock, "--retry-lock");
    return options;
}

RepositoryOptions RepositoryArguments::GetSource() const
{
    RepositoryOptions options = Get();
    options.location = m_source.location;
    options.locationFile = m_source.locationFile;
    options.passwordFile = m_source.passwordFile;
    options.passwordCommand = m_source.passwordCommand;
    options.keyHint = m_source.keyHint;
    options.hasNoPassword = m_source.hasNoPassword;
    options.isSource = true;
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
