// Real mounts for tests: a child process with its own mount namespace, and the kinds of mounts that tests
// need. The mounts and loop devices of the child are removed when it ends, however it ends. Linux only, and
// requires root: if the machine refuses, the test is skipped with the reason.
#pragma once

#include "testing/TemporaryDirectory.h"

#include <functional>
#include <ostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace Testing {

/// Something that the machine does not allow; throwing it in the body skips the test.
class Unavailable : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

class MountNamespace
{
public:
    using Body = std::function<void(const MountNamespace&)>;

    /// Runs the body in the child. Its failures and its skip become those of the calling test, which should
    /// do nothing after this call. Also fails if the child crashes, or if a mount or a loop device
    /// remains.
    static void Run(const Body& body);

    /// Returns a path below the base, which is an empty tmpfs of this namespace, mounted from the source
    /// "base".
    std::string operator/(const std::string& name) const { return m_base + "/" + name; }
    /// Creates a directory below the base with its parents; returns its path.
    std::string MakeDirectory(const std::string& name) const;
    /// Writes a file, and creates its parents.
    static void Write(const std::string& path, const std::string& content);

    // Each of these mounts on the target, which is created if missing, and throws Unavailable if that fails.

    void Mount(const std::string& source, const std::string& target, const std::string& type,
               unsigned long flags = 0, const std::string& options = "") const;
    void Bind(const std::string& directory, const std::string& target) const;
    /// Makes this mount read-only, but not other mounts of the same file system.
    void MakeReadOnly(const std::string& target) const;
    /// The lower and the upper layer are in the base.
    void MountOverlay(const std::string& source, const std::string& target) const;
    /// Mounts a new file system, "ext4" or "btrfs", on a loop device, and returns the device's path.
    std::string MountImage(const std::string& type, const std::string& target, unsigned long flags = 0,
                           const std::string& options = "") const;
    /// Creates a subvolume on a mounted btrfs.
    static void MakeSubvolume(const std::string& directory, const std::string& name);

private:
    explicit MountNamespace(const std::string& directory);
    static void RunCaught(const std::string& directory, const Body& body);
    std::string m_base;
    std::string m_images;
};

/// A kind of mount, as the library should see it.
struct MountKind
{
    const char* label;
    const char* directory; ///< where it is mounted, below the base; may contain blanks
    unsigned int driveClass;
    bool readOnly;
    std::size_t entries; ///< number of entries of its source in the table of mounts
    /// Mounts it on the target, writable, and returns the source that the table should contain.
    std::function<std::string(const MountNamespace&, const std::string& target)> mount;

    /// For the names of tests.
    friend void PrintTo(const MountKind& kind, std::ostream* out) { *out << kind.label; }
};

/// Returns the kinds that have their own device.
const std::vector<MountKind>& MountKinds();

} // namespace Testing
