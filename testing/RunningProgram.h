// A process that runs a program of a given name until it is killed.
#pragma once

#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <csignal>
#include <fcntl.h>
#include <filesystem>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

class RunningProgram
{
public:
    /// The program runs when the constructor returns. If `link` is not empty, it is started through a symlink
    /// of that name.
    explicit RunningProgram(const std::string& name, const std::string& link = {})
    {
        const std::string program = m_directory / (link.empty() ? name : link);
        std::filesystem::copy_file("/bin/sleep", m_directory / name);
        if (!link.empty())
            std::filesystem::create_symlink(name, program);
        int ready[2];
        EXPECT_EQ(pipe2(ready, O_CLOEXEC), 0);
        m_child = fork();
        if (m_child == 0) {
            execl(program.c_str(), program.c_str(), "600", nullptr);
            _exit(1);
        }
        close(ready[1]);
        char none;
        EXPECT_EQ(read(ready[0], &none, 1), 0) << "the pipe closes when the program begins";
        close(ready[0]);
    }
    ~RunningProgram() { Kill(0); }
    RunningProgram(const RunningProgram&) = delete;
    RunningProgram& operator=(const RunningProgram&) = delete;

    /// With WNOWAIT it remains a zombie.
    void Kill(int options) const
    {
        siginfo_t info;
        kill(m_child, SIGKILL);
        waitid(P_PID, static_cast<id_t>(m_child), &info, WEXITED | options);
    }
    int Id() const { return m_child; }

private:
    TemporaryDirectory m_directory;
    pid_t m_child;
};

} // namespace Testing
