// Runs kbagent in a process of its own.
#pragma once

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

/// Runs the program with these arguments and no input. With a `user` other than 0, and as root, it runs as
/// that user and group, without further groups.
ProgramResult RunProgram(const std::vector<std::string>& arguments, unsigned int user = 0);

} // namespace Testing
