// The program's options for a log: --log FILE and --debug CHANNELS. They stand in front of the command.
#pragma once

#include <string>

namespace CLI {
class App;
}

namespace Agent {

class LogOptions
{
public:
    /// Adds the options, which are stored in this object.
    void Register(CLI::App& program);
    /// Opens the process's log if one is wanted, for as long as the process runs. The global object is
    /// initialised already. Raises what RequireOwnLog and opening a log raise.
    void Open() const;

private:
    std::string m_path;
    std::string m_channels = "General";
};

} // namespace Agent
