#include "Krt/Environment/Process.h"

#include "Krt/Environment/Unix/Platform.h"
#include "Krt/File/YDirectory.h"
#include "Krt/Util/YUnxHandle.h"

#include <fcntl.h>
#include <sys/auxv.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <climits>
#include <string>
#include <string_view>

namespace Krt::Environment {

namespace {

// The length to which the kernel cuts the name of a thread.
constexpr std::size_t KernelNameBytes = 15;

// Returns the first bytes of /proc/PROCESS/FACT, enough for the beginning of a command line; empty if the
// process has ended.
std::string ReadFact(const std::string& process, const char* fact)
{
    const auto file = Util::OpenHandle(("/proc/" + process + "/" + fact).c_str(), O_RDONLY);
    std::string bytes(2 * PATH_MAX, '\0');
    const ssize_t size =
        file ? Util::CallSystem([&] { return read(file.value.Get(), bytes.data(), bytes.size()); }).value : 0;
    bytes.resize(size > 0 ? static_cast<std::size_t>(size) : 0);
    return bytes;
}

std::string_view FileName(std::string_view path)
{
    return path.substr(path.rfind('/') + 1);
}

// Returns the file name of the program; empty for a kernel thread, and if this user may not know it.
std::string ProgramName(const std::string& process)
{
    constexpr std::string_view Deleted = " (deleted)";
    char path[PATH_MAX];
    const ssize_t size = readlink(("/proc/" + process + "/exe").c_str(), path, sizeof path);
    std::string_view name = FileName({path, size > 0 ? static_cast<std::size_t>(size) : 0});
    if (name.ends_with(Deleted))
        name.remove_suffix(Deleted.size());
    return std::string(name);
}

// Returns true if one of the first `count` words of the command line ends with the name: the first names the
// program, the second may be the script that an interpreter runs.
bool CommandLineNames(const std::string& process, std::string_view name, int count)
{
    const std::string line = ReadFact(process, "cmdline");
    std::string_view rest = line;
    for (int i = 0; i < count; ++i) {
        const std::string_view argument = rest.substr(0, rest.find('\0'));
        if (FileName(argument) == name)
            return true;
        rest.remove_prefix(std::min(argument.size() + 1, rest.size()));
    }
    return false;
}

// The kernel's name is that of the main thread, at first the file name of the program or script as it was
// called. It may be cut, and the process can change it.
bool HasName(const std::string& process, std::string_view name)
{
    // "ID (NAME) STATE ...", where the name may contain blanks and parentheses.
    const std::string status = ReadFact(process, "stat");
    const std::size_t open = status.find('(');
    const std::size_t close = status.rfind(')');
    if (open == std::string::npos || close + 2 >= status.size())
        return false;
    const char state = status[close + 2];
    const std::string_view kernelName = std::string_view(status).substr(open + 1, close - open - 1);
    if (state == 'Z' || state == 'X')
        return false;
    const bool agrees = kernelName == name.substr(0, KernelNameBytes);
    if (name.size() < KernelNameBytes && (agrees || name.empty()))
        return agrees;
    const std::string program = ProgramName(process);
    if (program == name)
        return true;
    // An interpreter's kernel name is that of its script, the second word of the command line.
    const bool isScript = agrees && !program.starts_with(kernelName);
    return CommandLineNames(process, name, isScript ? 2 : agrees || program.empty() ? 1 : 0);
}

} // namespace

bool IsPrivilegeRaised()
{
    return getauxval(AT_SECURE) != 0;
}

int InheritStandardStreamsAlone(posix_spawnattr_t&, posix_spawn_file_actions_t& actions)
{
    return posix_spawn_file_actions_addclosefrom_np(&actions, STDERR_FILENO + 1);
}

int FindProcess(const YString& name, int except)
{
    int found = 0;
    File::YDirectory::OpenFollowing("/proc").VisitEntries([&](const File::DirectoryEntry& entry) {
        const std::string& process = entry.name.Bytes();
        int id = 0;
        const auto [end, error] = std::from_chars(process.data(), process.data() + process.size(), id);
        if (error == std::errc() && *end == '\0' && id != except && HasName(process, name.Bytes()))
            found = id;
        return found == 0;
    });
    return found;
}

} // namespace Krt::Environment
