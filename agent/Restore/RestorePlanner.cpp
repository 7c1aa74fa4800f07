#include "agent/Restore/RestorePlanner.h"

#include "agent/Record/NodeRecord.h"

#include "Krt/Exception/Raise.h"

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;
using Repo::BlobType;
using Repo::Failure;
using Repo::Id;
using Repo::Node;
using Repo::NodeType;

namespace {

constexpr std::size_t MostNotes = 64; // on kinds of attributes

timespec TimeOf(const Repo::Timestamp& time)
{
    timespec result{};
    if (time.seconds == Repo::Timestamp::UnknownSeconds) {
        result.tv_nsec = UTIME_NOW;
        return result;
    }
    result.tv_sec = static_cast<time_t>(time.seconds);
    result.tv_nsec = static_cast<long>(time.nanoseconds);
    return result;
}

} // namespace

std::unique_ptr<RestoreItem> RestorePlanner::Plan(const std::string& path, Node& node)
{
    auto item = std::make_unique<RestoreItem>();
    item->path = path;
    item->location = LocationOf(path);
    NoteWindows(node);
    std::string note;
    const auto metadata = RecordOf(node, path, note);
    if (!note.empty())
        m_state.report.Note(YString(std::string_view(path + ": " + note)));
    item->recorded = RecordedEntryOf(*metadata);
    Attributes& attributes = item->recorded.attributes;
    if (metadata->GetMetadataType() == Backup::File::VAM_UNIX_METADATA_TYPE) {
        attributes.write = TimeOf(node.mtime);
        attributes.access = TimeOf(node.atime);
    }
    if (LeaveOutForeignOwner(attributes))
        NoteForeignOwner();
    std::erase_if(attributes.extended, [this](const auto& attribute) {
        return !m_state.settings.SelectsAttribute(attribute.first.Bytes());
    });
    item->device = node.device;
    item->link = LinkKeyOf(node);
    item->links = node.links;
    item->linkTarget = std::move(node.linkTarget);
    if (node.type == NodeType::File)
        PlanFile(*item, node);
    else if (node.type != NodeType::Directory)
        PlanExisting(*item);
    else if (m_state.settings.deletes && node.subtree)
        item->names = NamesIn(*node.subtree);
    if (node.type == NodeType::Directory && m_state.settings.isDryRun)
        FindExisting(*item);
    return item;
}

std::optional<std::unordered_set<std::string>> RestorePlanner::NamesIn(const Id& tree) const
{
    std::unordered_set<std::string> names;
    try {
        m_state.repository.VisitTree(tree, [&names](Node& node) {
            names.insert(node.name);
            return true;
        });
    } catch (const Repo::RepositoryError&) {
        return std::nullopt;
    }
    return names;
}

void RestorePlanner::NoteWindows(const Node& node)
{
    for (const Repo::RawMember& attribute : node.genericAttributes) {
        if (m_noted.size() < MostNotes && m_noted.insert(attribute.key).second)
            m_state.report.Note(
                YString(std::string_view("Attributes of this kind are not restored: " + attribute.key)));
    }
}

void RestorePlanner::NoteForeignOwner()
{
    if (!std::exchange(m_isOwnerNoted, true))
        m_state.report.Note("Owners are not restored by an ordinary user");
}

void RestorePlanner::PlanFile(RestoreItem& item, Node& node)
{
    try {
        REPOSITORY_RAISE_UNLESS(item.recorded.type == S_IFREG, Failure::Damaged,
                                "Its record is not that of a file");
        REPOSITORY_RAISE_UNLESS(node.content, Failure::Damaged, "The file has no list of blobs");
        item.content = std::move(*node.content);
        item.recorded.size = node.size;
        const bool isComplete = IsComplete(item);
        PlanExisting(item);
        const bool isLater = item.link && m_state.links.IsPlanned(*item.link); // becomes a hard link
        if (isComplete && !isLater && item.action == RestoreItem::Action::Update &&
            S_ISREG(item.existing.st_mode))
            CompareContent(m_state.repository.GetIndex(), *m_state.existing.ParentOf(item.location), item);
    } catch (const Repo::RepositoryError&) {
        item.failure = std::current_exception();
    }
}

// Returns true if the index has all blobs of the file. Raises Damaged if they have another size than the
// file.
bool RestorePlanner::IsComplete(const RestoreItem& item) const
{
    std::uint64_t size = 0;
    for (const Id& id : item.content) {
        const auto found = m_state.repository.GetIndex().Find({BlobType::Data, id});
        if (!found)
            return false;
        size += found->blob.plainLength;
    }
    REPOSITORY_RAISE_UNLESS(size == item.recorded.size, Failure::Damaged,
                            "The size of the file is " << item.recorded.size << ", but its blobs have "
                                                       << static_cast<unsigned long long>(size) << " bytes");
    return true;
}

// Returns false if nothing is known to exist.
bool RestorePlanner::FindExisting(RestoreItem& item)
{
    const YDirectory* const parent = m_state.existing.ParentOf(item.location);
    try {
        item.isUnseen = parent == nullptr;
        return parent != nullptr && parent->StatIfPresent(item.location.back(), item.existing);
    } catch (const Krt::Exception::YError&) {
        item.isUnseen = true;
        return false;
    }
}

void RestorePlanner::PlanExisting(RestoreItem& item)
{
    if (FindExisting(item) && !S_ISDIR(item.existing.st_mode))
        ChooseAction(m_state.settings.overwrite, item);
}

} // namespace Agent
