// A whole backup and a whole restore of a generated tree: 10,000 files of mixed sizes in 100 directories. The
// store and the tree lie in $TMPDIR or /tmp. Items are entries.
#include "agent/Cli/Program.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

namespace fs = std::filesystem;

constexpr int Directories = 100;
constexpr int FilesEach = 100;

class Tree
{
public:
    Tree() : m_root(fs::temp_directory_path() / ("kbagent-bench-" + std::to_string(getpid())))
    {
        std::mt19937 random(1);
        for (int directory = 0; directory < Directories; ++directory) {
            const fs::path path = Source() / ("directory " + std::to_string(directory));
            fs::create_directories(path);
            for (int file = 0; file < FilesEach; ++file) {
                std::string content(random() % 16384, ' ');
                for (char& byte : content)
                    byte = static_cast<char>('a' + random() % 26);
                std::ofstream(path / ("file " + std::to_string(file))) << content;
            }
        }
    }
    ~Tree() { fs::remove_all(m_root); }

    fs::path Source() const { return m_root / "source"; }
    fs::path Store() const { return m_root / "store"; }
    fs::path Target() const { return m_root / "target"; }

private:
    fs::path m_root;
};

void RunProgram(benchmark::State& state, std::vector<std::string> arguments)
{
    arguments.insert(arguments.begin(), "kbagent");
    std::vector<char*> argv;
    for (std::string& argument : arguments)
        argv.push_back(argument.data());
    argv.push_back(nullptr);
    // The program's summary would stand between the rows of the report.
    const int output = dup(STDOUT_FILENO);
    const int nowhere = open("/dev/null", O_WRONLY);
    dup2(nowhere, STDOUT_FILENO);
    if (Agent::Run(static_cast<int>(arguments.size()), argv.data()) != 0)
        state.SkipWithError("kbagent failed");
    dup2(output, STDOUT_FILENO);
    close(nowhere);
    close(output);
}

const Tree& SharedTree()
{
    static const Tree tree;
    return tree;
}

void Backup(benchmark::State& state, bool intoNewStore)
{
    const Tree& tree = SharedTree();
    for (auto _ : state) {
        state.PauseTiming();
        if (intoNewStore)
            fs::remove_all(tree.Store());
        state.ResumeTiming();
        RunProgram(state, {"backup", "--store", tree.Store(), tree.Source()});
    }
    state.SetItemsProcessed(state.iterations() * Directories * (FilesEach + 1));
}

void Restore(benchmark::State& state)
{
    const Tree& tree = SharedTree();
    RunProgram(state, {"backup", "--store", tree.Store(), tree.Source()});
    for (auto _ : state) {
        state.PauseTiming();
        fs::remove_all(tree.Target());
        state.ResumeTiming();
        RunProgram(state, {"restore", "--store", tree.Store(), "--to", tree.Target()});
    }
    state.SetItemsProcessed(state.iterations() * Directories * (FilesEach + 1));
}

BENCHMARK_CAPTURE(Backup, first, true)->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(Backup, again, false)->Unit(benchmark::kMillisecond);
BENCHMARK(Restore)->Unit(benchmark::kMillisecond);

} // namespace
