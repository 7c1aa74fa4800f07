// Directories for runs of the program: an empty source, an empty target, and the path of a store.
#pragma once

#include "testing/Program.h"
#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace Testing {

class ProgramFixture : public ::testing::Test
{
protected:
    /// Runs a command, its name first, with the option for the store. Fails the test if the exit code
    /// differs.
    ProgramResult Run(int exitCode, std::vector<std::string> arguments,
                      const ProgramSettings& settings = {}) const
    {
        arguments.insert(arguments.begin() + 1, {"--store", store});
        ProgramResult result = RunProgram(arguments, settings);
        EXPECT_EQ(result.exitCode, exitCode) << ::testing::PrintToString(arguments) << "\n" << result.errors;
        return result;
    }

    TemporaryDirectory directory;
    std::string source = directory.MakeDirectory("source");
    std::string target = directory.MakeDirectory("target");
    std::string store = directory / "store";
};

} // namespace Testing
