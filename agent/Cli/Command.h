// The interface of a subcommand, and what subcommands share. Program.cpp lists all of them.
#pragma once

#include "agent/Run/Report.h"
#include "agent/Run/UsageError.h"

#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace Agent {

class ICommand
{
public:
    virtual ~ICommand() = default;
    /// Adds the subcommand with its options and help, and returns it. Options are stored in this object.
    virtual CLI::App* Register(CLI::App& program) = 0;
    /// Does the work. The exit code is 3 if a failed entry was reported, and 4 if the answer no was. An
    /// exception is printed and makes it 1, or 2 for a UsageError.
    virtual void Run(Report& report) = 0;
};

std::unique_ptr<ICommand> MakeBackupCommand();
std::unique_ptr<ICommand> MakeCatCommand();
std::unique_ptr<ICommand> MakeCheckCommand();
std::unique_ptr<ICommand> MakeConvertCommand();
std::unique_ptr<ICommand> MakeCopyCommand();
std::unique_ptr<ICommand> MakeDumpCommand();
std::unique_ptr<ICommand> MakeExplainCommand();
std::unique_ptr<ICommand> MakeForgetCommand();
std::unique_ptr<ICommand> MakeImportCommand();
std::unique_ptr<ICommand> MakeInitCommand();
std::unique_ptr<ICommand> MakeJobCommand();
std::unique_ptr<ICommand> MakeKeyCommand();
std::unique_ptr<ICommand> MakeListCommand();
std::unique_ptr<ICommand> MakeLsCommand();
std::unique_ptr<ICommand> MakeMigrateCommand();
std::unique_ptr<ICommand> MakePruneCommand();
std::unique_ptr<ICommand> MakeRebuildIndexCommand();
std::unique_ptr<ICommand> MakeRecoverCommand();
std::unique_ptr<ICommand> MakeRenameCommand();
std::unique_ptr<ICommand> MakeRepairCommand();
std::unique_ptr<ICommand> MakeRestoreCommand();
std::unique_ptr<ICommand> MakeRewriteCommand();
std::unique_ptr<ICommand> MakeServiceCommand();
std::unique_ptr<ICommand> MakeShowCommand();
std::unique_ptr<ICommand> MakeSnapshotsCommand();
std::unique_ptr<ICommand> MakeStatsCommand();
std::unique_ptr<ICommand> MakeTagCommand();
std::unique_ptr<ICommand> MakeTrustCommand();
std::unique_ptr<ICommand> MakeUnlockCommand();
std::unique_ptr<ICommand> MakeVolumesCommand();

/// Adds the positional PATH..., whose arguments PathsOf returns as they were typed. `name` is another name
/// for other arguments that must be kept as they were typed.
CLI::Option* AddPathArguments(CLI::App& command, const std::string& description,
                              const std::string& name = "PATH");
std::vector<std::string> PathsOf(const CLI::Option* option);
/// Adds a positional with at most one argument, which PathsOf returns as it was typed.
CLI::Option* AddPathArgument(CLI::App& command, const std::string& name, const std::string& description);
/// Returns an argument of the parser as it was typed.
std::string AsTyped(std::string argument);
/// Returns the program's arguments for the parser: in reverse order, and so that no argument is parsed as a
/// list. An empty value of --group-by, --keep-tag and --tag becomes ",", the list without a word. Raises a
/// UsageError for any other empty argument: an unset variable of a script must not mean "all".
std::vector<std::string> ArgumentsForParser(int argc, const char* const* argv);

/// Raises InvalidArgument, with file, key and value in the text, for a key of the section "configuration"
/// that is neither true nor false. Also raises what Krt::Profile::OpenSystem raises. A command calls it
/// first, so that an unusable configuration is reported once and not for each file.
void RequireSwitches(std::initializer_list<const char*> keys);

} // namespace Agent
