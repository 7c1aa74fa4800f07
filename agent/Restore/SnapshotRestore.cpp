#include "agent/Restore/SnapshotRestore.h"

#include "agent/Restore/RestoreVerification.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include <utility>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;
using Repo::BlobType;
using Repo::Id;
using Repo::Node;
using Repo::NodeType;

namespace {

constexpr std::size_t BatchMemory = 8 << 20; // of what describes the entries
constexpr std::size_t ItemMemory = 1024;     // of an entry without the parts that MemoryOf counts, about

std::size_t MemoryOf(const RestoreItem& item)
{
    constexpr std::size_t NameMemory = 64; // about
    std::size_t memory = ItemMemory + item.path.size() * 3 + item.content.size() * sizeof(Id) +
                         item.linkTarget.size() + item.location.size() * sizeof(YString);
    for (const auto& [name, value] : item.recorded.attributes.extended)
        memory += ItemMemory + name.Bytes().size() + value.Size();
    if (item.names) {
        for (const std::string& name : *item.names)
            memory += NameMemory + name.size();
    }
    return memory;
}

} // namespace

struct SnapshotRestore::Batch
{
    std::vector<std::unique_ptr<RestoreItem>> items;
    std::vector<Id> ids; // to be loaded
    std::uint64_t bytes = 0;
    std::size_t memory = 0;
};

SnapshotRestore::SnapshotRestore(const Repo::Repository& repository, std::optional<YDirectory> target,
                                 RestoreSettings settings, Report& report)
    : m_state(repository, std::move(target), std::move(settings), report), m_planner(m_state),
      m_writer(m_state), m_loader(repository, m_state.settings.loaders, LoadedBytes),
      m_collected(std::make_unique<Batch>())
{}

SnapshotRestore::~SnapshotRestore() = default;

void SnapshotRestore::Run(const Id& tree)
{
    if (m_state.settings.deletes) {
        if (const auto names = m_planner.NamesIn(tree))
            m_state.cleaner.Clean(m_state.existing.GetRoot(), {}, "", *names);
    }
    WalkTree(
        m_state.repository, tree, "",
        [this](const std::string& path, Node& node) { return Visit(path, node); },
        [this](const std::string& path, const Krt::Exception::YError& error) {
            m_state.report.EntryFailed(YString(std::string_view(path)), ReasonOf(error));
        });
    Drain();
    m_pending.clear();
    if (m_state.progress.HasFoundNothing() && !m_state.settings.includes.IsEmpty())
        m_state.report.Note("No entry matches the patterns, so nothing is restored");
    if (!m_state.maker)
        return;
    m_state.maker->GetTree().Finish();
    if (m_state.settings.verifies)
        VerifyRestored(m_state, tree);
    m_state.maker->GetTree().Sync();
}

Step SnapshotRestore::Visit(const std::string& path, Node& node)
{
    while (!m_pending.empty() && !path.starts_with(m_pending.back()->path + "/"))
        m_pending.pop_back();
    const bool isDirectory = node.type == NodeType::Directory;
    const Selection selection = m_state.settings.Select(path, isDirectory);
    if (!selection.isSelected && !selection.mayHaveSelected)
        return Step::Past;
    if (node.type == NodeType::Socket) {
        m_state.report.Note(YString(std::string_view(path + ": A socket is not restored")));
        return Step::Past;
    }
    std::unique_ptr<RestoreItem> item;
    try {
        REPOSITORY_RAISE_UNLESS(node.type != NodeType::Unknown, Repo::Failure::Damaged,
                                "The type of the entry is not known: " << node.typeText.c_str());
        item = m_planner.Plan(path, node);
    } catch (const Krt::Exception::YError& error) {
        RaiseIfInterrupted();
        m_state.report.EntryFailed(YString(std::string_view(path)), ReasonOf(error));
        if (m_state.settings.verifies)
            m_state.unverified.insert(path);
        return isDirectory ? Step::Into : Step::Past;
    }
    if (!selection.isSelected) {
        item->isPending = true;
        if (item->names)
            m_state.cleaner.Clean(m_state.existing.GetRoot(), item->location, path, *item->names);
        m_pending.push_back(std::move(item));
        return Step::Into;
    }
    AddPending();
    Add(std::move(item));
    return selection.mayHaveSelected ? Step::Into : Step::Past;
}

// Adds the directories above an entry that are restored because of it. They stay known as the way to others.
void SnapshotRestore::AddPending()
{
    for (auto& pending : m_pending) {
        if (!pending->isPending)
            continue;
        auto copy = std::make_unique<RestoreItem>();
        copy->path = pending->path;
        copy->location = pending->location;
        copy->recorded = pending->recorded;
        copy->existing = pending->existing;
        pending->isPending = false;
        Add(std::move(copy));
    }
}

void SnapshotRestore::Add(std::unique_ptr<RestoreItem> item)
{
    m_state.progress.CountFound(*item);
    const bool isFirst = !item->link || m_state.links.Plan(*item->link);
    if (isFirst && item->link && m_state.links.IsPlannedDifferently(*item->link))
        m_state.report.Note(YString(std::string_view(item->path + OtherContentNote)));
    FileBlobs alone(m_state.repository, m_loader);
    if (!m_state.maker) {
        m_writer.Write(*item, alone);
        return;
    }
    std::uint64_t bytes = 0;
    const std::vector<Id> ids = isFirst ? WantedBlobs(*item, bytes) : std::vector<Id>();
    if (bytes > LoadedBytes) {
        Drain();
        alone.Begin(item->content, item->isUpToDate);
        m_writer.Write(*item, alone);
        return;
    }
    Batch& batch = *m_collected;
    batch.bytes += bytes;
    batch.memory += MemoryOf(*item);
    batch.ids.insert(batch.ids.end(), ids.begin(), ids.end());
    batch.items.push_back(std::move(item));
    if (batch.bytes < LoadedBytes && batch.memory < BatchMemory)
        return;
    StartCollected();
    if (m_loading.size() > m_loader.PartsAtOnce())
        WriteOldest();
}

// The blobs that have to be loaded for the entry, and their size.
std::vector<Id> SnapshotRestore::WantedBlobs(const RestoreItem& item, std::uint64_t& bytes) const
{
    using Action = RestoreItem::Action;
    std::vector<Id> ids;
    if (item.failure || (item.action != Action::Restore && item.action != Action::Update))
        return ids;
    for (std::size_t i = 0; i < item.content.size(); ++i) {
        if (!item.isUpToDate.empty() && item.isUpToDate[i])
            continue;
        const auto found = m_state.repository.GetIndex().Find({BlobType::Data, item.content[i]});
        bytes += found ? found->blob.plainLength : 0;
        ids.push_back(item.content[i]);
    }
    return ids;
}

void SnapshotRestore::StartCollected()
{
    if (m_collected->items.empty())
        return;
    m_loader.Start(m_collected->ids);
    m_loading.push_back(std::exchange(m_collected, std::make_unique<Batch>()));
}

void SnapshotRestore::WriteOldest()
{
    const std::unique_ptr<Batch> written = std::move(m_loading.front());
    m_loading.pop_front();
    FileBlobs blobs(m_state.repository, m_loader, m_loader.Take());
    for (const auto& item : written->items) {
        RaiseIfInterrupted();
        m_writer.Write(*item, blobs);
    }
}

void SnapshotRestore::Drain()
{
    StartCollected();
    while (!m_loading.empty())
        WriteOldest();
}

} // namespace Agent
