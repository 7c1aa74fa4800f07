// A directory that a test may fill; removed with all it holds, whatever its modes.
#pragma once

#include <string>
#include <sys/stat.h>

namespace Testing {

class TemporaryDirectory
{
public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    TemporaryDirectory(const TemporaryDirectory&) = delete;
    TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;

    /// Absolute, without links on the way.
    const std::string& Path() const { return m_path; }
    /// The path of an entry below.
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    /// Writes a file below, making parents; returns its path.
    std::string Write(const std::string& name, const std::string& content) const;
    /// Makes a directory below with its parents; returns its path.
    std::string MakeDirectory(const std::string& name) const;

private:
    std::string m_path;
};

/// The bytes of a file; fails the test if it can't be read.
std::string ReadFile(const std::string& path);
/// The status of the entry itself; fails the test if there is none.
struct stat StatusOf(const std::string& path);

} // namespace Testing
