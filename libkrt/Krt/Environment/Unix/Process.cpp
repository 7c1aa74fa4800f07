#include "Krt/Environment/Process.h"

#include "Krt/Environment/Unix/Platform.h"
#include "Krt/Exception/Raise.h"

#include <csignal>
#include <sys/wait.h>
#include <unistd.h>

extern char** environ;

namespace Krt::Environment {

namespace {

// How a program is started. Each setting returns 0 or an error number, and the first failure is kept.
class SpawnSettings
{
public:
    SpawnSettings()
    {
        posix_spawnattr_init(&m_attributes);
        posix_spawn_file_actions_init(&m_actions);
        sigset_t all;
        sigset_t none;
        sigfillset(&all);
        sigemptyset(&none);
        Keep(posix_spawnattr_setsigdefault(&m_attributes, &all));
        Keep(posix_spawnattr_setsigmask(&m_attributes, &none));
        Keep(posix_spawnattr_setflags(&m_attributes, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK));
        Keep(InheritStandardStreamsAlone(m_attributes, m_actions));
    }
    ~SpawnSettings()
    {
        posix_spawn_file_actions_destroy(&m_actions);
        posix_spawnattr_destroy(&m_attributes);
    }
    SpawnSettings(const SpawnSettings&) = delete;
    SpawnSettings& operator=(const SpawnSettings&) = delete;

    // Returns 0 or an error number.
    int Spawn(const char* program, char** arguments, pid_t& child) const
    {
        return m_error != 0 ? m_error
                            : posix_spawn(&child, program, &m_actions, &m_attributes, arguments, environ);
    }

private:
    void Keep(int error)
    {
        if (m_error == 0)
            m_error = error;
    }

    posix_spawnattr_t m_attributes;
    posix_spawn_file_actions_t m_actions;
    int m_error = 0;
};

// The pointers are to the caller's strings.
std::vector<char*> ArgumentVector(const YString& program, const std::vector<YString>& arguments)
{
    std::vector<char*> vector;
    const auto add = [&](const YString& text) {
        // An argument that is cut at a NUL byte may mean something else.
        if (text.Bytes().find('\0') != std::string::npos)
            KRT_RAISE_AS("ExecuteProcess", MessageType::General, ErrorCode::InvalidArgument,
                         "Argument with a NUL byte in it for " << program);
        vector.push_back(const_cast<char*>(text.CStr()));
    };
    add(program);
    for (const YString& argument : arguments)
        add(argument);
    vector.push_back(nullptr);
    return vector;
}

} // namespace

bool IsRoot()
{
    return geteuid() == 0;
}

int ExecuteProcess(const File::YPath& program, const std::vector<YString>& arguments)
{
    const YString& path = program.AsUnixPath(false);
    std::vector<char*> vector = ArgumentVector(path, arguments);
    pid_t child = 0;
    if (const int error = SpawnSettings().Spawn(path.CStr(), vector.data(), child); error != 0)
        KRT_RAISE_OS(error, "Failed to run " << program);
    int status = 0;
    KRT_SYSCALL(waitpid(child, &status, 0), "Failed to wait for " << program);
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

int ExecuteProcessElevated(const File::YPath& program, const std::vector<YString>& arguments, bool unattended)
{
    return ExecuteProcessElevated(program, arguments, unattended, ExecuteProcess);
}

int ExecuteProcessElevated(const File::YPath& program, const std::vector<YString>& arguments, bool unattended,
                           const ProcessRunner& runner)
{
    if (IsRoot())
        return runner(program, arguments);
    std::vector<YString> elevated;
    if (unattended)
        elevated.emplace_back("-n");
    // "--" keeps sudo from reading a path as an option or as an assignment to a variable.
    elevated.emplace_back("--");
    elevated.push_back(program.AsUnixPath(false));
    elevated.insert(elevated.end(), arguments.begin(), arguments.end());
    return runner("/usr/bin/sudo", elevated);
}

int FindProcessByName(const YString& name, bool countsSelf)
{
    const int process = FindProcess(name, countsSelf ? 0 : getpid());
    KRT_RAISE_UNLESS(process != 0, ErrorCode::NotFound, "No process is named " << name);
    return process;
}

} // namespace Krt::Environment
