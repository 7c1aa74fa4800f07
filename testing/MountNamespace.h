// Real mounts for tests: a child process with a mount namespace of its own, from which nothing leaks, and the
// kinds of mounts that tests need. What the child mounts is gone when it ends, however it ends; so are the
// loop devices. Linux, and root's business: where the machine refuses, the test is skipped with the reason.
#pragma once

#include "testing/TemporaryDirectory.h"

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

namespace Testing {

/// What the machine doesn't let a test do; leaving the body by it skips the test.
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
    /// do nothing after this call. Fails, too, where the child dies or leaves a mount or a loop device
    /// behind.
    static void Run(const Body& body);

    /// A path below the base, which is an empty tmpfs of this namespace, mounted from the source "base".
    std::string operator/(const std::string& name) const { return m_base + "/" + name; }
    /// Makes a directory below the base with its parents; returns its path.
    std::string MakeDirectory(const std::string& name) const;
    /// Writes a file, making parents.
    static void Write(const std::string& path, const std::string& content);

    // Each mounts on the target, which is made if it is missing, and throws Unavailable if that fails.

    void Mount(const std::string& source, const std::string& target, const std::string& type,
               unsigned long flags = 0, const std::string& options = "") const;
    void Bind(const std::string& directory, const std::string& target) const;
    /// This mount alone, not what it shows at other places.
    void MakeReadOnly(const std::string& target) const;
    /// Lower and upper layer are in the base.
    void MountOverlay(const std::string& source, const std::string& target) const;
    /// A new file system, "ext4" or "btrfs", on a loop device, whose path is returned.
    std::string MountImage(const std::string& type, const std::string& target, unsigned long flags = 0,
                           const std::string& options = "") const;
    /// On a mounted btrfs.
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
    const char* directory; ///< where it is mounted, below the base; may hold blanks
    unsigned int driveClass;
    bool readOnly;
    std::size_t entries; ///< of its source in the table of mounts
    /// Mounts it on the target, writable, and returns the source that the table should tell.
    std::function<std::string(const MountNamespace&, const std::string& target)> mount;
};

/// The kinds that lie on a device of their own.
const std::vector<MountKind>& MountKinds();

} // namespace Testing
