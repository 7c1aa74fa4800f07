#include "testing/MountNamespace.h"

#include "Krt/Util/YUnxHandle.h"
#include "Krt/Volume/MountTable.h"

#include <gtest/gtest-spi.h>

#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <linux/btrfs.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace Testing {

namespace fs = std::filesystem;

namespace {

// Sparse, and large enough for both kinds of file system.
constexpr off_t ImageBytes = 128 << 20;

[[noreturn]] void Refuse(const std::string& what)
{
    throw Unavailable(what + ": " + std::strerror(errno));
}

Krt::Util::YUnxHandle Opened(const std::string& path, int flags = O_RDWR)
{
    const int descriptor = open(path.c_str(), flags | O_CLOEXEC, 0600);
    if (descriptor < 0)
        Refuse(path);
    return {descriptor, true};
}

// Returns the mounts and loop devices of this process's namespace that concern the directory.
std::string LeftBehind(const std::string& directory)
{
    std::string left;
    for (const Krt::Volume::MountEntry& entry : Krt::Volume::ListMountEntries()) {
        if (entry.directory.Bytes().starts_with(directory))
            left += entry.directory.Bytes() + " ";
    }
    std::error_code ignored;
    for (const fs::directory_entry& device : fs::directory_iterator("/sys/block", ignored)) {
        std::string file;
        if (std::getline(std::ifstream(device.path() / "loop/backing_file"), file) &&
            file.starts_with(directory))
            left += device.path().filename().string() + " ";
    }
    return left;
}

// The kernel may take a moment to free the last loop device.
std::string LeftBehindInTheEnd(const std::string& directory)
{
    for (int looks = 0; looks < 100 && !LeftBehind(directory).empty(); ++looks)
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return LeftBehind(directory);
}

void EnterNamespace()
{
    if (geteuid() != 0)
        throw Unavailable("needs root to mount");
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (unshare(CLONE_NEWNS) != 0)
        Refuse("no mount namespace of its own");
    if (mount("none", "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0)
        Refuse("mounts can't be made private");
}

// The device is released when it is no longer used.
Krt::Util::YUnxHandle AttachLoopDevice(int image, std::string& path)
{
    const auto control = Opened("/dev/loop-control");
    for (int tries = 0; tries < 20; ++tries) {
        const int number = ioctl(control.Get(), LOOP_CTL_GET_FREE);
        if (number < 0)
            Refuse("no free loop device");
        path = "/dev/loop" + std::to_string(number);
        auto device = Opened(path);
        loop_config config = {};
        config.fd = static_cast<unsigned int>(image);
        config.info.lo_flags = LO_FLAGS_AUTOCLEAR;
        if (ioctl(device.Get(), LOOP_CONFIGURE, &config) == 0)
            return device;
        if (errno != EBUSY) // another process was faster
            Refuse(path);
    }
    Refuse("no free loop device");
}

} // namespace

MountNamespace::MountNamespace(const std::string& directory)
    : m_base(directory + "/base"), m_images(directory + "/images")
{
    fs::create_directories(m_images);
    Mount("base", m_base, "tmpfs");
}

// Runs in the child. The body's results go into files, so that only the parent reports them.
void MountNamespace::RunCaught(const std::string& directory, const Body& body)
{
    testing::TestPartResultArray results;
    const testing::ScopedFakeTestPartResultReporter reporter(
        testing::ScopedFakeTestPartResultReporter::INTERCEPT_ONLY_CURRENT_THREAD, &results);
    const auto run = [&] {
        try {
            EnterNamespace();
            body(MountNamespace(directory));
        } catch (const Unavailable& reason) {
            GTEST_SKIP() << reason.what();
        } catch (const std::exception& error) {
            ADD_FAILURE() << error.what();
        }
    };
    run();
    for (int i = 0; i < results.size(); ++i) {
        const testing::TestPartResult& result = results.GetTestPartResult(i);
        std::ofstream(directory + (result.skipped() ? "/skipped" : "/failed"), std::ios::app)
            << (result.file_name() != nullptr ? result.file_name() : "") << ":" << result.line_number()
            << ": " << result.message() << "\n";
    }
}

void MountNamespace::Run(const Body& body)
{
    const TemporaryDirectory directory;
    const std::string failed = directory.Write("failed", ""), skipped = directory.Write("skipped", "");
    const pid_t child = fork();
    if (child == 0) {
        RunCaught(directory.Path(), body);
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(LeftBehindInTheEnd(directory.Path()), "");
    EXPECT_EQ(status, 0) << "the child of the test ended with this status";
    EXPECT_EQ(ReadFile(failed), "");
    if (const std::string reason = ReadFile(skipped); !reason.empty())
        GTEST_SKIP() << reason;
}

std::string MountNamespace::MakeDirectory(const std::string& name) const
{
    fs::create_directories(*this / name);
    return *this / name;
}

void MountNamespace::Write(const std::string& path, const std::string& content)
{
    fs::create_directories(fs::path(path).parent_path());
    if (!(std::ofstream(path) << content).flush())
        throw std::runtime_error("can't write " + path);
}

void MountNamespace::Mount(const std::string& source, const std::string& target, const std::string& type,
                           unsigned long flags, const std::string& options) const
{
    fs::create_directories(target);
    if (mount(source.c_str(), target.c_str(), type.c_str(), flags, options.c_str()) != 0)
        Refuse("can't mount " + type);
}

void MountNamespace::Bind(const std::string& directory, const std::string& target) const
{
    Mount(directory, target, "", MS_BIND);
}

void MountNamespace::MountOverlay(const std::string& source, const std::string& target) const
{
    const std::string options = "lowerdir=" + MakeDirectory("layers/lower") +
                                ",upperdir=" + MakeDirectory("layers/upper") +
                                ",workdir=" + MakeDirectory("layers/work");
    Mount(source, target, "overlay", 0, options);
}

void MountNamespace::MakeReadOnly(const std::string& target) const
{
    Mount("", target, "", MS_BIND | MS_REMOUNT | MS_RDONLY);
}

std::string MountNamespace::MountImage(const std::string& type, const std::string& target,
                                       unsigned long flags, const std::string& options) const
{
    const auto count = std::distance(fs::directory_iterator(m_images), fs::directory_iterator());
    const std::string image = m_images + "/" + std::to_string(count);
    const auto file = Opened(image, O_RDWR | O_CREAT | O_EXCL);
    if (ftruncate(file.Get(), ImageBytes) != 0)
        Refuse(image);
    const std::string make = "PATH=$PATH:/usr/sbin:/sbin mkfs." + type + " -q " + image + " >/dev/null 2>&1";
    if (const int status = std::system(make.c_str()); status != 0)
        throw Unavailable("mkfs." + type + (WEXITSTATUS(status) == 127 ? " is not installed" : " fails"));
    std::string path;
    const auto device = AttachLoopDevice(file.Get(), path);
    Mount(path, target, type, flags, options);
    return path;
}

void MountNamespace::MakeSubvolume(const std::string& directory, const std::string& name)
{
    btrfs_ioctl_vol_args arguments = {};
    name.copy(arguments.name, sizeof arguments.name - 1);
    if (ioctl(Opened(directory, O_RDONLY).Get(), BTRFS_IOC_SUBVOL_CREATE, &arguments) != 0)
        Refuse("can't make a subvolume");
}

const std::vector<MountKind>& MountKinds()
{
    using Space = const MountNamespace&;
    using Target = const std::string&;
    const auto tmpfs = [](const char* source) {
        return [source](Space space, Target target) {
            space.Mount(source, target, "tmpfs");
            return source;
        };
    };
    const auto bind = [](Space space, Target target) {
        space.Mount("twice", space / "first place", "tmpfs");
        space.Bind(space.MakeDirectory("first place/below"), target);
        return "twice";
    };
    const auto overlay = [](Space space, Target target) {
        space.MountOverlay("some layers", target);
        return "some layers";
    };
    const auto image = [](const char* type) {
        return [type](Space space, Target target) {
            return space.MountImage(type, target);
        };
    };
    constexpr unsigned int unknown = 0, fixed = 3, special = 7;
    static const std::vector<MountKind> kinds = {
        {"Tmpfs", "memory", special, false, 1, tmpfs("some memory")},
        {"ReadOnlyTmpfs", "memory", special, true, 1, tmpfs("back\\slash")},
        {"NameWithBlanks", "a mount\twith\nblanks\\040 #", special, false, 1, tmpfs(" #blank\t")},
        {"BindOfAnotherDevice", "bound", special, false, 2, bind},
        {"ReadOnlyBind", "bound", special, true, 2, bind},
        {"Overlay", "layered", unknown, false, 1, overlay},
        {"Ext4", "disk", fixed, false, 1, image("ext4")},
        {"ReadOnlyExt4", "disk", fixed, true, 1, image("ext4")},
        {"Btrfs", "disk", fixed, false, 1, image("btrfs")},
    };
    return kinds;
}

} // namespace Testing
