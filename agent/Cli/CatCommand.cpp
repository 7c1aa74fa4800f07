#include "agent/Cli/Command.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Cli/RepositoryArguments.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <optional>

namespace Agent {

using Krt::YString;
using Repo::BlobHandle;
using Repo::BlobType;
using Repo::FileKind;
using Repo::Id;

namespace {

class CatCommand : public ICommand
{
public:
    CLI::App* Register(CLI::App& program) override;
    void Run(Report& report) override;

private:
    bool PrintFile(Session& session);
    void PrintBlob(Session& session, bool isTree);
    std::optional<BlobHandle> FindBlob(const Repo::Index& index, std::optional<BlobType> type) const;
    BlobHandle FindTree(Session& session);
    void PrintPack(Session& session, const Id& pack);
    static void PrintJson(Report& report, const std::string& json);

    RepositoryArguments m_repository;
    std::string m_kind;
    std::string m_id;
};

CLI::App* CatCommand::Register(CLI::App& program)
{
    CLI::App* const command = program.add_subcommand("cat", "Print an object of a repository");
    m_repository.AddTo(*command);
    m_repository.AddSnapshotOptionsTo(*command);
    command->add_option("KIND", m_kind, "config, masterkey, key, index, snapshot, lock, tree, blob or pack")
        ->required()
        ->check(CLI::IsMember(
            {"config", "masterkey", "key", "index", "snapshot", "lock", "tree", "blob", "pack"}));
    command->add_option("ID", m_id,
                        "First digits of the object's ID; for a snapshot also latest; for a tree also\n"
                        "SNAPSHOT or SNAPSHOT:PATH, for that of a directory");
    command->footer(
        "A blob and a pack are printed as they are, and everything else is JSON text. A key is printed as "
        "it\n"
        "is stored, sealed with a password. The master key decrypts the whole repository without a\n"
        "password.\n\n" +
        std::string(RepositoryHelp) + "Example: kbagent cat --repo /backup/repository snapshot latest");
    return command;
}

void CatCommand::Run(Report& report)
{
    const bool takesId = m_kind != "config" && m_kind != "masterkey";
    if (takesId == m_id.empty())
        throw UsageError("cat " + m_kind + (takesId ? " needs an ID" : " takes no ID"));
    Session session(m_repository.Get(), report);
    if (!PrintFile(session))
        PrintBlob(session, m_kind == "tree");
}

bool CatCommand::PrintFile(Session& session)
{
    const Repo::Repository& repository = session.GetRepository();
    Report& report = session.GetReport();
    if (m_kind == "config") {
        PrintJson(report, repository.LoadText({FileKind::Config, {}}));
    } else if (m_kind == "masterkey") {
        const Repo::Secret text = Repo::MasterKeyText(repository.GetKey());
        std::string indented = IndentJson(Repo::AsText(text.View()));
        report.Out() << indented << "\n";
        Repo::Wipe({reinterpret_cast<unsigned char*>(indented.data()), indented.size()});
    } else if (m_kind == "key") {
        Repo::Bytes content;
        repository.LoadStored({FileKind::Key, FindFile(repository, FileKind::Key, m_id)}, content);
        PrintJson(report, std::string(Repo::AsText(content)));
    } else if (m_kind == "snapshot") {
        const Id id = ChooseSnapshot(session, m_id, m_repository.GetSnapshotOptions()).id;
        PrintJson(report, repository.LoadText({FileKind::Snapshot, id}));
    } else if (m_kind == "index" || m_kind == "lock") {
        const FileKind kind = m_kind == "index" ? FileKind::Index : FileKind::Lock;
        PrintJson(report, repository.LoadText({kind, FindFile(repository, kind, m_id)}));
    } else if (m_kind == "pack") {
        PrintPack(session, FindFile(repository, FileKind::Pack, m_id));
    } else {
        return false;
    }
    return true;
}

void CatCommand::PrintBlob(Session& session, bool isTree)
{
    const Repo::Repository& repository = session.GetRepository();
    BlobHandle handle;
    if (isTree) {
        handle = FindTree(session);
    } else {
        session.LoadIndex();
        const std::optional<BlobHandle> found = FindBlob(repository.GetIndex(), {});
        KRT_RAISE_UNLESS(found, Krt::ErrorCode::InvalidArgument, "No blob begins with " << m_id.c_str());
        handle = *found;
    }
    Repo::Bytes content;
    repository.LoadBlob(handle, content);
    if (isTree)
        session.GetReport().Out() << PrintableJson(Repo::AsText(content));
    else
        session.GetReport().Out() << Repo::AsText(content);
}

// The blob whose first digits these are, of this type if there is one; nothing if there is none.
std::optional<BlobHandle> CatCommand::FindBlob(const Repo::Index& index, std::optional<BlobType> type) const
{
    const std::string digits = LowerDigits(m_id);
    std::optional<BlobHandle> found;
    for (std::uint32_t i = 0; i < index.CountBlobs(); ++i) {
        const BlobHandle each = index.At(i).blob.handle;
        if ((type && each.type != *type) || !each.id.ToHex().starts_with(digits) || (found && *found == each))
            continue;
        KRT_RAISE_UNLESS(!found, Krt::ErrorCode::InvalidArgument,
                         "More than one blob begins with " << m_id.c_str());
        found = each;
    }
    return found;
}

// Digits may be those of a tree, of a snapshot or of both. The index is loaded after a snapshot is chosen.
BlobHandle CatCommand::FindTree(Session& session)
{
    const Repo::Repository& repository = session.GetRepository();
    const std::size_t colon = m_id.find(':');
    const bool isDigits = colon == std::string::npos && m_id != "latest";
    const std::vector<Id> snapshots = isDigits ? repository.ListIds(FileKind::Snapshot) : std::vector<Id>();
    const auto hasDigits = [digits = LowerDigits(m_id)](const Id& id) {
        return id.ToHex().starts_with(digits);
    };
    const bool isSnapshot = !isDigits || std::any_of(snapshots.begin(), snapshots.end(), hasDigits);
    std::optional<Repo::StoredSnapshot> stored;
    if (isSnapshot)
        stored = ChooseSnapshot(session, m_id.substr(0, colon), m_repository.GetSnapshotOptions());
    session.LoadIndex();
    if (isDigits) {
        const std::optional<BlobHandle> tree = FindBlob(repository.GetIndex(), BlobType::Tree);
        KRT_RAISE_UNLESS(tree || stored, Krt::ErrorCode::InvalidArgument,
                         "No tree and no snapshot begins with " << m_id.c_str());
        KRT_RAISE_UNLESS(!tree || !stored, Krt::ErrorCode::InvalidArgument,
                         "Both a tree and a snapshot begin with " << m_id.c_str());
        if (tree)
            return *tree;
    }
    const std::string path = colon == std::string::npos ? "/" : m_id.substr(colon + 1);
    const FoundEntry found = FindEntry(repository, stored->snapshot.tree, path);
    KRT_RAISE_UNLESS(found.node.subtree, Krt::ErrorCode::InvalidArgument,
                     YString(std::string_view(path)) << " is not a directory");
    return {BlobType::Tree, *found.node.subtree};
}

void CatCommand::PrintPack(Session& session, const Id& pack)
{
    constexpr std::uint64_t StepSize = 1 << 20;
    Repo::IBackend& backend = session.GetRepository().GetBackend();
    const Repo::FileName file{FileKind::Pack, pack};
    const std::uint64_t size = backend.Size(file);
    Repo::Bytes content;
    for (std::uint64_t at = 0; at < size; at += StepSize) {
        backend.Load(file, at, std::min(StepSize, size - at), content);
        session.GetReport().Out() << Repo::AsText(content);
    }
}

void CatCommand::PrintJson(Report& report, const std::string& json)
{
    report.Out() << PrintableJson(IndentJson(json)) << "\n";
}

} // namespace

std::unique_ptr<ICommand> MakeCatCommand()
{
    return std::make_unique<CatCommand>();
}

} // namespace Agent
