// A main() for a fuzz target that runs it once on each saved case: the files that the arguments name, and
// those in the directories that they name.
#include "fuzz/Fuzz.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

namespace {

void Collect(const std::filesystem::path& path, std::vector<std::filesystem::path>& cases)
{
    if (!std::filesystem::is_directory(path)) {
        cases.push_back(path);
        return;
    }
    for (const auto& entry : std::filesystem::directory_iterator(path))
        Collect(entry.path(), cases);
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<std::filesystem::path> cases;
    for (int i = 1; i < argc; ++i)
        Collect(argv[i], cases);
    std::sort(cases.begin(), cases.end());
    for (const std::filesystem::path& path : cases) {
        std::fprintf(stderr, "%s\n", path.c_str());
        std::ifstream file(path, std::ios::binary);
        Fuzz::Expect(file.is_open(), "the case can be read");
        // Of the exact size, so that a read past the end is seen.
        const std::vector<char> bytes{std::istreambuf_iterator<char>(file), {}};
        LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    }
    Fuzz::Expect(!cases.empty(), "there are cases");
    return 0;
}
