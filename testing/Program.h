// Runs kbagent in its own process.
#pragma once

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

namespace Testing {

/// Succeeds if the text contains the part.
inline ::testing::AssertionResult Holds(const std::string& text, const std::string& part)
{
    if (text.find(part) == std::string::npos)
        return ::testing::AssertionFailure() << "no \"" << part << "\" in: " << text;
    return ::testing::AssertionSuccess() << "\"" << part << "\" in: " << text;
}

struct ProgramResult
{
    int exitCode = -1; ///< 128 plus the signal's number if a signal ended it
    std::string output;
    std::string errors;
};

/// An ordinary user for tests that run as root.
constexpr unsigned int OrdinaryUser = 65534;

struct ProgramSettings
{
    /// If not 0, and the test runs as root, the program runs as that user and group, without further groups.
    unsigned int user = 0;
    /// Called in the program's process before the program begins.
    std::function<void()> prepare = {};
    /// Runs the code that is linked into the test instead of the program's file, with the C library functions
    /// that the test replaces.
    bool isLinked = false;
};

/// Calls the program within this process; returns its exit code.
int CallProgram(std::vector<std::string> arguments);

/// Runs the program with these arguments and no input.
ProgramResult RunProgram(const std::vector<std::string>& arguments, const ProgramSettings& settings);
ProgramResult RunProgram(const std::vector<std::string>& arguments, unsigned int user = 0);

} // namespace Testing
