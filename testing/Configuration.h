// The system's configuration while an object lives: a file with one section, "configuration", or a missing
// file.
#pragma once

#include "testing/TemporaryDirectory.h"

#include "Krt/Profile/YProfile.h"

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

    /// Rewrites the file.
    void Set(const std::string& keys) const
    {
        Use(m_directory.Write("kbagent.conf", "[configuration]\n" + keys));
    }
    /// Names another file, or a path without a file.
    static void Use(const std::string& path) { setenv("KBAGENT_CONFIG", path.c_str(), 1); }

private:
    TemporaryDirectory m_directory;
};

/// A missing file. The objects that a process makes when it first opens any configuration exist afterwards.
class NoConfiguration : private Configuration
{
public:
    NoConfiguration()
    {
        Krt::Profile::OpenSystem();
        Use("/missing/kbagent.conf");
        Krt::Profile::OpenSystem();
    }
};

} // namespace Testing
