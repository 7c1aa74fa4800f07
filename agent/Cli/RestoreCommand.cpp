#include "agent/Cli/Command.h"

#include "agent/Cli/PatternArguments.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Restore/SnapshotRestore.h"
#include "agent/Restore/Target.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Environment/Host.h"
#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <cerrno>
#include <filesystem>

namespace Agent {

namespace {

class RestoreCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void AddOptions(CLI::App& command);
    RestoreSettings SettingsOf() const;
    std::optional<Krt::File::YDirectory> Target(Session& session) const;

    CLI::Option* m_snapshot = nullptr;
    CLI::Option* m_paths = nullptr;
    RepositoryArguments m_repository;
    std::string m_target;
    std::string m_overwrite = "always";
    bool m_deletes = false;
    bool m_isDryRun = false;
    bool m_verifies = false;
    bool m_isSparse = false; // has no effect
    PatternArguments m_includes, m_excludes;
    std::vector<std::string> m_attributes, m_excludedAttributes;
};

CLI::App* RestoreCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("restore", "Restore entries of a snapshot into a directory");
    AddOptions(*command);
    m_snapshot = AddPathArgument(
        *command, "SNAPSHOT",
        "The snapshot, by first digits of its ID or as latest; SNAPSHOT:PATH for what is below a\n"
        "directory of it");
    m_paths = AddPathArguments(*command, "Paths of entries: only these and all below them are restored");
    command->footer(
        "An entry /a/b is restored as TARGET/a/b, and with SNAPSHOT:/a as TARGET/b. Nothing is ever written\n"
        "outside TARGET: symlinks below it are not followed, nor are other users' symlinks on the path to\n"
        "it. A file gets its name only when it is complete. Owners are restored by their numbers.\n\n"
        "Patterns are those of restic: /a/b from the root, b at any place, *, ?, [a-z], ** for any number\n"
        "of directories. A ! takes back what patterns before it matched.\n\n" +
        std::string(RepositoryHelp) +
        "Examples: kbagent restore --repo /backup/repository latest --target /tmp/restored\n"
        "          kbagent restore --repo /backup/repository latest --target /tmp/restored /etc/hosts");
    return command;
}

void RestoreCommand::AddOptions(CLI::App& command)
{
    m_repository.AddTo(command);
    m_repository.AddSnapshotOptionsTo(command);
    command
        .add_option("-t,--target", m_target,
                    "Restore into this directory, which is created if it does not exist")
        ->type_name("TARGET");
    const auto addList = [&command](const char* name, std::vector<std::string>& list,
                                    const char* description) {
        command.add_option(name, list, description)->type_name("PATTERN")->allow_extra_args(false);
    };
    m_includes.AddTo(command, 'i', "include", "Restore only entries that match a pattern");
    m_excludes.AddTo(command, 'e', "exclude", "Do not restore entries that match a pattern");
    addList("--include-xattr", m_attributes, "Restore only extended attributes of these names");
    addList("--exclude-xattr", m_excludedAttributes, "Do not restore extended attributes of these names");
    command.add_flag("--sparse", m_isSparse, "Has no effect: runs of zeros always become holes");
    command
        .add_option(
            "--overwrite", m_overwrite,
            "What happens to files that exist: always (parts that are equal stay), if-changed (files of\n"
            "equal size and time count as equal), if-newer (unless older than in the snapshot, they\n"
            "are kept) or never")
        ->type_name("WHEN")
        ->check(CLI::IsMember({"always", "if-changed", "if-newer", "never"}));
    command.add_flag(
        "--delete", m_deletes,
        "Remove entries of restored directories that the snapshot does not have. TARGET and the\n"
        "directories on the way to the PATHs of the backup are restored directories, too");
    command.add_flag("-n,--dry-run", m_isDryRun, "Change nothing, and print what would be done");
    command.add_flag("--verify", m_verifies, "Read restored files again, and compare them");
}

RestoreSettings RestoreCommand::SettingsOf() const
{
    RestoreSettings settings;
    settings.overwrite = m_overwrite == "never"        ? Overwrite::Never
                         : m_overwrite == "if-newer"   ? Overwrite::IfNewer
                         : m_overwrite == "if-changed" ? Overwrite::IfChanged
                                                       : Overwrite::Always;
    settings.deletes = m_deletes;
    settings.isDryRun = m_isDryRun;
    settings.verifies = m_verifies;
    const RepositoryOptions options = m_repository.Get();
    settings.isVerbose = options.isVerbose;
    settings.isJson = options.isJson;
    settings.isQuiet = options.isQuiet;
    settings.includes = m_includes.Get();
    settings.excludes = m_excludes.Get();
    if (m_includes.HasFiles() && settings.includes.IsEmpty())
        throw UsageError("The files of --include-file and --iinclude-file have no patterns");
    if (!settings.includes.IsEmpty() && !settings.excludes.IsEmpty())
        throw UsageError("Patterns either include or exclude; both can't be given");
    settings.attributes = PatternsOf(m_attributes, "--include-xattr");
    settings.excludedAttributes = PatternsOf(m_excludedAttributes, "--exclude-xattr");
    if (!m_attributes.empty() && !m_excludedAttributes.empty())
        throw UsageError("--include-xattr and --exclude-xattr can't be given together");
    if (m_deletes && settings.includes.IsEmpty() && settings.excludes.IsEmpty() &&
        std::filesystem::weakly_canonical(m_target) == "/")
        throw UsageError("--delete with the target / needs --include or --exclude");
    return settings;
}

