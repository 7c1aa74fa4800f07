// The system's configuration for as long as the object lives: a file with one section, "configuration".
#pragma once

#include "testing/TemporaryDirectory.h"

#include <cstdlib>

namespace Testing {

class Configuration
{
public:
    /// The lines of the section, "key=value".
    explicit Configuration(const std::string& keys = "") { Set(keys); }
    ~Configuration() { unsetenv("KBAGENT_CONFIG"); }
    Configuration(const Configuration&) = delete;
    Configuration& operator=(const Configuration&) = delete;

    /// Writes the file anew.
    void Set(const std::string& keys) const
    {
        Use(m_directory.Write("kbagent.conf", "[configuration]\n" + keys));
    }
    /// Another file in its place, or what is none.
    static void Use(const std::string& path) { setenv("KBAGENT_CONFIG", path.c_str(), 1); }

private:
    TemporaryDirectory m_directory;
};

} // namespace Testing
