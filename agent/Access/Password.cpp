#include "agent/Access/Password.h"

#include "agent/Access/TextFile.h"
#include "agent/Run/FileGuard.h"
#include "agent/Run/UsageError.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

namespace Agent {

using Repo::Secret;

namespace {

constexpr auto PasswordNames = {"PASSWORD", "PASSWORD_FILE", "PASSWORD_COMMAND"};

// Removes a variable, and overwrites its value.
void Forget(const std::string& name)
{
    if (char* const value = std::getenv(name.c_str())) {
        Repo::Wipe({reinterpret_cast<unsigned char*>(value), std::strlen(value)});
        unsetenv(name.c_str());
    }
}

std::optional<Secret> TakeFromEnvironment(const RepositoryOptions& options)
{
    std::optional<std::string> found = FromEnvironment(options, PasswordNames, "PASSWORD");
    if (!found)
        return std::nullopt;
    std::string& text = *found;
    Secret secret(Repo::AsBytes(text));
    Repo::Wipe({reinterpret_cast<unsigned char*>(text.data()), text.size()});
    const std::string name = options.isSource ? "_FROM_PASSWORD" : "_PASSWORD";
    Forget("KBAGENT" + name);
    Forget("RESTIC" + name);
    return secret;
}

// Where a password is typed.
struct Prompt
{
    const char* question;
    bool isNew;       // it is typed twice
    const char* name; // in messages
};

constexpr Prompt ForRepository{"enter password for repository: ", false, "the password of the repository"};
constexpr Prompt ForSource{"enter password for source repository: ", false,
                           "the password of the source repository"};
constexpr Prompt ForCreation{"enter password for new repository: ", true,
                             "the password of the new repository"};
constexpr Prompt ForNewKey{"enter new password: ", true, "the new password"};

Secret AskTwice(const Prompt& prompt)
{
    Secret first = AskOnTerminal(prompt.question);
    const Secret second = AskOnTerminal("enter password again: ");
    KRT_RAISE_UNLESS(std::ranges::equal(first.View(), second.View()), Krt::ErrorCode::InvalidArgument,
                     "The passwords do not match");
    return first;
}

Password Ask(const Prompt& prompt, Report& report)
{
    if (isatty(STDIN_FILENO) == 1) {
        auto terminal = std::make_shared<const SilentTerminal>();
        return {prompt.isNew ? AskTwice(prompt) : AskOnTerminal(prompt.question), std::move(terminal)};
    }
    report.Note(Krt::YString(std::string("Reading ") + prompt.name + " from standard input"));
    return {ReadFirstLine()};
}

std::string OptionOf(const RepositoryOptions& options, const char* name)
{
    return (options.isSource ? "--from-" : "--") + std::string(name);
}

Password ReadFile(const std::string& path, const char* role, Report& report)
{
    Password password{ReadTextFile(path, TextLimit, role)};
    if (const std::string risk = FindRisk(path); !risk.empty())
        report.Note(
            Krt::YString("Warning: other users can change " + std::string(role) + " " + path + ": " + risk));
    return password;
}

Password RequireNotEmpty(Password password, const RepositoryOptions& options)
{
    KRT_RAISE_UNLESS(password.text.Size() != 0, Krt::ErrorCode::InvalidArgument,
                     "The password" << (options.isSource ? " of the source repository" : "")
                                    << " is empty, which "
                                    << OptionOf(options, "insecure-no-password").c_str() << " allows");
    return password;
}

Password Read(const RepositoryOptions& options, const Prompt& prompt, Report& report)
{
    std::string file = options.passwordFile;
    std::string command = options.passwordCommand;
    if (file.empty() && command.empty()) {
        file = FromEnvironment(options, PasswordNames, "PASSWORD_FILE").value_or("");
        command = FromEnvironment(options, PasswordNames, "PASSWORD_COMMAND").value_or("");
    }
    const bool isDirect = file.empty() && command.empty();
    std::optional<Secret> direct = isDirect ? TakeFromEnvironment(options) : std::optional<Secret>();
    if (options.hasNoPassword) {
        if (!isDirect || direct)
            throw UsageError(OptionOf(options, "insecure-no-password") +
                             " is given, and also a password by " + OptionOf(options, "password-file") +
                             ", " + OptionOf(options, "password-command") +
                             " or a variable of the environment");
        return {};
    }
    if (!file.empty() && !command.empty())
        throw UsageError("The password is given twice: by a file and by a command");
    if (!file.empty())
        return RequireNotEmpty(ReadFile(file, "the password file", report), options);
    if (!command.empty())
        return RequireNotEmpty({RunPasswordCommand(SplitWords(command))}, options);
    if (direct)
        return {std::move(*direct)};
    Password asked = Ask(prompt, report);
    KRT_RAISE_UNLESS(asked.terminal || asked.text.Size() != 0, Krt::ErrorCode::InvalidArgument,
                     "There is no password: no option and no variable gives it, and standard input is "
                     "empty. Name a file that has it: "
                         << OptionOf(options, "password-file").c_str() << " or KBAGENT_"
                         << (options.isSource ? "FROM_" : "") << "PASSWORD_FILE");
    return RequireNotEmpty(std::move(asked), options);
}

} // namespace

Password ReadPassword(const RepositoryOptions& options, Report& report)
{
    return Read(options, options.isSource ? ForSource : ForRepository, report);
}

Password ReadPasswordForCreation(const RepositoryOptions& options, Report& report)
{
    return Read(options, ForCreation, report);
}

Secret ReadNewPassword(const NewPasswordOptions& options, Report& report)
{
    if (options.hasNoPassword) {
        if (!options.file.empty())
            throw UsageError("--new-insecure-no-password and --new-password-file exclude each other");
        return {};
    }
    Password password = options.file.empty() ? Ask(ForNewKey, report)
                                             : ReadFile(options.file, "the file of the new password", report);
    KRT_RAISE_UNLESS(!options.file.empty() || password.terminal || password.text.Size() != 0,
                     Krt::ErrorCode::InvalidArgument,
                     "There is no new password: standard input is empty. Name a file that has it: "
                     "--new-password-file");
    KRT_RAISE_UNLESS(password.text.Size() != 0, Krt::ErrorCode::InvalidArgument,
                     "The new password is empty, which --new-insecure-no-password allows");
    return std::move(password.text);
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
