#include "agent/Cli/Command.h"

#include "agent/Cli/EntryText.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"
#include "agent/Store/SnapshotReader.h"

#include "Krt/Exception/Raise.h"
#include "Krt/JSON/YValue.h"

#include <CLI/CLI.hpp>

#include <cstdio>

namespace Agent {

using Krt::YString;
using Krt::JSON::YObject;
using Krt::JSON::YValue;

namespace {

class ListCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void ListSnapshots(const Store& store, Report& report) const;
    void PrintSnapshot(const std::string& id, const SnapshotHeader& header, const SnapshotTrailer& trailer,
                       Output& out) const;
    void ListEntries(SnapshotReader& snapshot, Report& report) const;

    std::string m_store;
    std::string m_snapshot;
    bool m_json = false;
};

CLI::App* ListCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("list", "List the snapshots, or the entries of one");
    AddStoreOption(*command, m_store);
    command
        ->add_option("--snapshot", m_snapshot,
                     "List the entries of this snapshot: its ID, a unique prefix of it, or latest")
        ->type_name("ID");
    command->add_flag("--json", m_json, "Print one JSON object per line, entries as they are stored");
    command->footer(
        "An entry is listed with its mode, owner and group by number, size in bytes, time of its last\n"
        "change in UTC, and path. Control characters, invisible characters and unusual blanks in a path are\n"
        "escaped as \\n, \\xHH, \\uHHHH or \\UHHHHHHHH, and a backslash is doubled. A Windows entry has the\n"
        "letters of its attributes instead of a mode (R read-only, H hidden, S system, A archive, L reparse\n"
        "point), and one line for each path.\n\n"
        "Examples: kbagent list --store /backup/store\n"
        "          kbagent list --store /backup/store --snapshot latest");
    return command;
}

void ListCommand::Run(Report& report)
{
    const Store store = Store::Open(m_store);
    if (m_snapshot.empty()) {
        ListSnapshots(store, report);
        return;
    }
    SnapshotReader snapshot(store, store.FindSnapshot(m_snapshot));
    ListEntries(snapshot, report);
}

void ListCommand::ListSnapshots(const Store& store, Report& report) const
{
    for (const std::string& id : store.ListSnapshots()) {
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted");
        std::optional<SnapshotHeader> header;
        std::optional<SnapshotTrailer> trailer;
        try {
            const SnapshotReader snapshot(store, id);
            header = snapshot.GetHeader();
            trailer = snapshot.PeekTrailer();
        } catch (const Krt::Exception::YError& error) {
            report.EntryFailed(YString(id.c_str()), ReasonOf(error));
            continue;
        }
        PrintSnapshot(id, *header, *trailer, report.Out());
    }
}

void ListCommand::PrintSnapshot(const std::string& id, const SnapshotHeader& header,
                                const SnapshotTrailer& trailer, Output& out) const
{
    if (!m_json) {
        char counts[128];
        std::snprintf(counts, sizeof counts, "%10llu entries %15llu bytes %6llu failed", trailer.entries,
                      trailer.bytes, trailer.failed);
        out << Printable(id) << "  " << TimeText(header.time) << "  " << counts << "\n";
        return;
    }
    const auto number = [](unsigned long long value) {
        return YValue::Create<unsigned long long>(value);
    };
    YObject line;
    line.Set<YString>("id", YString(id.c_str()));
    line.Put("time", number(header.time));
    line.Set<YString>("host", header.host);
    line.Put("entries", number(trailer.entries));
    line.Put("bytes", number(trailer.bytes));
    line.Put("failed", number(trailer.failed));
    out << PrintableJson(YValue::FromObject(std::move(line)).Stringify(true).Bytes()) << "\n";
}

void ListCommand::ListEntries(SnapshotReader& snapshot, Report& report) const
{
    std::string_view line;
    for (unsigned long long number = 1; snapshot.NextLine(line); ++number) {
        KRT_RAISE_UNLESS(!IsInterrupted(), Krt::ErrorCode::InvalidState, "Interrupted");
        try {
            // A line that is not an entry is not printed.
            const SnapshotEntry entry = ReadEntry(line);
            const std::string text = m_json ? PrintableJson(line) + "\n" : EntryText(entry);
            report.Out() << text;
        } catch (const Krt::Exception::YError& error) {
            report.EntryFailed("Entry " + YString(std::to_string(number).c_str()), ReasonOf(error));
        }
    }
}

} // namespace

std::unique_ptr<ICommand> MakeListCommand()
{
    return std::make_unique<ListCommand>();
}

} // namespace Agent
