#include "agent/Cli/Command.h"

#include "agent/Backup/BackupRun.h"
#include "agent/Cli/NewSnapshotArguments.h"
#include "agent/Cli/PatternArguments.h"

#include <CLI/CLI.hpp>

#include <cctype>
#include <charconv>
#include <limits>

namespace Agent {

namespace {

// Bytes, or with a letter KiB, MiB, GiB or TiB.
std::uint64_t SizeOf(const std::string& text)
{
    constexpr std::string_view Units = "bkmgt";
    std::uint64_t size = 0;
    const char* const end = text.data() + text.size();
    const auto [unit, error] = std::from_chars(text.data(), end, size);
    const std::size_t power =
        unit == end ? 0 : Units.find(static_cast<char>(std::tolower(static_cast<unsigned char>(*unit))));
    if (error != std::errc() || unit + 1 < end || power == Units.npos ||
        size > std::numeric_limits<std::uint64_t>::max() >> (10 * power))
        throw UsageError("--exclude-larger-than is not a size as in 100M: '" + text + "'");
    return size << (10 * power);
}

// FILE or FILE:HEADER.
DirectoryMark MarkOf(const std::string& text)
{
    const std::size_t colon = std::min(text.find(':'), text.size());
    DirectoryMark mark{text.substr(0, colon), text.substr(std::min(colon + 1, text.size()))};
    if (mark.name.empty() || mark.name.find('/') != mark.name.npos)
        throw UsageError("--exclude-if-present takes the name of a file, as in .nobackup: '" + text + "'");
    return mark;
}

// The path of a file in a snapshot, as in "/a/b".
std::string StreamPathOf(const std::string& name)
{
    std::string path;
    for (std::size_t begin = 0; begin < name.size();) {
        const std::size_t end = std::min(name.find('/', begin), name.size());
        const std::string part = name.substr(begin, end - begin);
        if (part == "..")
            throw UsageError("--stdin-filename has the component ..: '" + name + "'");
        if (!part.empty() && part != ".")
            path += "/" + part;
        begin = end + 1;
    }
    if (path.empty() || name.ends_with('/'))
        throw UsageError("--stdin-filename is not the name of a file: '" + name + "'");
    return path;
}

class BackupCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void AddComparingOptions(CLI::App& command);
    void AddFilteringOptions(CLI::App& command);
    void AddSourceOptions(CLI::App& command);
    EntryFilter GetFilter() const;
    BackupSettings GetSettings() const;

    NewSnapshotArguments m_snapshot;
    BackupSettings m_settings;
    PatternArguments m_excludes;
    bool m_excludesCaches = false;
    bool m_staysOnFileSystem = false;
    bool m_readsInput = false;
    std::string m_inputName = "stdin";
    std::string m_largest;
    std::vector<std::string> m_marks;
    bool m_hasNoScan = false;
    CLI::Option* m_paths = nullptr;
};

CLI::App* BackupCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("backup", "Store files and directories as a new snapshot");
    command->add_option("--job", m_settings.jobFile, "Read the rules from this job file (JSON)")
        ->type_name("FILE");
    m_snapshot.AddTo(*command);
    AddFilteringOptions(*command);
    AddSourceOptions(*command);
    AddComparingOptions(*command);
    m_paths = AddPathArguments(*command, "Entries to store, with everything below them");
    command->footer(
        "A mount point below a PATH is entered only if it contains a disk's file system or the "
        "configuration\n"
        "lists it. With --verbose, every excluded path is printed.\n\n"
        "Patterns are those of restic: /a/b from the root, b at any place, *, ?, [a-z], ** for any "
        "number\nof directories. A ! takes back what patterns before it matched. In a FILE of patterns, "
        "$NAME is a\nvariable of the environment, and $$ a dollar sign. A PATH itself is never "
        "excluded,\nbut everything below it is if a pattern matches the PATH or a directory above it.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent backup --repo /backup/repository /home /etc");
    return command;
}

