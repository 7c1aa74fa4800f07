// Stands in for the programs that the code under test runs: keeps their command lines, and answers for them.
#pragma once

#include "testing/Raises.h"

#include "Krt/Environment/Host.h"
#include "Krt/Environment/Process.h"

#include <functional>
#include <string>
#include <utility>
#include <vector>

namespace Testing {

class ProcessRecorder
{
public:
    /// The program and its arguments, without what raises its rights.
    using Command = std::vector<std::string>;

    /// Each program ends with the status that `answer` gives, or with 0.
    explicit ProcessRecorder(std::function<int(const Command&)> answer = {})
    {
        Krt::Environment::SetProcessRunnerForTesting(
            [this, answer](const Krt::File::YPath& program, const std::vector<Krt::YString>& arguments) {
                Command command{program.Bytes()};
                for (const Krt::YString& argument : arguments)
                    command.push_back(argument.Bytes());
                elevated = command[0] == "/usr/bin/sudo" || Krt::Environment::IsRoot();
                if (command[0] == "/usr/bin/sudo")
                    command.erase(command.begin(), command.begin() + 3);
                commands.push_back(command);
                return answer ? answer(command) : 0;
            });
    }
    ~ProcessRecorder() { Krt::Environment::SetProcessRunnerForTesting({}); }
    ProcessRecorder(const ProcessRecorder&) = delete;
    ProcessRecorder& operator=(const ProcessRecorder&) = delete;

    /// The command lines of a call, and behind them its error.
    template <class Call>
    static std::string LinesOf(Call call, std::function<int(const Command&)> answer = {})
    {
        const ProcessRecorder programs(std::move(answer));
        const std::string error = ErrorOf(call);
        return programs.Lines() + error;
    }
    /// The command lines so far, one a line, their words parted by blanks.
    std::string Lines() const
    {
        std::string lines;
        for (const Command& command : commands) {
            for (const std::string& word : command)
                lines += (&word == &command.front() ? "" : " ") + word;
            lines += "\n";
        }
        return lines;
    }

    std::vector<Command> commands;
    bool elevated = false; ///< whether the last was to run with root's rights
};

} // namespace Testing
