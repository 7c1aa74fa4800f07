#include "agent/Cli/Command.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Cli/NodeText.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <unordered_set>

namespace Agent {

using Krt::YString;
using Repo::Node;

namespace {

// An entry that is printed after all others were read.
struct SortedEntry
{
    std::string path;
    Node node;
};

std::string ExtensionOf(const std::string& name)
{
    const std::size_t dot = name.rfind('.');
    return dot == std::string::npos ? "" : name.substr(dot);
}

class LsCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void List(Session& session, const Repo::StoredSnapshot& stored, const std::vector<std::string>& paths,
              bool isQuiet);
    void ListAll(Session& session, const Repo::StoredSnapshot& stored);
    void ListFound(Session& session, FoundEntry& found);
    void Visit(Report& report, const std::string& path, Node& node);
    void Print(Report& report, const std::string& path, const Node& node);
    void PrintSorted(Report& report);
    void PrintForNcdu(Session& session, const Repo::StoredSnapshot& stored);

    RepositoryArguments m_repository;
    CLI::Option* m_snapshot = nullptr;
    CLI::Option* m_paths = nullptr;
    bool m_long = false;
    bool m_recursive = false;
    bool m_hasSeveralPaths = false;
    bool m_isReversed = false;
    bool m_isForNcdu = false;
    std::string m_order;
    std::unordered_set<std::string> m_printed; // paths, if the arguments may overlap
    std::vector<SortedEntry> m_entries;        // with an order only
};

CLI::App* LsCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("ls", "List the entries of a snapshot of a repository");
    m_repository.AddTo(*command);
    m_repository.AddSnapshotOptionsTo(*command);
    command->add_flag("-l,--long", m_long, "Print mode, owner, group, size and time, too");
    command->add_flag("--recursive", m_recursive, "List all that is below a PATH");
    command
        ->add_option("--sort", m_order,
                     "List by name, size, time (or mtime), atime, ctime or extension; the least comes first")
        ->type_name("ORDER")
        ->check(CLI::IsMember({"name", "size", "time", "mtime", "atime", "ctime", "extension"}));
    command->add_flag("--reverse", m_isReversed, "Reverse the order");
    command->add_flag("--ncdu", m_isForNcdu, "Print the whole snapshot in the format that ncdu -f reads");
    m_snapshot = AddPathArgument(
        *command, "SNAPSHOT",
        "The snapshot, by first digits of its ID or as latest (default: latest, if the first argument\n"
        "begins with /). With SNAPSHOT:DIRECTORY, the paths are those below the directory");
    m_paths = AddPathArguments(
        *command,
        "The paths of entries; all are listed if there is no path. Of a directory that is named, the\n"
        "entries are listed that are directly in it");
    command->footer(
        "Control characters, invisible characters and unusual blanks in a path are escaped as \\n, \\xHH,\n"
        "\\uHHHH or \\UHHHHHHHH, and a backslash is doubled. A PATH can be given as it is printed, or\n"
        "with the bytes of its names.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent ls --repo /backup/repository latest /etc");
    return command;
}

void LsCommand::Run(Report& report)
{
    std::vector<std::string> paths = PathsOf(m_snapshot);
    const std::vector<std::string> further = PathsOf(m_paths);
    paths.insert(paths.end(), further.begin(), further.end());
    std::string snapshot = "latest";
    if (!paths.empty() && !paths.front().starts_with('/')) {
        snapshot = paths.front();
        paths.erase(paths.begin());
    }
    if (const std::size_t colon = snapshot.find(':'); colon != std::string::npos) {
        const std::string folder = snapshot.substr(colon + 1);
        snapshot.resize(colon);
        if (paths.empty())
            paths.emplace_back();
        for (std::string& path : paths)
            path.insert(0, folder + "/");
    }
    for (std::string& path : paths) {
        if (!path.starts_with('/'))
            path.insert(path.begin(), '/');
        while (path.size() > 1 && path.ends_with('/'))
            path.pop_back();
    }
    m_hasSeveralPaths = paths.size() > 1;
    if (m_isForNcdu && (!m_order.empty() || m_isReversed || !paths.empty() || m_repository.IsJson()))
        throw UsageError("--ncdu excludes --sort, --reverse, --json and paths");
    if (m_isReversed && m_order.empty())
        m_order = "name";

    RepositoryOptions options = m_repository.Get();
    const bool isQuiet = options.isQuiet;
    options.isQuiet = true; // the first line names the snapshot
    Session session(options, report);
    const Repo::StoredSnapshot stored = ChooseSnapshot(session, snapshot, m_repository.GetSnapshotOptions());
    session.LoadIndex();
    if (m_isForNcdu)
        PrintForNcdu(session, stored);
    else
        List(session, stored, paths, isQuiet);
}

