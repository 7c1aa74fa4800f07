#include "agent/Cli/Command.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Cli/NodeText.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Run/Text.h"

#include <CLI/CLI.hpp>

#include <unordered_set>

namespace Agent {

using Krt::YString;
using Repo::Node;

namespace {

class LsCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    void ListAll(Session& session, const Repo::StoredSnapshot& stored);
    void ListPath(Session& session, const Repo::StoredSnapshot& stored, const std::string& path);
    void Print(Report& report, const std::string& path, const Node& node);

    RepositoryArguments m_repository;
    CLI::Option* m_arguments = nullptr;
    bool m_long = false;
    bool m_recursive = false;
    bool m_hasSeveralPaths = false;
    std::unordered_set<std::string> m_printed; // paths, if the arguments may overlap
};

CLI::App* LsCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("ls", "List the entries of a snapshot of a repository");
    m_repository.AddTo(*command);
    m_repository.AddSnapshotOptionsTo(*command);
    command->add_flag("-l,--long", m_long, "Print mode, owner, group, size and time, too");
    command->add_flag("--recursive", m_recursive, "List all that is below a PATH");
    m_arguments = AddPathArguments(
        *command,
        "The snapshot, by first digits of its ID or as latest, which is also what is taken\n"
        "if there is none; then the paths of entries, which begin with /. All are listed if there\n"
        "is no path. Of a directory that is named, the entries are listed that are directly in it",
        "SNAPSHOT_PATH");
    command->footer(
        "Control characters, invisible characters and unusual blanks in a path are escaped as \\n, \\xHH,\n"
        "\\uHHHH or \\UHHHHHHHH, and a backslash is doubled. A PATH can be given as it is printed, or\n"
        "with the bytes of its names.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent ls --repo /backup/repository latest /etc");
    return command;
}

void LsCommand::Run(Report& report)
{
    std::vector<std::string> paths = PathsOf(m_arguments);
    std::string snapshot = "latest";
    if (!paths.empty() && !paths.front().starts_with('/')) {
        snapshot = paths.front();
        paths.erase(paths.begin());
    }
    std::string filter;
    for (const std::string& path : paths) {
        if (!path.starts_with('/'))
            throw UsageError("A path in a snapshot begins with '/': '" + path + "'");
        filter += (filter.empty() ? "" : " ") + path;
    }
    m_hasSeveralPaths = paths.size() > 1;

    RepositoryOptions options = m_repository.Get();
    const bool isQuiet = options.isQuiet;
    options.isQuiet = true; // the first line names the snapshot
    Session session(options, report);
    const Repo::StoredSnapshot stored = ChooseSnapshot(session, snapshot, m_repository.GetSnapshotOptions());
    session.LoadIndex();
    if (m_repository.IsJson())
        report.Out() << PrintableJson(SnapshotJson(stored, true)) << "\n";
    else if (!isQuiet)
        report.Out() << Printable(DescribeSnapshot(stored) + " filtered by [" + filter + "]:") << "\n";
    if (paths.empty())
        ListAll(session, stored);
    for (const std::string& path : paths)
        ListPath(session, stored, path);
}

void LsCommand::ListAll(Session& session, const Repo::StoredSnapshot& stored)
{
    Report& report = session.GetReport();
    WalkTree(
        session.GetRepository(), stored.snapshot.tree, "",
        [&](const std::string& path, Node& node) {
            Print(report, path, node);
            return Step::Into;
        },
        [&](const std::string& path, const Krt::Exception::YError& error) {
            report.EntryFailed(YString(std::string_view(path)), ReasonOf(error));
        });
}

void LsCommand::ListPath(Session& session, const Repo::StoredSnapshot& stored, const std::string& path)
{
    Report& report = session.GetReport();
    const auto fail = [&](const std::string& failed, const Krt::Exception::YError& error) {
        report.EntryFailed(YString(std::string_view(failed)), ReasonOf(error));
    };
    FoundEntry found;
    try {
        found = FindEntry(session.GetRepository(), stored.snapshot.tree, path);
    } catch (const Krt::Exception::YError& error) {
        RaiseIfInterrupted();
        fail(path, error);
        return;
    }
    const bool isRoot = found.path == "/";
    if (!isRoot)
        Print(report, found.path, found.node);
    if (!found.node.subtree)
        return;
    WalkTree(
        session.GetRepository(), *found.node.subtree, isRoot ? "" : found.path,
        [&](const std::string& below, Node& node) {
            Print(report, below, node);
            return m_recursive ? Step::Into : Step::Past;
        },
        fail);
}

void LsCommand::Print(Report& report, const std::string& path, const Node& node)
{
    if (m_hasSeveralPaths && !m_printed.insert(path).second)
        return;
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
