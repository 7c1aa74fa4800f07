#include "agent/Access/Password.h"

#include "agent/Access/TextFile.h"
#include "agent/Run/Input.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YScope.h"
#include "Krt/Util/YUnxHandle.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <iterator>
#include <spawn.h>
#include <string_view>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

extern char** environ;

namespace Agent {

using Krt::Util::CallSystem;
using Krt::Util::YUnxHandle;
using Repo::Bytes;
using Repo::Secret;

namespace {

// Reads to the end, or to the first line end.
Bytes ReadText(int descriptor, bool isOneLine, const char* name)
{
    Bytes bytes;
    bytes.reserve(TextLimit);
    unsigned char byte = 0;
    for (;;) {
        WaitForInput(descriptor);
        if (KRT_SYSCALL(read(descriptor, &byte, 1), "Failed to read " << name) == 0)
            break;
        if (isOneLine && byte == '\n')
            break;
        KRT_RAISE_UNLESS(bytes.size() < TextLimit, Krt::ErrorCode::InvalidArgument,
                         "The password is too long");
        bytes.push_back(byte);
    }
    return bytes;
}

Secret TakeLine(Bytes bytes)
{
    if (!bytes.empty() && bytes.back() == '\r')
        bytes.pop_back();
    Secret secret{Repo::ByteView(bytes)};
    Repo::Wipe(bytes);
    return secret;
}

// Returns true if "NAME=VALUE" may have the password of a server of REST. A location has it before a "@".
bool MayHavePassword(std::string_view variable)
{
    constexpr std::string_view Passwords[] = {"KBAGENT_REST_PASSWORD=", "KBAGENT_FROM_REST_PASSWORD=",
                                              "RESTIC_REST_PASSWORD=", "RESTIC_FROM_REST_PASSWORD="};
    constexpr std::string_view Locations[] = {
        "KBAGENT_REPOSITORY=", "KBAGENT_FROM_REPOSITORY=", "RESTIC_REPOSITORY=", "RESTIC_FROM_REPOSITORY="};
    const auto isThis = [variable](std::string_view name) {
        return variable.starts_with(name);
    };
    return std::any_of(std::begin(Passwords), std::end(Passwords), isThis) ||
           (variable.find('@') != variable.npos &&
            std::any_of(std::begin(Locations), std::end(Locations), isThis));
}

// The environment of this process without the passwords of servers, which are not for the command.
std::vector<char*> EnvironmentOfCommand()
{
    std::vector<char*> variables;
    for (char** each = environ; *each != nullptr; ++each) {
        if (!MayHavePassword(*each))
            variables.push_back(*each);
    }
    variables.push_back(nullptr);
    return variables;
}

pid_t Spawn(const std::vector<std::string>& words, int output)
{
    std::vector<char*> arguments;
    arguments.reserve(words.size() + 1);
    for (const std::string& word : words)
        arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    const Krt::Util::YScope atEnd([&] { posix_spawn_file_actions_destroy(&actions); });
    posix_spawn_file_actions_adddup2(&actions, output, STDOUT_FILENO);
    pid_t child = 0;
    std::vector<char*> variables = EnvironmentOfCommand();
    if (const int error =
            posix_spawnp(&child, arguments[0], &actions, nullptr, arguments.data(), variables.data()))
        KRT_RAISE_OS(error, "Failed to run the command for the password: " << words.front().c_str());
    return child;
}

} // namespace

Secret RunPasswordCommand(const std::vector<std::string>& words)
{
    int ends[2];
    if (pipe(ends) != 0)
        KRT_RAISE_OS(errno, "Failed to create a pipe");
    const YUnxHandle reader(ends[0], true);
    YUnxHandle writer(ends[1], true);
    fcntl(reader.Get(), F_SETFD, FD_CLOEXEC);
    fcntl(writer.Get(), F_SETFD, FD_CLOEXEC);
    const pid_t child = Spawn(words, writer.Get());
    writer.Close();
    Bytes printed;
    try {
        printed = ReadText(reader.Get(), false, "what the command for the password prints");
    } catch (...) {
        kill(child, SIGTERM);
        throw;
    }
    int status = 0;
    CallSystem([&] { return waitpid(child, &status, 0); });
    Secret secret = TextOf(printed, "What the command for the password printed");
    KRT_RAISE_UNLESS(WIFEXITED(status) && WEXITSTATUS(status) == 0, Krt::ErrorCode::InvalidArgument,
                     "The command for the password did not succeed: " << words.front().c_str());
    return secret;
}

SilentTerminal::SilentTerminal()
{
    KRT_SYSCALL(tcgetattr(STDIN_FILENO, &m_before), "Failed to read the settings of the terminal");
    if ((m_before.c_lflag & ECHO) == 0)
        return;
    termios silent = m_before;
    silent.c_lflag &= ~static_cast<tcflag_t>(ECHO);
    KRT_SYSCALL(tcsetattr(STDIN_FILENO, TCSAFLUSH, &silent), "Failed to turn the terminal's echo off");
}

SilentTerminal::~SilentTerminal()
{
    if ((m_before.c_lflag & ECHO) != 0)
        tcsetattr(STDIN_FILENO, TCSAFLUSH, &m_before);
}

Secret AskOnTerminal(const std::string& prompt)
{
    const SilentTerminal silent;
    const Krt::Util::YScope atEnd([] { CallSystem([] { return write(STDERR_FILENO, "\n", 1); }); });
    CallSystem([&] { return write(STDERR_FILENO, prompt.data(), prompt.size()); });
    return TakeLine(ReadText(STDIN_FILENO, true, "the terminal"));
}

Secret ReadFirstLine()
{
    return TakeLine(ReadText(STDIN_FILENO, true, "standard input"));
}

} // namespace Agent
