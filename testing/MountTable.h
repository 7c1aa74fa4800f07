// A table of mounts as text, which replaces the kernel's while the object exists. Programs that use it link
// TestingMounts, whose open() opens the text.
#pragma once

#include "testing/TemporaryDirectory.h"

#include <cstring>
#include <filesystem>

namespace Testing {

class MountTable
{
public:
    /// `text` has lines "source directory type options".
    explicit MountTable(const std::string& text) : m_file(m_directory.Write("mounts", text))
    {
        s_file = m_file.c_str();
    }
    ~MountTable() { s_file = nullptr; }
    MountTable(const MountTable&) = delete;
    MountTable& operator=(const MountTable&) = delete;

    void Write(const std::string& text) const { m_directory.Write("mounts", text); }
    /// From now on, the table cannot be opened.
    void Remove() const { std::filesystem::remove(m_file); }

    /// Returns the path that a call should open instead of this one.
    static const char* Replaced(const char* path)
    {
        return s_file != nullptr && std::strcmp(path, "/proc/self/mounts") == 0 ? s_file : path;
    }

private:
    TemporaryDirectory m_directory;
    std::string m_file;
    static const char* s_file; // defined with open()
};

} // namespace Testing
