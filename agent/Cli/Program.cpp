#include "agent/Cli/Program.h"

#include "agent/Access/RepositoryLock.h"
#include "agent/Cli/Command.h"
#include "agent/Cli/LeadingOptions.h"
#include "agent/Http/Address.h"
#include "agent/Run/FileGuard.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Output.h"
#include "agent/Run/Similar.h"
#include "agent/Run/Text.h"

#include "Backup/Core/YGlobal.h"
#include "Backup/Util/Util.h"

#include "Krt/Log/LogSite.h"
#include "Krt/Log/YLog.h"
#include "Krt/Profile/YProfile.h"
#include "Krt/Util/Quotify.h"
#include "Krt/Util/YScope.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <csignal>
#include <new>
#include <string>

namespace Agent {

using Krt::YString;

namespace {

enum ExitCode
{
    AllDone = 0,
    CouldNotRun = 1,
    WrongUsage = 2,
    SomeFailed = 3,
    AnswerIsNo = 4,
    NoRepository = 10,
    RepositoryIsLocked = 11,
    PasswordIsWrong = 12,
    EndedBySignal = 128 // plus the number of the signal
};

// In the order in which the help shows them.
constexpr std::unique_ptr<ICommand> (*Makers[])() = {
    MakeInitCommand,  MakeBackupCommand,  MakeJobCommand,     MakeRestoreCommand,      MakeSnapshotsCommand,
    MakeLsCommand,    MakeDumpCommand,    MakeShowCommand,    MakeStatsCommand,        MakeCheckCommand,
    MakeCatCommand,   MakeListCommand,    MakeForgetCommand,  MakeRewriteCommand,      MakeCopyCommand,
    MakeTagCommand,   MakePruneCommand,   MakeRepairCommand,  MakeRebuildIndexCommand, MakeRecoverCommand,
    MakeKeyCommand,   MakeUnlockCommand,  MakeMigrateCommand, MakeVolumesCommand,      MakeServiceCommand,
    MakeTrustCommand, MakeConvertCommand, MakeRenameCommand,  MakeImportCommand,       MakeExplainCommand,
};

void WarnOfUnknownChannels(Report& report)
{
    using Krt::MessageType;
    static constexpr unsigned int Channels[] = {
        MessageType::Runtime,   MessageType::Volume,         MessageType::General,
        MessageType::FileStat,  MessageType::FileIo,         MessageType::FileInfo,
        MessageType::FileClose, MessageType::SelectionBuild, MessageType::SelectionQuery,
    };
    std::string known;
    for (const unsigned int channel : Channels)
        known += (known.empty() ? "" : ",") + Krt::Log::TypeToString(channel).Bytes();
    for (YString name : Krt::Log::GetGlobalRegistrar()->GetEnabledMessages()) {
        name.TrimWhiteSpacesLeft();
        name.TrimWhiteSpacesRight();
        if (("," + known + ",").find("," + name.Bytes() + ",") == std::string::npos)
            report.Note(
                YString("Warning: the log has no channel '" + name.Bytes() + "'; its channels are " + known));
    }
}

void WarnOfLostMessages(Report& report)
{
    const Krt::Log::YLog* const log = Krt::Log::GetGlobalLogger();
    if (const unsigned long long lost = log == nullptr ? 0 : log->GetDroppedCount(); lost != 0)
        report.Note(
            YString("Warning: messages that could not be written to the log: " + std::to_string(lost)));
}

// Warns of the keys that the library and the program read if they are outside of a section.
void WarnOfKeysWithoutSection(Report& report)
{
    const boost::shared_ptr<Krt::Profile::YProfile> profile = Krt::Profile::OpenSystem();
    for (const char* key : {"consoleOutput", "debugOutput", "disableXattr", "IncludedMountpoints",
                            "s3CredentialsFile", "walkIntoUnknownMountPoints"}) {
        if (!profile->GetKeyValue("", key, "").IsEmpty())
            report.Note("Warning: the configuration " + Krt::Profile::GetSystemPath() + " has " + key +
                        " before any section, without effect; it belongs below [configuration]");
    }
}

// --log FILE and --debug CHANNELS, which precede the command.
class LogOptions
{
public:
    // Adds the options, which are stored in this object.
    void Register(CLI::App& program);
    // Opens the process's log if an option asks for it, for as long as the process runs. The global object
    // must be initialised. Warns of unknown channels. Raises what RequireOwnLog and opening a log raise.
    void Open(Report& report) const;

private:
    std::string m_path;
    std::string m_channels = "General";
};

void LogOptions::Register(CLI::App& program)
{
    CLI::Option* const log =
        program
            .add_option("--log", m_path,
                        "Append a log to FILE, which may contain macros such as ${serviceName}")
            ->type_name("FILE");
    program
        .add_option(
            "--debug", m_channels,
            "The log's channels, separated by commas; debugOutput in the configuration takes precedence")
        ->type_name("CHANNELS")
        ->capture_default_str()
        ->needs(log);
}

void LogOptions::Open(Report& report) const
{
    if (m_path.empty())
        return;
    const Krt::File::YPath path = Backup::Util::ExpandMacros(YString(std::string_view(m_path)));
    RequireOwnLog(path.Bytes());
    RequireSwitches({"consoleOutput"});
    Krt::Log::InstallGlobalLogger();
    Backup::Util::OpenOrReopenLog(path, YString(std::string_view(m_channels)));
    if (Krt::Profile::OpenSystem()->Get<bool>("configuration", "consoleOutput", false))
        report.PrintProgressAsLines();
    WarnOfUnknownChannels(report);
}

struct Registered
{
    std::unique_ptr<ICommand> command;
    CLI::App* options;
};

std::vector<Registered> Register(CLI::App& program)
{
    std::vector<Registered> all;
    for (const auto make : Makers) {
        std::unique_ptr<ICommand> command = make();
        CLI::App* const options = command->Register(program);
        all.push_back({std::move(command), options});
    }
    return all;
}

void Describe(CLI::App& program)
{
    program.set_version_flag("--version", "kbagent " KBAGENT_VERSION, "Print the version");
    program.require_subcommand(0, 1);
    program.footer(
        "Exit codes: 0 success, 1 could not run, 2 wrong usage, 3 finished, but some entries failed,\n"
        "            4 the answer is no, 10 there is no repository, 11 the repository is locked, 12 the\n"
        "            password is wrong, 130 interrupted, 141 the reader of the output has exited.\n\n"
        "Examples: kbagent -r /backup/repository init\n"
        "          kbagent -r /backup/repository backup /home /etc\n"
        "          kbagent -r /backup/repository snapshots\n"
        "          kbagent -r /backup/repository restore latest --target /tmp/restored\n\n"
        "Run 'kbagent COMMAND --help' for more information.");
}

ICommand& CommandOf(const std::vector<Registered>& all)
{
    for (const Registered& registered : all) {
        if (registered.options->parsed())
            return *registered.command;
    }
    std::string names;
    for (const Registered& registered : all)
        names += (names.empty() ? "" : ", ") + registered.options->get_name();
    throw UsageError("Name a command: " + names);
}

// Returns the program and the commands among the arguments, as the user types them. The parser may not have
// come to them.
std::string NameOf(const CLI::App& program, int argc, char** argv)
{
    std::string name = program.get_name();
    const CLI::App* command = &program;
    for (int i = 1; i < argc; ++i) {
        if (const CLI::App* const next = FindCommand(*command, argv[i])) {
            command = next;
            name += " " + command->get_name();
        }
    }
    return name;
}

// Returns true if a letter was added, left out or replaced, or if `typed` is the beginning of `name`.
bool IsSimilar(std::string_view typed, std::string_view name)
{
    const auto differs = std::mismatch(typed.begin(), typed.end(), name.begin(), name.end());
    const std::string_view typedRest(differs.first, typed.end()), nameRest(differs.second, name.end());
    return typedRest.empty() || (!nameRest.empty() && typedRest.substr(1) == nameRest.substr(1)) ||
           (!nameRest.empty() && typedRest == nameRest.substr(1)) || typedRest.substr(1) == nameRest;
}

// Returns what the user probably meant by the first option that the command does not have; "" if unknown.
std::string HintFor(const CLI::App& program, int argc, char** argv)
{
    const CLI::App* command = &program;
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
        const std::string_view argument = argv[i];
        if (!command->get_subcommands().empty() &&
            argument == command->get_subcommands().front()->get_name()) {
            command = command->get_subcommands().front();
            continue;
        }
        const std::string typed(argument.substr(0, argument.find('=')));
        if (command->get_option_no_throw(typed) != nullptr)
            continue;
        if (command->get_name() == "explain" && typed.starts_with('-') &&
            FindCommand(program, "backup")->get_option_no_throw(typed) != nullptr)
            return " (it is an option of backup, which explain does not consider; 'kbagent backup -n -v -v' "
                   "prints what is stored with it)";
        if (!typed.starts_with("--"))
            continue;
        if (typed == "--log" || typed == "--debug" || typed == "--version")
            return " (" + typed + " must precede the command)";
        if (const std::string hint = HintForResticOption(typed); !hint.empty())
            return hint;
        for (const CLI::Option* option : command->get_options()) {
            const std::string name = option->get_name();
            if (name.starts_with("--") && IsSimilar(typed, name))
                return " (did you mean " + name + " instead of " + std::string(typed) + "?)";
        }
    }
    return "";
}

// Returns what the user probably meant by a command that does not exist; "" if unknown.
std::string HintForCommand(const CLI::App& program, const std::string& typed)
{
    constexpr std::size_t ShortestBeginning = 3;
    if (const std::string hint = HintForResticCommand(typed); !hint.empty())
        return hint;
    std::string names;
    for (const CLI::App* command : program.get_subcommands([](const CLI::App*) { return true; })) {
        const std::string& name = command->get_name();
        if (IsMisspelt(typed, name) || (typed.size() >= ShortestBeginning && name.starts_with(typed)))
            names += (names.empty() ? "" : " or ") + name;
    }
    return names.empty() ? "" : " (did you mean " + names + "?)";
}

// Returns the words that the missing argument may be, as its help has them; "" if they are not known.
std::string ChoicesFor(const CLI::App& program, std::string_view error)
{
    for (const CLI::App* command : program.get_subcommands()) {
        for (const CLI::Option* option : command->get_options()) {
            if (option->count() == 0 && error.starts_with(option->get_name() + " ") &&
                option->get_type_name().find('{') != std::string::npos)
                return ": " + option->get_description();
        }
    }
    return "";
}

// The parser's own text has the arguments in the reverse order.
std::string UnexpectedText(const std::vector<std::string>& arguments)
{
    std::string text = arguments.size() == 1 ? "The following argument was not expected:"
                                             : "The following arguments were not expected:";
    for (const std::string& argument : arguments)
        text += " " + argument;
    return text;
}

// Raises an error that names the actions of a command such as key if the user has named another one.
void RequireKnownAction(const CLI::App& program)
{
    const std::vector<std::string> rest = program.remaining(true);
    const std::vector<CLI::App*> commands = program.get_subcommands();
    if (commands.empty() || !commands.front()->get_subcommands().empty() || rest.empty() ||
        rest.front().starts_with('-'))
        return;
    const std::vector<CLI::App*> actions = commands.front()->get_subcommands({});
    if (actions.empty())
        return;
    std::string names;
    for (std::size_t i = 0; i < actions.size(); ++i)
        names += (i == 0 ? "" : i + 1 < actions.size() ? ", " : " or ") + actions[i]->get_name();
    throw UsageError(commands.front()->get_name() + ": unknown action " + rest.front() + "; use " + names);
}

// Returns true if the arguments ask for nothing but the help or the version, which is printed.
bool Parse(CLI::App& program, int argc, char** argv, Report& report)
{
    try {
        std::vector<std::string> arguments = ArgumentsForParser(argc, argv);
        MoveLeadingOptions(program, arguments);
        program.parse(std::move(arguments));
        return false;
    } catch (const CLI::CallForHelp&) {
        report.Out() << program.help();
    } catch (const CLI::CallForVersion& version) {
        report.Out() << version.what() << "\n";
    } catch (const CLI::ExtrasError&) {
        const std::vector<std::string> rest = program.remaining();
        if (!rest.empty() && rest.front() == "help")
            throw UsageError("unknown command help (use 'kbagent COMMAND --help')");
        if (program.get_subcommands().empty() && !rest.empty() && !rest.front().starts_with('-'))
            throw UsageError("unknown command " + rest.front() + HintForCommand(program, rest.front()));
        RequireKnownAction(program);
        throw UsageError(UnexpectedText(program.remaining(true)) + HintFor(program, argc, argv));
    } catch (const CLI::RequiredError& error) {
        throw UsageError(std::string(error.what()) + ChoicesFor(program, error.what()) +
                         HintFor(program, argc, argv));
    } catch (const CLI::ParseError& error) {
        throw UsageError(error.what() + HintFor(program, argc, argv));
    }
    return true;
}

// Returns the arguments in the syntax of a shell. A command for a password may contain the password, so it is
// left out, as is the user of an address. No other option takes a secret.
std::string CommandLine(int argc, char** argv)
{
    constexpr std::string_view plain =
        "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789_-+=./:,@%";
    const auto isSecretOption = [](std::string_view name) {
        return name == "--password-command" || name == "--from-password-command";
    };
    std::string line = "kbagent";
    bool isSecret = false;
    for (int i = 1; i < argc; ++i) {
        std::string argument =
            std::exchange(isSecret, false) ? "***" : Http::ArgumentWithoutCredentials(argv[i]);
        isSecret = isSecretOption(argument);
        if (const std::size_t equals = argument.find('='); isSecretOption(argument.substr(0, equals)))
            argument = argument.substr(0, equals) + (equals == argument.npos ? "" : "=***");
        if (argument.find_first_not_of(plain) == std::string::npos) {
            line += " " + argument;
            continue;
        }
        line += " " + Krt::Util::QuotifyEx(YString(argument), '\'').Bytes();
    }
    return line;
}

// Known before the arguments are parsed, so that an error in them is JSON, too.
bool AsksForJson(int argc, char** argv)
{
    for (int i = 1; i < argc && std::string_view(argv[i]) != "--"; ++i) {
        if (std::string_view(argv[i]) == "--json")
            return true;
    }
    return false;
}

int RunCommand(int argc, char** argv, Report& report)
{
    CLI::App program("Backs files up into a repository, and restores them.", "kbagent");
    Describe(program);
    LogOptions log;
    log.Register(program);
    AddLeadingOptions(program);
    const std::vector<Registered> all = Register(program);
    const bool isJson = AsksForJson(argc, argv);
    if (isJson)
        report.UseJson();
    try {
        if (!Parse(program, argc, argv, report)) {
            ICommand& command = CommandOf(all);
            RequireOwnFile("The configuration", Krt::Profile::GetSystemPath().Bytes());
            log.Open(report);
            WarnOfKeysWithoutSection(report);
            KRT_LOG_FREE(Krt::MessageType::General, "Begin: " << CommandLine(argc, argv).c_str());
            command.Run(report);
            report.Finish();
        }
    } catch (const UsageError& error) {
        report.Error(YString(Http::WithoutCredentials(error.what())), WrongUsage);
        if (!isJson)
            report.Note(YString("Run '" + NameOf(program, argc, argv) + " --help' for more information."));
        return WrongUsage;
    }
    report.Out().Flush();
    if (report.IsIncomplete())
        return SomeFailed;
    return report.AnswersNo() ? AnswerIsNo : AllDone;
}

int CodeOf(const Krt::Exception::YError& error)
{
    if (dynamic_cast<const LockedError*>(&error) != nullptr)
        return RepositoryIsLocked;
    const auto* const failure = dynamic_cast<const Repo::RepositoryError*>(&error);
    if (failure != nullptr && failure->GetFailure() == Repo::Failure::NoRepository)
        return NoRepository;
    if (failure != nullptr && failure->GetFailure() == Repo::Failure::WrongPassword)
        return PasswordIsWrong;
    return CouldNotRun;
}

// Returns the reason. The path of a file of the repository, which begins it, becomes absolute.
YString TextOf(const Krt::Exception::YError& error, const Report& report)
{
    const YString reason = ReasonOf(error);
    constexpr std::string_view Files[] = {"config: ", "data/", "index/", "keys/", "locks/", "snapshots/"};
    const bool namesFile = (dynamic_cast<const Repo::RepositoryError*>(&error) != nullptr ||
                            dynamic_cast<const LockedError*>(&error) != nullptr) &&
                           std::any_of(std::begin(Files), std::end(Files), [&](std::string_view file) {
                               return reason.Bytes().starts_with(file);
                           });
    const YString& location = report.GetLocation();
    if (!namesFile || location.IsEmpty())
        return reason;
    return location + (location.Bytes().ends_with('/') ? "" : "/") + reason;
}

int Fail(Report& report, int exitCode, const Krt::YString& text)
{
    exitCode = IsInterrupted() ? EndedBySignal + InterruptingSignal() : exitCode;
    // It may repeat an argument that is an address.
    report.Error(YString(Http::WithoutCredentials(text.Bytes())), exitCode);
    return exitCode;
}

// Runs the program and reports what ended it.
int RunAndReport(int argc, char** argv, Report& report)
{
    try {
        const Krt::Util::YScope atEnd([] { Backup::DestroyGlobal(); });
        Backup::GetGlobal()->Initialize();
        return RunCommand(argc, argv, report);
    } catch (const OutputError& error) {
        if (error.IsPipeClosed())
            return EndedBySignal + SIGPIPE;
        return Fail(report, CouldNotRun, YString(error.what()));
    } catch (const Krt::Exception::YError& error) {
        return Fail(report, CodeOf(error), TextOf(error, report));
    } catch (const std::bad_alloc&) {
        return Fail(report, CouldNotRun, "Out of memory");
    } catch (const std::exception& error) {
        return Fail(report, CouldNotRun, YString(error.what()));
    }
}

} // namespace

int Run(int argc, char** argv)
{
    OpenMissingStreams();
    CatchInterrupts();
    Report report;
    try {
        const int exitCode = RunAndReport(argc, argv, report);
        KRT_LOG_FREE(Krt::MessageType::General, "Duration: " << report.GetDuration().c_str());
        KRT_LOG_FREE(Krt::MessageType::General, "End: exit code " << exitCode);
        WarnOfLostMessages(report);
        return exitCode;
    } catch (const std::bad_alloc&) {
        // There is no memory even for the text of a message.
        PrintError("kbagent: error: Out of memory\n");
        return CouldNotRun;
    }
}

} // namespace Agent
