// The service managers with their files in a temporary directory and their commands recorded instead of run.
#pragma once

#include "testing/Raises.h"
#include "testing/TemporaryDirectory.h"

#include "Backup/Util/Unix/Linux/YSystemdServiceManager.h"
#include "Backup/Util/Unix/Mac/YMacServiceManager.h"

#include "Krt/Environment/Process.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace Testing {

/// A runner of programs that records their command lines.
class ProcessRecorder
{
public:
    /// The program and its arguments, without sudo and its options.
    using Command = std::vector<std::string>;

    int Run(const Krt::File::YPath& program, const std::vector<Krt::YString>& arguments)
    {
        Command command{program.Bytes()};
        for (const Krt::YString& argument : arguments)
            command.push_back(argument.Bytes());
        elevated = command[0] == "/usr/bin/sudo" || Krt::Environment::IsRoot();
        if (command[0] == "/usr/bin/sudo")
            command.erase(command.begin(), command.begin() + 3);
        for (const std::string& word : command)
            lines += (&word == &command.front() ? "" : " ") + word;
        lines += "\n";
        return answer ? answer(command) : 0;
    }
    /// Returns the command lines of a call, followed by its error.
    template <class Call>
    std::string LinesOf(Call call)
    {
        lines.clear();
        const std::string error = ErrorOf(call);
        return lines + error;
    }

    std::function<int(const Command&)> answer; ///< returns the exit status; without it, the status is 0
    std::string lines;                         ///< one for each command, its words separated by blanks
    bool elevated = false;                     ///< whether the last command was to run as root
};

/// A service manager of a test. Its service "kbagent" is not installed.
struct Services
{
    virtual ~Services() = default;

    TemporaryDirectory directory;
    ProcessRecorder programs;
    std::string folder;    ///< directory of the services' files
    std::string file;      ///< file of the service "kbagent"
    std::string temporary; ///< directory of temporary files before they are moved into the folder
    std::unique_ptr<Backup::Util::IServiceManager> manager;
};

/// On a machine with systemd.
struct SystemdServices : Services
{
    SystemdServices()
    {
        directory.MakeDirectory("run/systemd/system");
        temporary = folder = directory.MakeDirectory("etc/systemd/system");
        file = folder + "/kbagent.service";
        manager = MakeManager();
    }
    std::unique_ptr<Backup::Util::IServiceManager> MakeManager()
    {
        const auto run = [this](const auto& program, const auto& arguments) {
            return programs.Run(program, arguments);
        };
        return std::make_unique<Backup::Util::YSystemdServiceManager>(run, Krt::YString(directory.Path()));
    }
};

/// In directories whose names a shell would split. TMPDIR is one of them while the object exists.
struct LaunchdServices : Services
{
    struct Manager : Backup::Util::YMacServiceManager
    {
        explicit Manager(LaunchdServices& owner) : services(owner) {}
        int Execute(const Krt::File::YPath& program,
                    const std::vector<Krt::YString>& arguments) const override
        {
            return services.programs.Run(program, arguments);
        }
        Krt::File::YPath GetListDirectory() const override { return services.folder.c_str(); }

        LaunchdServices& services;
    };

    LaunchdServices()
    {
        folder = directory.MakeDirectory("a \"$x` b/lists");
        temporary = directory.MakeDirectory("a \"$x` b/tmp");
        file = folder + "/kbagent.plist";
        setenv("TMPDIR", temporary.c_str(), 1);
        manager = std::make_unique<Manager>(*this);
    }
    ~LaunchdServices() override { unsetenv("TMPDIR"); }
};

} // namespace Testing
