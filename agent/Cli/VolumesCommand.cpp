#include "agent/Cli/Command.h"

#include "agent/Cli/TextTable.h"
#include "agent/Cli/VolumeList.h"
#include "agent/Explain/MountFacts.h"
#include "agent/Run/Output.h"
#include "agent/Run/Text.h"

#include "Krt/JSON/YValue.h"

#include <CLI/CLI.hpp>

namespace Agent {

using Krt::YString;
using Krt::JSON::YArray;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

// The time to wait for one mount.
constexpr std::chrono::seconds Patience{3};

TextRow RowOf(const ListedVolume& volume)
{
    const char* const entered = !volume.isEntered ? "-" : *volume.isEntered ? "yes" : "no";
    return {DriveClassWord(volume.driveClass),
            volume.mount.readOnly ? "ro" : "rw",
            volume.freeSpace ? ShortSize(*volume.freeSpace) : "-",
            entered,
            Printable(volume.mount.source),
            Printable(volume.mount.directory)};
}

YObject ObjectOf(const ListedVolume& volume)
{
    YObject object;
    object.Set<YString>("class", DriveClassWord(volume.driveClass));
    object.Set<YString>("source", volume.mount.source);
    object.Set<YString>("mount_path", volume.mount.directory);
    object.Set<YString>("file_system", volume.mount.type);
    object.Put("read_only", YValue::Create<bool>(volume.mount.readOnly));
    object.Put("hidden", YValue::Create<bool>(volume.isHidden));
    if (volume.freeSpace)
        object.Put("free_bytes", YValue::Create<unsigned long long>(*volume.freeSpace));
    if (volume.isEntered)
        object.Put("entered", YValue::Create<bool>(*volume.isEntered));
    if (volume.failure)
        object.Set<YString>("error", *volume.failure);
    return object;
}

std::string TextOf(const std::vector<ListedVolume>& volumes)
{
    std::vector<TextRow> rows;
    rows.reserve(volumes.size());
    for (const ListedVolume& volume : volumes)
        rows.push_back(RowOf(volume));
    return TableText({{"CLASS"},
                      {"ACCESS"},
                      {.title = "FREE", .alignsRight = true},
                      {"ENTERED"},
                      {.title = "SOURCE", .mayBeCut = true},
                      {.title = "MOUNT PATH", .mayBeCut = true}},
                     std::move(rows), OutputWidth());
}

std::string JsonOf(const std::vector<ListedVolume>& volumes)
{
    YArray array;
    array.reserve(volumes.size());
    for (const ListedVolume& volume : volumes)
        array.push_back(YValue::Create<YObject>(ObjectOf(volume)));
    YObject document;
    document.Set<YArray>("volumes", std::move(array));
    return PrintableJson(YValue::FromObject(std::move(document)).Stringify(false).Bytes()) + "\n";
}

class VolumesCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    bool m_json = false;
};

CLI::App* VolumesCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("volumes", "List the machine's mounts, and which of them a backup enters");
    command->add_flag("--json", m_json, "Print a JSON document");
    command->footer(
        "One line is printed for each mount: the class of its file system (fixed, removable, network,\n"
        "special, rootfs or unknown), whether it is writable (rw) or not (ro), the space that is free to\n"
        "ordinary users, whether a backup of a directory above it enters it (for a file that is mounted:\n"
        "no), its source and its mount path. A backup enters mounts of the class fixed, those on the volume\n"
        "of the directory above them, and those that the configuration key IncludedMountpoints lists.\n\n"
        "A - means that a value is unknown, because another mount hides this one or because the file system\n"
        "does not answer. A file system that does not answer is reported on standard error.\n\n"
        "On a terminal long names are cut. Control characters, invisible characters and unusual blanks in\n"
        "a name are escaped as \\n, \\xHH, \\uHHHH or \\UHHHHHHHH, and a backslash is doubled. In JSON,\n"
        "names are not cut, sizes are in bytes, and the keys free_bytes, entered and error are absent if\n"
        "they have no value.\n\n"
        "Example: kbagent volumes");
    return command;
}

void VolumesCommand::Run(Report& report)
{
    const std::vector<ListedVolume> volumes = ListVolumes(Patience);
    report.Out() << (m_json ? JsonOf(volumes) : TextOf(volumes));
    report.Out().Flush();
    for (const ListedVolume& volume : volumes) {
        if (volume.failure)
            report.EntryFailed(volume.mount.directory, *volume.failure);
    }
}

} // namespace

std::unique_ptr<ICommand> MakeVolumesCommand()
{
    return std::make_unique<VolumesCommand>();
}

} // namespace Agent
