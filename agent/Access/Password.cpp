#include "agent/Access/Password.h"

#include "agent/Access/TextFile.h"
#include "agent/Run/UsageError.h"

#include "Krt/Exception/Raise.h"

#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace Agent {

using Repo::Secret;

namespace {

// Removes a variable, and overwrites its value.
void Forget(const char* name)
{
    if (char* const value = std::getenv(name)) {
        Repo::Wipe({reinterpret_cast<unsigned char*>(value), std::strlen(value)});
        unsetenv(name);
    }
}

std::optional<Secret> TakeFromEnvironment()
{
    std::optional<std::string> found =
        FromEnvironment({"PASSWORD", "PASSWORD_FILE", "PASSWORD_COMMAND"}, "PASSWORD");
    if (!found)
        return std::nullopt;
    std::string& text = *found;
    Secret secret(Repo::AsBytes(text));
    Repo::Wipe({reinterpret_cast<unsigned char*>(text.data()), text.size()});
    Forget("KBAGENT_PASSWORD");
    Forget("RESTIC_PASSWORD");
    return secret;
}

Password Read(const std::string& file, const std::string& command, Report& report)
{
    if (!file.empty() && !command.empty())
        throw UsageError("The password is given twice: by a file and by a command");
    if (!file.empty())
        return {ReadTextFile(file), false};
    if (!command.empty())
        return {RunPasswordCommand(SplitWords(command)), false};
    if (std::optional<Secret> password = TakeFromEnvironment())
        return {std::move(*password), false};
    if (isatty(STDIN_FILENO) == 1)
        return {AskOnTerminal("enter password for repository: "), true};
    report.Note("Reading the password of the repository from standard input");
    return {ReadFirstLine(), false};
}

} // namespace

Password ReadPassword(const RepositoryOptions& options, Report& report)
{
    std::string file = options.passwordFile;
    std::string command = options.passwordCommand;
    if (file.empty() && command.empty()) {
        const auto names = {"PASSWORD", "PASSWORD_FILE", "PASSWORD_COMMAND"};
        file = FromEnvironment(names, "PASSWORD_FILE").value_or("");
        command = FromEnvironment(names, "PASSWORD_COMMAND").value_or("");
    }
    Password password = Read(file, command, report);
    KRT_RAISE_UNLESS(password.text.Size() != 0, Krt::ErrorCode::InvalidArgument, "The password is empty");
    return password;
}

std::vector<std::string> SplitWords(const std::string& command)
{
    std::vector<std::string> words;
    char quote = 0;
    bool isInWord = false;
    for (std::size_t i = 0; i < command.size(); ++i) {
        const char byte = command[i];
        const bool isBlank = byte == ' ' || byte == '\t' || byte == '\n';
        if (quote == 0 && isBlank) {
            isInWord = false;
            continue;
        }
        if (!isInWord)
            words.emplace_back();
        isInWord = true;
        if (quote != 0 ? byte == quote : byte == '\'' || byte == '"')
            quote = quote != 0 ? '\0' : byte;
        else if (byte == '\\' && quote != '\'' && i + 1 < command.size())
            words.back() += command[++i];
        else
            words.back() += byte;
    }
    if (quote != 0 || words.empty())
        throw UsageError("The command for the password is empty or has an open quote");
    return words;
}

} // namespace Agent
