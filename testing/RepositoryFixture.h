// A repository for runs of kbagent, and of restic as the judge.
#pragma once

#include "testing/ProgramFixture.h"

#include "agent/Repository/LocalBackend.h"
#include "agent/Repository/Repository.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <sys/wait.h>

namespace Testing {

/// The words of a text, which blanks separate.
inline std::vector<std::string> Words(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

/// Creates a repository with one key, by a derivation that takes no time.
inline Agent::Repo::Repository CreateRepository(const std::string& location, const std::string& password,
                                                std::uint32_t version = 2)
{
    Agent::Repo::CreateOptions options;
    options.version = version;
    options.cost = {16, 1, 1};
    return Agent::Repo::Repository::Create(std::make_shared<Agent::Repo::LocalBackend>(location.c_str()),
                                           Agent::Repo::Secret(Agent::Repo::AsBytes(password)), options);
}

/// The files below a directory, sorted.
inline std::vector<std::filesystem::path> FilesBelow(const std::string& directory)
{
    std::vector<std::filesystem::path> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(directory))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

/// A directory with the location of a repository, which is empty at first.
class RepositoryFixture : public ::testing::Test
{
protected:
    /// Runs restic in the directory and returns what it printed. Fails the test if the exit code differs.
    std::string Restic(const std::string& arguments, int exitCode = 0) const
    {
        const std::string command = "cd " + directory.Path() + " && HOME=. RESTIC_PASSWORD='" + password +
                                    "' restic --no-cache -r " + repository + " " + arguments +
                                    " >output 2>errors";
        const int status = std::system(command.c_str());
        EXPECT_EQ(WEXITSTATUS(status), exitCode) << arguments << ReadFile(directory / "errors");
        return ReadFile(directory / "output");
    }

    /// Runs kbagent in the directory. A variable "NAME=" is unset. Fails the test if the exit code differs.
    ProgramResult Run(int exitCode, const std::vector<std::string>& arguments, unsigned int user = 0,
                      const std::vector<std::string>& variables = {}) const
    {
        const auto prepare = [&] {
            std::filesystem::current_path(directory.Path());
            setenv("KBAGENT_REPOSITORY", repository.c_str(), 1);
            setenv("KBAGENT_PASSWORD", password.c_str(), 1);
            for (const std::string& variable : variables)
                variable.ends_with('=') ? unsetenv(variable.substr(0, variable.size() - 1).c_str())
                                        : putenv(const_cast<char*>(variable.c_str()));
        };
        ProgramResult result = RunProgram(arguments, {.user = user, .prepare = prepare});
        EXPECT_EQ(result.exitCode, exitCode) << ::testing::PrintToString(arguments) << "\n"
                                             << result.output.substr(0, 2000) << result.errors;
        return result;
    }
    /// Run with the words of a text.
    ProgramResult Run(int exitCode, const std::string& words) const { return Run(exitCode, Words(words)); }

    Agent::Repo::Repository Create(std::uint32_t version = 2) const
    {
        return CreateRepository(repository, password, version);
    }
    /// The files below a directory of the repository, sorted.
    std::vector<std::filesystem::path> Files(const std::string& part) const
    {
        return FilesBelow(repository + "/" + part);
    }

    /// Returns true if restic is installed.
    static bool HasRestic() { return std::system("command -v restic >/dev/null") == 0; }

    const TemporaryDirectory directory;                ///< for anything
    const std::string repository = directory / "repo"; ///< the location
    std::string password = "secret";                   ///< of the repository
};

} // namespace Testing