// Opens the target. Returns nothing for a dry run into a directory that does not exist.
std::optional<Krt::File::YDirectory> RestoreCommand::Target(Session& session) const
{
    const auto openIfPresent = [](const Krt::YString& path,
                                  bool isOther) -> std::optional<Krt::File::YDirectory> {
        try {
            return Krt::File::YDirectory::OpenFollowing(Krt::File::YPath(path));
        } catch (const Krt::Exception::YError& error) {
            if (!isOther && error.GetOsError() != ENOENT)
                throw;
            return std::nullopt;
        }
    };
    if (m_isDryRun)
        return openIfPresent(Krt::YString(std::string_view(m_target)), false);
    const auto source = openIfPresent(session.GetRepository().GetBackend().Describe(), true);
    return OpenTarget(m_target, source ? &*source : nullptr, session.GetReport());
}

void RestoreCommand::Run(Report& report)
{
    const std::vector<std::string> snapshots = PathsOf(m_snapshot), paths = PathsOf(m_paths);
    if (snapshots.empty() || snapshots.front().starts_with('/'))
        throw UsageError("restore: name a snapshot, as latest");
    if (m_target.empty())
        throw UsageError("--target is required");
    RestoreSettings settings = SettingsOf();
    report.NameWork("restore");
    if (!settings.isDryRun)
        report.GoOnWithoutOutput(LostOutput::Summary);

    const std::string& choice = snapshots.front();
    const std::size_t colon = std::min(choice.find(':'), choice.size());
    Session session(m_repository.Get(), report, Access::Read, OldFormat::Refused, Settling::Later);
    const Repo::StoredSnapshot stored =
        ChooseSnapshot(session, choice.substr(0, colon), m_repository.GetSnapshotOptions());
    session.LoadIndex();
    settings.loaders = session.TransferCount(settings.loaders);
    const Repo::Repository& repository = session.GetRepository();
    Repo::Id tree = stored.snapshot.tree;
    if (colon < choice.size()) {
        const FoundEntry found = FindEntry(repository, tree, choice.substr(colon + 1));
        KRT_RAISE_UNLESS(
            found.node.type == Repo::NodeType::Directory && found.node.subtree,
            Krt::ErrorCode::InvalidArgument,
            "Not a directory: "
                << Krt::YString(std::string_view(found.path)) << "; to restore it, name it as a PATH after "
                << (choice.substr(0, colon + 1) + found.path.substr(0, found.path.rfind('/') + 1)).c_str());
        tree = *found.node.subtree;
    }
    for (const std::string& path : paths) {
        try {
            settings.paths.push_back(FindEntry(repository, tree, path).path);
        } catch (const Krt::Exception::YError& error) {
            RaiseIfInterrupted();
            const bool mayBeSnapshot = path.find('/') == std::string::npos;
            report.EntryFailed(Krt::YString(std::string_view(path)),
                               ReasonOfSearch(error) +
                                   (mayBeSnapshot ? "; all arguments after the snapshot are paths" : ""));
        }
    }
    const bool isWhole =
        colon == choice.size() && paths.empty() && settings.includes.IsEmpty() && settings.excludes.IsEmpty();
    if (isWhole && stored.snapshot.summary)
        settings.expectedBytes = stored.snapshot.summary->totalBytesProcessed;
    KRT_RAISE_UNLESS(paths.empty() || !settings.paths.empty(), Krt::ErrorCode::InvalidArgument,
                     "None of the paths can be restored, so nothing was changed");
    if (!settings.isJson && !settings.isQuiet) {
        const bool isLatest = choice.substr(0, colon) == "latest"; // which was reported
        report.Out() << Printable("restoring " +
                                  (isLatest ? "snapshot " + ShortId(stored.id) : DescribeSnapshot(stored)) +
                                  " to " + m_target)
                     << "\n";
        report.Out().Flush(); // before failures, which go to standard error
    }

    // All directories of the path to an entry are kept open.
    Krt::Environment::RaiseDescriptorLimit();
    Krt::Environment::SetFileCreationMask(077);
    std::optional<Krt::File::YDirectory> target = Target(session);
    SnapshotRestore run(repository, std::move(target), std::move(settings), report);
    run.Run(tree);
    run.PrintSummary();
}

} // namespace

std::unique_ptr<ICommand> MakeRestoreCommand()
{
    return std::make_unique<RestoreCommand>();
}

} // namespace Agent