// The heading names the paths that were found, since those of the arguments may be escaped.
void LsCommand::List(Session& session, const Repo::StoredSnapshot& stored,
                     const std::vector<std::string>& paths, bool isQuiet)
{
    Report& report = session.GetReport();
    std::vector<FoundEntry> entries;
    std::string filter;
    for (const std::string& path : paths) {
        std::string shown = path;
        try {
            entries.push_back(FindEntry(session.GetRepository(), stored.snapshot.tree, path));
            shown = entries.back().path;
        } catch (const Krt::Exception::YError& error) {
            RaiseIfInterrupted();
            report.EntryFailed(YString(std::string_view(path)), ReasonOfSearch(error));
        }
        filter += (filter.empty() ? "" : " ") + shown;
    }
    if (m_repository.IsJson())
        report.Out() << PrintableJson(SnapshotJson(stored, true)) << "\n";
    else if (!isQuiet)
        report.Out() << Printable(DescribeSnapshot(stored) + " filtered by [" + filter + "]:") << "\n";
    if (paths.empty())
        ListAll(session, stored);
    for (FoundEntry& entry : entries)
        ListFound(session, entry);
    PrintSorted(report);
}

void LsCommand::ListAll(Session& session, const Repo::StoredSnapshot& stored)
{
    Report& report = session.GetReport();
    WalkTree(
        session.GetRepository(), stored.snapshot.tree, "",
        [&](const std::string& path, Node& node) {
            Visit(report, path, node);
            return Step::Into;
        },
        [&](const std::string& path, const Krt::Exception::YError& error) {
            report.EntryFailed(YString(std::string_view(path)), ReasonOf(error));
        });
}

void LsCommand::ListFound(Session& session, FoundEntry& found)
{
    Report& report = session.GetReport();
    const bool isRoot = found.path == "/";
    if (!isRoot)
        Visit(report, found.path, found.node);
    if (!found.node.subtree)
        return;
    WalkTree(
        session.GetRepository(), *found.node.subtree, isRoot ? "" : found.path,
        [&](const std::string& below, Node& node) {
            Visit(report, below, node);
            return m_recursive ? Step::Into : Step::Past;
        },
        [&](const std::string& failed, const Krt::Exception::YError& error) {
            report.EntryFailed(YString(std::string_view(failed)), ReasonOf(error));
        });
}

void LsCommand::Visit(Report& report, const std::string& path, Node& node)
{
    if (m_hasSeveralPaths && !m_printed.insert(path).second)
        return;
    if (m_order.empty()) {
        Print(report, path, node);
        return;
    }
    node.content.reset(); // not printed, and long
    node.attributes.clear();
    node.genericAttributes.clear();
    node.unknown.clear();
    m_entries.push_back({path, std::move(node)});
}

// Entries that are equal in the order keep that of the snapshot.
void LsCommand::PrintSorted(Report& report)
{
    const auto sortBy = [this](const auto& keyOf) {
        std::stable_sort(m_entries.begin(), m_entries.end(),
                         [&](const SortedEntry& a, const SortedEntry& b) { return keyOf(a) < keyOf(b); });
    };
    if (m_order == "size")
        sortBy([](const SortedEntry& entry) { return entry.node.size; });
    else if (m_order == "time" || m_order == "mtime")
        sortBy([](const SortedEntry& entry) { return entry.node.mtime; });
    else if (m_order == "atime")
        sortBy([](const SortedEntry& entry) { return entry.node.atime; });
    else if (m_order == "ctime")
        sortBy([](const SortedEntry& entry) { return entry.node.ctime; });
    else if (m_order == "extension")
        sortBy([](const SortedEntry& entry) { return ExtensionOf(entry.node.name); });
    if (m_isReversed)
        std::reverse(m_entries.begin(), m_entries.end());
    for (const SortedEntry& entry : m_entries)
        Print(report, entry.path, entry.node);
}

// A directory is an array with itself and its entries.
void LsCommand::PrintForNcdu(Session& session, const Repo::StoredSnapshot& stored)
{
    Report& report = session.GetReport();
    Output& out = report.Out();
    out << "[1,2,{\"progname\":\"kbagent\",\"progver\":\"" KBAGENT_VERSION "\",\"timestamp\":";
    out << static_cast<unsigned long long>(std::max<std::int64_t>(0, stored.snapshot.time.seconds));
    out << "},\n[{\"name\":\"/\"}";
    std::size_t depth = 1;
    const auto close = [&](std::size_t to) {
        for (; depth > to; --depth)
            out << "]";
    };
    WalkTree(
        session.GetRepository(), stored.snapshot.tree, "",
        [&](const std::string& path, Node& node) {
            close(static_cast<std::size_t>(std::count(path.begin(), path.end(), '/')));
            const bool isDirectory = node.type == Repo::NodeType::Directory;
            out << ",\n" << (isDirectory ? "[" : "") << PrintableJson(NcduJson(node));
            depth += isDirectory ? 1 : 0;
            return Step::Into;
        },
        [&](const std::string& path, const Krt::Exception::YError& error) {
            report.EntryFailed(YString(std::string_view(path)), ReasonOf(error));
        });
    close(0);
    out << "]\n";
}

void LsCommand::Print(Report& report, const std::string& path, const Node& node)
{
    if (m_repository.IsJson())
        report.Out() << PrintableJson(NodeJson(path, node)) << "\n";
    else
        report.Out() << (m_long ? NodeLine(path, node) : Printable(path)) << "\n";
}

} // namespace

std::unique_ptr<ICommand> MakeLsCommand()
{
    return std::make_unique<LsCommand>();
}

} // namespace Agent
