// The password of a repository. It is never part of an argument, a log or a message.
#pragma once

#include "agent/Access/RepositoryOptions.h"
#include "agent/Repository/Secret.h"
#include "agent/Run/Report.h"

#include <memory>
#include <string>
#include <termios.h>
#include <vector>

namespace Agent {

/// Turns the echo of the terminal that is standard input off, for as long as an object of this class exists.
/// Input that was typed before is lost. Does nothing if the echo is off already. Raises the operating
/// system's error if standard input is not a terminal.
class SilentTerminal
{
public:
    SilentTerminal();
    ~SilentTerminal();
    SilentTerminal(const SilentTerminal&) = delete;
    SilentTerminal& operator=(const SilentTerminal&) = delete;

private:
    termios m_before{};
};

/// A password, and where it came from.
struct Password
{
    Repo::Secret text;
    /// The terminal on which it was typed, and may be typed again; otherwise null. What the user types
    /// meanwhile is not echoed.
    std::shared_ptr<const SilentTerminal> terminal = nullptr;
};

/// The password, from the first of these that there is:
///   - the option for a file or for a command
///   - the variable PASSWORD_FILE or PASSWORD_COMMAND of the environment, then PASSWORD
///   - the terminal, without echo, if standard input is one; otherwise the first line of standard input
/// It is empty if the options say so. A password from the environment is overwritten there, so it can be read
/// only once. Raises UsageError if a file and a command are given, or an empty password and another;
/// InvalidState if the user interrupts; and InvalidArgument for an empty password that the options do not
/// allow, and for a command that fails. Reports a password file that FindRisk objects to.
Password ReadPassword(const RepositoryOptions& options, Report& report);
/// ReadPassword for a repository that is to be created: on a terminal the user types the password twice.
/// Raises InvalidArgument if the two differ.
Password ReadPasswordForCreation(const RepositoryOptions& options, Report& report);

/// A further password of a repository, as a command line gives it.
struct NewPasswordOptions
{
    std::string file;           ///< that has the password; empty if not given
    bool hasNoPassword = false; ///< the new password is empty
};

/// The new password: from the file, or from the terminal, where the user types it twice, or a line of
/// standard input. See ReadPassword.
Repo::Secret ReadNewPassword(const NewPasswordOptions& options, Report& report);

/// The words of a command, separated by blanks. Text in single or double quotes is part of one word, and a
/// backslash makes the next character literal, except in single quotes. Raises UsageError for an
/// open quote and for no word at all.
std::vector<std::string> SplitWords(const std::string& command);

/// Runs a program, found by PATH, without a shell. It has the environment of this process without the
/// variables ..._REST_PASSWORD. Returns what it printed, as TextOf. Raises the operating system's error if it
/// can't be run, and InvalidArgument if it does not succeed. When the user interrupts, the program gets
/// SIGTERM, and InvalidState is raised.
Repo::Secret RunPasswordCommand(const std::vector<std::string>& words);

/// Asks on the terminal without echo. Raises InvalidState if the user interrupts or ends the input.
Repo::Secret AskOnTerminal(const std::string& prompt);

/// The first line of standard input, without its end.
Repo::Secret ReadFirstLine();

} // namespace Agent
