#include "testing/TemporaryDirectory.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace Testing {

namespace fs = std::filesystem;

TemporaryDirectory::TemporaryDirectory()
{
    std::string pattern = (fs::canonical(fs::temp_directory_path()) / "backup-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr)
        throw std::runtime_error("no temporary directory " + pattern);
    m_path = pattern;
}

TemporaryDirectory::~TemporaryDirectory()
{
    // Directories that the test made inaccessible must be opened before their contents can be removed.
    std::error_code ignored;
    fs::permissions(m_path, fs::perms::owner_all, ignored);
    for (auto it = fs::recursive_directory_iterator(m_path, ignored);
         it != fs::recursive_directory_iterator(); it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored))
            fs::permissions(it->path(), fs::perms::owner_all, ignored);
    }
    fs::remove_all(m_path, ignored);
}

std::string TemporaryDirectory::Write(const std::string& name, const std::string& content) const
{
    const std::string path = *this / name;
    fs::create_directories(fs::path(path).parent_path());
    std::ofstream(path, std::ios::binary) << content;
    return path;
}

std::string TemporaryDirectory::MakeDirectory(const std::string& name) const
{
    fs::create_directories(*this / name);
    return *this / name;
}

std::string ReadFile(const std::string& path)
{
    std::ifstream file(path, std::ios::binary);
    EXPECT_TRUE(file) << path;
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

struct stat StatusOf(const std::string& path)
{
    struct stat status = {};
    EXPECT_EQ(lstat(path.c_str(), &status), 0) << path;
    return status;
}

} // namespace Testing
