// A directory that a test may fill. It is removed with its contents, whatever their modes.
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

    /// Absolute, without symlinks.
    const std::string& Path() const { return m_path; }
    /// Returns the path of an entry below.
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    /// Writes a file below, and creates its parents; returns its path.
    std::string Write(const std::string& name, const std::string& content) const;
    /// Creates a directory below with its parents; returns its path.
    std::string MakeDirectory(const std::string& name) const;

private:
    std::string m_path;
};

/// Returns the bytes of a file; fails the test if it cannot be read.
std::string ReadFile(const std::string& path);
/// Returns the status of the entry itself; fails the test if it is missing.
struct stat StatusOf(const std::string& path);

} // namespace Testing
