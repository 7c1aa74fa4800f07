// A repository for runs of kbagent, and of restic as the judge.
#pragma once

#include "testing/Program.h"
#include "testing/TemporaryDirectory.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Repository/LocalBackend.h"
#include "agent/Repository/Pack.h"
#include "agent/Repository/Repository.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <iterator>
#include <sstream>
#include <sys/wait.h>
#include <unistd.h>

namespace Testing {

/// The words of a text, which blanks separate.
inline std::vector<std::string> Words(const std::string& text)
{
    std::istringstream in(text);
    return {std::istream_iterator<std::string>(in), {}};
}

/// How many rounds a test has: the variable of the environment asks for a longer run.
inline int Rounds(const char* variable, int otherwise)
{
    const char* const text = std::getenv(variable);
    return text != nullptr ? std::atoi(text) : otherwise;
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

/// Opens a repository, and loads its index.
inline Agent::Repo::Repository OpenRepository(const std::string& location, const std::string& password)
{
    auto opened = Agent::Repo::Repository::Open(std::make_shared<Agent::Repo::LocalBackend>(location.c_str()),
                                                Agent::Repo::Secret(Agent::Repo::AsBytes(password)));
    opened.LoadIndex();
    return opened;
}

/// The paths of the latest snapshot below a directory, in its order and without the directory.
inline std::vector<std::string> StoredPaths(const Agent::Repo::Repository& opened,
                                            const std::string& root = "")
{
    std::vector<std::string> paths;
    Agent::WalkTree(
        opened, opened.FindSnapshot("latest").snapshot.tree, "",
        [&](const std::string& path, Agent::Repo::Node&) {
            if (path.starts_with(root + "/"))
                paths.push_back(path.substr(root.size()));
            return Agent::Step::Into;
        },
        [](const std::string& path, const Krt::Exception::YError&) { ADD_FAILURE() << path; });
    return paths;
}

/// Collects blobs for a snapshot, whatever they contain.
class SnapshotMaker
{
public:
    explicit SnapshotMaker(const Agent::Repo::Repository& repository)
        : m_repository(repository), m_data(repository.GetKey()), m_trees(repository.GetKey())
    {}

    Agent::Repo::Id Add(Agent::Repo::BlobType type, const std::string& text)
    {
        const Agent::Repo::BlobHandle handle{type, Agent::Repo::Id::Of(Agent::Repo::AsBytes(text))};
        (type == Agent::Repo::BlobType::Tree ? m_trees : m_data).Add(handle, Agent::Repo::AsBytes(text));
        return handle.id;
    }
    /// Saves the blobs, and a snapshot of a tree among them.
    void Save(const Agent::Repo::Id& tree)
    {
        Agent::Repo::IndexFileWriter index;
        for (Agent::Repo::PackWriter* const pack : {&m_data, &m_trees}) {
            if (pack->GetBlobs().empty())
                continue;
            const Agent::Repo::Id id = m_repository.SavePack(pack->Finish());
            index.Add(id, pack->GetBlobs());
        }
        m_repository.SaveText(Agent::Repo::FileKind::Index, index.Finish());
        Agent::Repo::Snapshot snapshot;
        snapshot.time = Agent::Repo::Timestamp::Now();
        snapshot.tree = tree;
        snapshot.paths = {"/x"};
        m_repository.SaveText(Agent::Repo::FileKind::Snapshot, snapshot.ToJson());
    }

private:
    const Agent::Repo::Repository& m_repository;
    Agent::Repo::PackWriter m_data, m_trees;
};

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

/// A directory with the location of a repository, which is empty at first, an empty source and an empty
/// target.
class RepositoryFixture : public ::testing::Test
{
protected:
    /// Runs restic in the directory, or in one below, and returns what it printed. Fails the test if the exit
    /// code differs.
    std::string Restic(const std::string& arguments, int exitCode = 0, const std::string& below = ".") const
    {
        const std::string command = "cd " + directory / below + " && HOME=" + directory.Path() +
                                    " RESTIC_PASSWORD='" + password + "' restic --no-cache -r " + repository +
                                    " " + arguments + " >" + directory / "output" + " 2>" +
                                    directory / "errors";
        const int status = std::system(command.c_str());
        EXPECT_EQ(WEXITSTATUS(status), exitCode) << arguments << ReadFile(directory / "errors");
        return ReadFile(directory / "output");
    }

    /// Runs kbagent in the directory. A variable "NAME=" is unset. Fails the test if the exit code differs,
    /// unless it is -1.
    ProgramResult Run(int exitCode, const std::vector<std::string>& arguments,
                      const ProgramSettings& settings = {},
                      const std::vector<std::string>& variables = {}) const
    {
        const auto prepare = [&] {
            std::filesystem::current_path(directory.Path());
            setenv("KBAGENT_REPOSITORY", repository.c_str(), 1);
            setenv("KBAGENT_PASSWORD", password.c_str(), 1);
            for (const std::string& variable : variables)
                variable.ends_with('=') ? unsetenv(variable.substr(0, variable.size() - 1).c_str())
                                        : putenv(const_cast<char*>(variable.c_str()));
            if (settings.prepare)
                settings.prepare();
        };
        ProgramResult result = RunProgram(arguments, {settings.user, prepare, settings.isLinked});
        EXPECT_TRUE(exitCode == -1 || result.exitCode == exitCode)
            << ::testing::PrintToString(arguments) << " ended with " << result.exitCode << "\n"
            << result.output.substr(0, 2000) << result.errors;
        return result;
    }
    /// Run with the words of a text.
    ProgramResult Run(int exitCode, const std::string& words) const { return Run(exitCode, Words(words)); }

    Agent::Repo::Repository Create(std::uint32_t version = 2) const
    {
        return CreateRepository(repository, password, version);
    }
    Agent::Repo::Repository Open() const { return OpenRepository(repository, password); }
    /// The paths of the latest snapshot below the source.
    std::vector<std::string> Stored() const { return StoredPaths(Open(), source); }
    std::size_t CountSnapshots() const { return Files("snapshots").size(); }
    /// The files below a directory of the repository, sorted.
    std::vector<std::filesystem::path> Files(const std::string& part) const
    {
        return FilesBelow(repository + "/" + part);
    }
    /// Makes the ordinary user the owner of the repository and of the target. Does nothing without root's
    /// rights.
    void GiveToOrdinaryUser() const
    {
        const std::string user = std::to_string(OrdinaryUser);
        const std::string command = "chmod 755 " + directory.Path() + " && chown -R " + user + ":" + user +
                                    " " + repository + " " + target;
        EXPECT_TRUE(geteuid() != 0 || std::system(command.c_str()) == 0);
    }

    /// Returns true if restic is installed.
    static bool HasRestic() { return std::system("command -v restic >/dev/null") == 0; }

    const TemporaryDirectory directory; ///< for anything
    std::string source = directory.MakeDirectory("source");
    std::string target = directory.MakeDirectory("target");
    std::string repository = directory / "repo"; ///< the location
    std::string password = "secret";             ///< of the repository
};

} // namespace Testing