void BackupCommand::AddComparingOptions(CLI::App& command)
{
    command
        .add_option("--parent", m_settings.parent,
                    "Compare with this snapshot, not with the latest of the same host and paths")
        ->type_name("ID");
    command.add_flag("-f,--force", m_settings.isForced, "Read all files, without a parent");
    command.add_flag("--skip-if-unchanged", m_settings.skipsIfUnchanged,
                     "Create no snapshot if nothing changed since the parent");
    command.add_flag("--ignore-ctime", m_settings.ignoresChangeTime,
                     "Regard files as unchanged whatever their change time");
    command.add_flag("--ignore-inode", m_settings.ignoresInode,
                     "Regard files as unchanged whatever their inode and change time");
    command.add_flag("--no-scan", m_hasNoScan,
                     "Do not count the files first; the progress has no totals then");
}

void BackupCommand::AddFilteringOptions(CLI::App& command)
{
    m_excludes.AddTo(command, 'e', "exclude", "Leave out entries that match a pattern, and all below them");
    command.add_flag("--exclude-caches", m_excludesCaches,
                     "Leave out the contents of directories with a valid CACHEDIR.TAG, except for that file");
    command
        .add_option(
            "--exclude-if-present", m_marks,
            "Leave out the contents of directories that contain this file, except for the file; with\n"
            "FILE:HEADER, only if the file begins with the header")
        ->type_name("FILE[:HEADER]")
        ->allow_extra_args(false);
    command
        .add_option("--exclude-larger-than", m_largest,
                    "Leave out files that are larger, in bytes or with one of the letters k, m, g and t")
        ->type_name("SIZE");
    command.add_flag("-x,--one-file-system", m_staysOnFileSystem,
                     "Do not enter directories on other file systems than that where the walk starts");
}

void BackupCommand::AddSourceOptions(CLI::App& command)
{
    const auto add = [&command](const char* name, std::vector<std::string>& list, const char* description) {
        command.add_option(name, list, description)->type_name("FILE")->allow_extra_args(false);
    };
    add("--files-from", m_settings.lists.patterns,
        "Also store the paths that match the lines of a file, or of -");
    add("--files-from-verbatim", m_settings.lists.verbatim,
        "Also store the paths that are the lines of a file");
    add("--files-from-raw", m_settings.lists.raw,
        "Also store the paths in a file, each of which is followed by a zero byte");
    command.add_flag("--stdin", m_readsInput, "Store standard input as a file");
    command.add_option("--stdin-filename", m_inputName, "The path of that file in the snapshot")
        ->type_name("PATH")
        ->capture_default_str();
}

void BackupCommand::Run(Report& report)
{
    const bool hasPaths = !PathsOf(m_paths).empty() || !m_settings.lists.IsEmpty();
    if (m_readsInput && (hasPaths || !m_settings.jobFile.empty()))
        throw UsageError("backup: --stdin takes neither PATH, lists of files nor --job");
    if (!hasPaths && m_settings.jobFile.empty() && !m_readsInput)
        throw UsageError("backup: name at least one PATH, or rules with --job");
    RequireSwitches({"disableXattr", "walkIntoUnknownMountPoints"});
    const BackupSettings settings = GetSettings();
    report.NameWork("archival");
    CreateSnapshot(
        settings, report, [&](ISnapshotObserver& observer) { return BackUp(settings, report, observer); },
        [&](const SnapshotOutcome& outcome) { return SummaryText(settings, outcome); });
}

BackupSettings BackupCommand::GetSettings() const
{
    BackupSettings settings = m_settings;
    static_cast<SnapshotSettings&>(settings) = m_snapshot.Get();
    settings.paths = PathsOf(m_paths);
    settings.filter = GetFilter();
    for (const std::string& pattern : m_excludes.patterns)
        settings.excludes.push_back(AsTyped(pattern));
    if (m_readsInput)
        settings.streamPath = StreamPathOf(m_inputName);
    settings.scans = !m_hasNoScan;
    if (settings.isForced && !settings.parent.empty())
        throw UsageError("--force and --parent exclude each other");
    return settings;
}

EntryFilter BackupCommand::GetFilter() const
{
    EntryFilter filter;
    filter.patterns = m_excludes.Get();
    for (const std::string& mark : m_marks)
        filter.marks.push_back(MarkOf(AsTyped(mark)));
    if (m_excludesCaches)
        filter.marks.push_back(CacheMark());
    if (!m_largest.empty())
        filter.largest = SizeOf(m_largest);
    filter.staysOnFileSystem = m_staysOnFileSystem;
    return filter;
}

} // namespace

std::unique_ptr<ICommand> MakeBackupCommand()
{
    return std::make_unique<BackupCommand>();
}

} // namespace Agent
