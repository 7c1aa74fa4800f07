// The arguments of the commands that read records.
#pragma once

#include "Backup/Core/YJobPath.h"

#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace Agent {

class RecordArguments
{
public:
    /// Adds FILE and --base JOBPATH, whose values are stored in this object.
    void AddTo(CLI::App& command);

    /// Empty for standard input.
    const std::string& GetFile() const { return m_file; }
    /// Raises a UsageError.
    Backup::YJobPath GetBase() const;

private:
    std::string m_file;
    std::string m_base;
};

/// The job paths that the value of an option may mean, at least one; see Convert/PathMapping.h. Raises a
/// UsageError that names the option.
std::vector<Backup::YJobPath> JobPathArgument(const std::string& option, const std::string& text);

/// What the help of a command says about the forms of a JOBPATH.
extern const char* const JobPathHelp;

} // namespace Agent
