#include "agent/Cli/Command.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Cli/TextTable.h"
#include "agent/Record/NodeRecord.h"
#include "agent/Repository/Tree.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <algorithm>

namespace Agent {

using Krt::YString;
using Repo::BlobHandle;
using Repo::BlobType;
using Repo::Node;

namespace {

class ShowCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    RepositoryArguments m_repository;
    std::string m_place;
};

CLI::App* ShowCommand::Register(CLI::App& program)
{
    CLI::App* const command =
        program.add_subcommand("show", "Print all that a repository has on an entry of a snapshot");
    m_repository.AddTo(*command);
    m_repository.AddSnapshotOptionsTo(*command);
    command
        ->add_option(
            "SNAPSHOT[:PATH]", m_place,
            "The snapshot, by first digits of its ID or as latest, and the path of the entry; without\n"
            "a path, the rules of the job that the snapshot was made by, as a job file")
        ->required();
    command->footer(
        "The record of the entry is printed, which is what convert and rename read; then the node, which is\n"
        "what the repository has; then the blobs of its content, with their sizes in bytes before and after\n"
        "packing, and their packs. With --json, the record alone is printed.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent show --repo /backup/repository latest:/etc/hosts");
    return command;
}

std::string BlobTable(const Repo::Repository& repository, const Node& node)
{
    std::vector<BlobHandle> handles;
    if (node.subtree)
        handles.push_back({BlobType::Tree, *node.subtree});
    if (node.content) {
        for (const Repo::Id& id : *node.content)
            handles.push_back({BlobType::Data, id});
    }
    std::vector<TextRow> rows;
    for (const BlobHandle& handle : handles) {
        const char* const type = handle.type == BlobType::Tree ? "tree" : "data";
        const Repo::Index& index = repository.GetIndex();
        const auto copies = index.FindAll(handle);
        if (copies.empty())
            rows.push_back({handle.id.ToHex(), type, "-", "-", "missing", "-"});
        for (const Repo::IndexedBlob& copy : copies)
            rows.push_back({handle.id.ToHex(), type, std::to_string(copy.blob.plainLength),
                            std::to_string(copy.blob.length), index.GetPacks()[copy.pack].id.ToHex(),
                            std::to_string(copy.blob.offset)});
    }
    return TableText({{"BLOB"},
                      {"TYPE"},
                      {.title = "SIZE", .alignsRight = true},
                      {.title = "STORED", .alignsRight = true},
                      {"PACK"},
                      {.title = "OFFSET", .alignsRight = true}},
                     std::move(rows), 0);
}

// A job file with the rules that a backup noted in the snapshot, among patterns of --exclude; empty without
// rules.
std::string JobOf(const Repo::Snapshot& snapshot)
{
    std::string includes;
    std::string excludes;
    for (const std::string& text : snapshot.excludes) {
        const std::size_t blank = text.find(' ');
        const std::string word = text.substr(0, blank);
        if ((word == "include" || word == "exclude") && text.compare(word.size(), 2, " {") == 0) {
            std::string& rules = word == "include" ? includes : excludes;
            rules += (rules.empty() ? "" : ",") + text.substr(std::min(blank + 1, text.size()));
        }
    }
    if (includes.empty() && excludes.empty())
        return "";
    return "{\"includes\":[" + includes + "],\"excludes\":[" + excludes + "]}";
}

void ShowCommand::Run(Report& report)
{
    const std::size_t colon = std::min(m_place.find(':'), m_place.size());
    if (colon < m_place.size() && m_place.compare(colon + 1, 1, "/") != 0)
        throw UsageError("show takes a snapshot and a path, as in latest:/etc/hosts");
    Session session(m_repository.Get(), report);
    const Repo::StoredSnapshot stored =
        ChooseSnapshot(session, m_place.substr(0, colon), m_repository.GetSnapshotOptions());
    if (colon == m_place.size()) {
        const std::string job = JobOf(stored.snapshot);
        KRT_RAISE_UNLESS(!job.empty(), Krt::ErrorCode::InvalidArgument,
                         "The snapshot " << ShortId(stored.id).c_str()
                                         << " has no rules of a job; 'kbagent cat snapshot "
                                         << ShortId(stored.id).c_str() << "' prints what it has");
        report.Out() << PrintableJson(m_repository.IsJson() ? job : IndentJson(job)) << "\n";
        return;
    }
    session.LoadIndex();
    const FoundEntry found =
        FindEntry(session.GetRepository(), stored.snapshot.tree, m_place.substr(colon + 1));
    std::string note;
    std::string record;
    RecordOf(found.node, found.path, note)->StringifyTo(record);
    if (!note.empty())
        report.EntryFailed(YString(std::string_view(found.path)), YString(std::string_view(note)));
    if (m_repository.IsJson()) {
        report.Out() << PrintableJson(record) << "\n";
        return;
    }
    std::string node;
    if (found.path != "/")
        Repo::AppendNode(found.node, node);
    report.Out() << "record of " << Printable(found.path) << " in " << Printable(DescribeSnapshot(stored))
                 << ":\n"
                 << PrintableJson(IndentJson(record)) << "\n";
    if (!node.empty())
        report.Out() << "\nnode:\n" << PrintableJson(IndentJson(node)) << "\n";
    report.Out() << "\nblobs:\n" << BlobTable(session.GetRepository(), found.node);
}

} // namespace

std::unique_ptr<ICommand> MakeShowCommand()
{
    return std::make_unique<ShowCommand>();
}

} // namespace Agent
