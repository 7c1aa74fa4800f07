// Runs kbagent in a process of its own.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Testing {

struct ProgramResult
{
    int exitCode = -1; ///< 128 and the signal's number for one that a signal ended
    std::string output;
    std::string errors;
};

/// An ordinary user for tests that run as root.
constexpr unsigned int OrdinaryUser = 65534;

struct ProgramSettings
{
    /// Other than 0, and as root, the program runs as that user and group, without further groups.
    unsigned int user = 0;
    /// Called in the program's process before it begins.
    std::function<void()> prepare = {};
    /// Runs the code that is linked into the test instead of the program's file, with the functions of the C
    /// library that the test defines.
    bool isLinked = false;
};

/// Calls the program within this process; returns its exit code.
int CallProgram(std::vector<std::string> arguments);

/// Runs the program with these arguments and no input.
ProgramResult RunProgram(const std::vector<std::string>& arguments, const ProgramSettings& settings);
ProgramResult RunProgram(const std::vector<std::string>& arguments, unsigned int user = 0);

} // namespace Testing
