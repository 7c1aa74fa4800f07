// Replaces the system's configuration as long as an object exists: by a file with one section,
// "configuration", or by a missing file.
#pragma once

#include "testing/TemporaryDirectory.h"

#include "Krt/Profile/YProfile.h"

#include <cstdlib>

namespace Testing {

class Configuration
{
public:
    /// `keys` are the lines of the section, "key=value".
    explicit Configuration(const std::string& keys = "") { Set(keys); }
    ~Configuration() { unsetenv("KBAGENT_CONFIG"); }
    Configuration(const Configuration&) = delete;
    Configuration& operator=(const Configuration&) = delete;

    /// Rewrites the file.
    void Set(const std::string& keys) const
    {
        Use(m_directory.Write("kbagent.conf", "[configuration]\n" + keys));
    }
    /// Uses another file, or a path without a file.
    static void Use(const std::string& path) { setenv("KBAGENT_CONFIG", path.c_str(), 1); }

private:
    TemporaryDirectory m_directory;
};

/// A missing file. The constructor opens the configuration once, so that the objects which the first use
/// creates exist afterwards.
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
