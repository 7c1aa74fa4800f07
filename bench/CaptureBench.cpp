// CaptureBench: what capturing a tree costs, from the walk to the record's text.
//   CaptureBench [--quick]        prints the figures that need no peer, one per line
//   CaptureBench calls            prints the system calls of an entry
//   CaptureBench make DIR [N [BYTES]]
//                                 creates a tree of N entries, by default 100,000. Files have up to BYTES
//                                 random bytes; by default, up to 100,000 bytes that are holes
//   CaptureBench capture DIR      captures a tree once, to be timed as a process next to others
#include "bench/Measure.h"
#include "testing/Capture.h"
#include "testing/SystemCalls.h"

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <functional>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <string_view>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;

constexpr int Rounds = 5;
constexpr std::size_t AllEntries = 100000;
constexpr std::size_t QuickEntries = 3000;

// The file has this content, and then a hole.
void MakeFile(const fs::path& path, off_t size, std::string_view content = {})
{
    const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (file < 0 || write(file, content.data(), content.size()) != static_cast<ssize_t>(content.size()) ||
        ftruncate(file, size) != 0)
        throw std::runtime_error("can't make " + path.string());
    close(file);
}

std::string RandomContent(std::size_t size, std::mt19937& random)
{
    std::string content(size, '\0');
    for (std::size_t at = 0; at + sizeof(std::uint32_t) <= size; at += sizeof(std::uint32_t)) {
        const std::uint32_t word = static_cast<std::uint32_t>(random());
        std::memcpy(content.data() + at, &word, sizeof(word));
    }
    return content;
}

// A tree as systems have them: of twelve entries one is a directory and one a symlink. Most directories are
// five or six levels deep. Files have up to `randomBytes` bytes, or holes if that is 0.
void MakeTree(const fs::path& root, std::size_t entries, std::size_t randomBytes = 0)
{
    std::mt19937 random(1);
    std::vector<fs::path> directories{root};
    fs::create_directories(root);
    const auto pathIn = [&](std::size_t directory, std::size_t entry) {
        return directories[directory] /
               ("entry-" + std::to_string(random() % 1000) + "_" + std::to_string(entry));
    };
    for (std::size_t i = 1; i < entries / 12; ++i) {
        directories.push_back(pathIn((i - 1) / 6, i));
        fs::create_directory(directories.back());
    }
    for (std::size_t i = directories.size(); i < entries; ++i) {
        const fs::path path = pathIn(random() % directories.size(), i);
        if (i % 11 == 0)
            fs::create_symlink("../target-" + std::to_string(i), path);
        else if (randomBytes == 0)
            MakeFile(path, static_cast<off_t>(random() % 100000));
        else {
            const std::string content = RandomContent(random() % (randomBytes + 1), random);
            MakeFile(path, static_cast<off_t>(content.size()), content);
        }
    }
}

class TemporaryTree
{
public:
    explicit TemporaryTree(const std::function<void(const fs::path&)>& make)
    {
        std::string pattern = (fs::canonical(fs::temp_directory_path()) / "capture-bench-XXXXXX").string();
        if (mkdtemp(pattern.data()) == nullptr)
            throw std::runtime_error("can't make " + pattern);
        m_path = pattern;
        try {
            make(m_path);
        } catch (...) {
            fs::remove_all(m_path);
            throw;
        }
    }
    ~TemporaryTree() { fs::remove_all(m_path); }

    std::string Path() const { return m_path; }

private:
    fs::path m_path;
};

void CaptureTree(const std::string& root)
{
    Testing::Capture().Run(root);
}

std::optional<unsigned long> CallsWith(std::size_t count,
                                       const std::function<void(const fs::path&)>& makeEntry)
{
    const TemporaryTree tree([&](const fs::path& root) {
        for (std::size_t i = 0; i < count; ++i)
            makeEntry(root / ("entry-" + std::to_string(i)));
    });
    return Testing::CountSystemCalls([&] { CaptureTree(tree.Path()); });
}

// What one entry more adds.
void PrintCalls(const char* name, const std::function<void(const fs::path&)>& makeEntry)
{
    constexpr std::size_t More = 1000;
    const auto few = CallsWith(More, makeEntry);
    const auto many = CallsWith(2 * More, makeEntry);
    if (few && many)
        Bench::PrintRow(name, static_cast<double>(*many - *few) / More, "calls");
}

void PrintAllCalls()
{
    PrintCalls("capture.calls.file", [](const fs::path& path) { MakeFile(path, 100); });
    PrintCalls("capture.calls.directory", [](const fs::path& path) { fs::create_directory(path); });
    PrintCalls("capture.calls.link", [](const fs::path& path) { fs::create_symlink("target", path); });
}

void MeasureAll(bool quick)
{
    PrintAllCalls();
    const std::size_t entries = quick ? QuickEntries : AllEntries;
    const TemporaryTree tree([&](const fs::path& root) { MakeTree(root, entries); });
    CaptureTree(tree.Path()); // warms the caches up
    const double seconds = Bench::Seconds(Rounds, [&] { CaptureTree(tree.Path()); });
    Bench::PrintRow("capture.entry", seconds * 1e9 / static_cast<double>(entries), "ns");
}

int Run(const std::vector<std::string_view>& arguments)
{
    const std::size_t count = arguments.size();
    if (count == 0 || (count == 1 && arguments[0] == "--quick")) {
        MeasureAll(count == 1);
    } else if (count == 1 && arguments[0] == "calls") {
        PrintAllCalls();
    } else if (count >= 2 && count <= 4 && arguments[0] == "make") {
        const auto number = [&](std::size_t at, std::size_t otherwise) {
            return count > at ? std::strtoull(arguments[at].data(), nullptr, 10) : otherwise;
        };
        MakeTree(arguments[1], number(2, AllEntries), number(3, 0));
    } else if (count == 2 && arguments[0] == "capture") {
        CaptureTree(std::string(arguments[1]));
    } else {
        std::fprintf(stderr, "Usage: CaptureBench [--quick] | calls | make DIR [N [BYTES]] | capture DIR\n");
        return 2;
    }
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    try {
        return Run({argv + 1, argv + argc});
    } catch (const std::exception& failure) {
        std::fprintf(stderr, "CaptureBench: %s\n", failure.what());
        return 1;
    }
}
