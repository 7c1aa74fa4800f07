#include "testing/Program.h"

#include "testing/TemporaryDirectory.h"

#include "agent/Cli/Program.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <grp.h>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

namespace {

[[noreturn]] void Become(const std::vector<std::string>& arguments, int output, int errors,
                         const ProgramSettings& settings)
{
    const unsigned int user = settings.user;
    // A shell lets what it starts in the background ignore these.
    for (const int interrupt : {SIGINT, SIGQUIT})
        std::signal(interrupt, SIG_DFL);
    dup2(open("/dev/null", O_RDONLY), 0);
    dup2(output, 1);
    dup2(errors, 2);
    const bool changesUser = user != 0 && geteuid() == 0;
    if (changesUser && (setgroups(0, nullptr) != 0 || setgid(user) != 0 || setuid(user) != 0))
        _exit(126);
    if (settings.prepare)
        settings.prepare();
    // That user may not have access to the program's file.
    if (changesUser || settings.isLinked)
        _exit(CallProgram(arguments));
    std::string program = KBAGENT_PROGRAM;
    std::vector<char*> vector{program.data()};
    for (const std::string& argument : arguments)
        vector.push_back(const_cast<char*>(argument.c_str()));
    vector.push_back(nullptr);
    execv(program.c_str(), vector.data());
    _exit(127);
}

} // namespace

int CallProgram(std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "kbagent");
    std::vector<char*> vector;
    for (std::string& argument : arguments)
        vector.push_back(argument.data());
    vector.push_back(nullptr);
    return Agent::Run(static_cast<int>(arguments.size()), vector.data());
}

ProgramResult RunProgram(const std::vector<std::string>& arguments, unsigned int user)
{
    return RunProgram(arguments, {.user = user, .prepare = {}});
}

ProgramResult RunProgram(const std::vector<std::string>& arguments, const ProgramSettings& settings)
{
    const TemporaryDirectory directory;
    const std::string outputPath = directory / "output";
    const std::string errorsPath = directory / "errors";
    const int output = open(outputPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int errors = open(errorsPath.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const pid_t child = fork();
    if (child == 0)
        Become(arguments, output, errors, settings);
    close(output);
    close(errors);
    int status = 0;
    EXPECT_EQ(waitpid(child, &status, 0), child);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), ReadFile(outputPath),
            ReadFile(errorsPath)};
}

} // namespace Testing
