#include "agent/Restore/SnapshotRestore.h"

#include "agent/Access/Workers.h"
#include "agent/Record/NodeRecord.h"
#include "agent/Restore/SparseWriter.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

#include <algorithm>
#include <cstdio>

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;
using Repo::BlobType;
using Repo::Failure;
using Repo::Id;
using Repo::Node;
using Repo::NodeType;

namespace {

constexpr std::uint64_t BatchBytes = 16 << 20; // of blobs
constexpr std::size_t BatchMemory = 8 << 20;   // of what describes the entries
constexpr std::size_t ItemMemory = 1024;       // about
constexpr std::chrono::milliseconds StatusInterval{1000};

YString Text(std::string_view text)
{
    return YString(text);
}

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

bool IsEarlier(const timespec& a, const timespec& b)
{
    return std::pair(a.tv_sec, a.tv_nsec) < std::pair(b.tv_sec, b.tv_nsec);
}

bool IsSame(const timespec& a, const timespec& b)
{
    return !IsEarlier(a, b) && !IsEarlier(b, a);
}

TargetLocation LocationOf(std::string_view path)
{
    TargetLocation location;
    for (std::size_t begin = 1; begin < path.size();) {
        const std::size_t end = std::min(path.find('/', begin), path.size());
        location.emplace_back(path.substr(begin, end - begin));
        begin = end + 1;
    }
    return location;
}

bool IsBelow(std::string_view path, std::string_view root)
{
    return root == "/" ||
           (path.starts_with(root) && (path.size() == root.size() || path[root.size()] == '/'));
}

// As restic prints sizes: "999 B", "1.500 KiB".
std::string SizeText(unsigned long long bytes)
{
    constexpr const char* Units[] = {"KiB", "MiB", "GiB", "TiB"};
    if (bytes < 1024)
        return std::to_string(bytes) + " B";
    double value = static_cast<double>(bytes) / 1024;
    std::size_t unit = 0;
    for (; value >= 1024 && unit + 1 < std::size(Units); ++unit)
        value /= 1024;
    char text[64];
    std::snprintf(text, sizeof(text), "%.3f %s", value, Units[unit]);
    return text;
}

std::string DurationText(unsigned long long seconds)
{
    char text[64];
    if (seconds >= 3600)
        std::snprintf(text, sizeof(text), "%llu:%02llu:%02llu", seconds / 3600, seconds / 60 % 60,
                      seconds % 60);
    else
        std::snprintf(text, sizeof(text), "%llu:%02llu", seconds / 60, seconds % 60);
    return text;
}

} // namespace

// An entry with what is known about it before it is created.
struct SnapshotRestore::Item
{
    enum class Action
    {
        Restore,
        Update,        // a file that exists has other content
        KeepUnchanged, // the content of the file that exists is equal
        Skip           // what exists is kept
    };

    std::string path;
    TargetLocation location;
    RecordedEntry recorded;
    std::string linkTarget;
    unsigned long long device = 0;
    std::vector<Id> content;
    std::vector<bool> isUpToDate; // parts of the content that the file that exists has, too; or empty
    std::optional<LinkKey> link;
    std::uint64_t links = 0; // names of the file
    Action action = Action::Restore;
    struct stat existing
    {};                         // of the file that exists
    std::exception_ptr failure; // why the entry can't be restored
    bool isPending = false;     // a directory that is restored only for what is below it
    std::optional<std::unordered_set<std::string>> names; // of a directory that is cleaned
};

struct SnapshotRestore::Batch
{
    std::vector<std::unique_ptr<Item>> items;
    std::vector<Id> ids; // to be loaded
    std::uint64_t bytes = 0;
    std::size_t memory = 0;
    std::future<LoadedBlobs> blobs;
};

// The blobs of the file that is being written.
class SnapshotRestore::Content
{
public:
    Content(const Repo::Repository& repository, BlobLoader& loader, LoadedBlobs blobs)
        : m_repository(repository), m_loader(loader), m_blobs(std::move(blobs))
    {}

    // From now on the blobs come in windows.
    void Begin(const std::vector<Id>& ids, const std::vector<bool>& isUpToDate)
    {
        m_ids = &ids;
        m_isUpToDate = &isUpToDate;
        m_windowEnd = 0;
        m_nextEnd = 0;
        StartNext();
    }

    // The content of blob number `i` of the file, valid until the next call. Raises why it can't be loaded.
    const Repo::Bytes& Get(std::size_t i, const Id& id)
    {
        while (m_ids != nullptr && i >= m_windowEnd) {
            m_windowEnd = m_nextEnd;
            m_blobs = m_next.get();
            if (m_windowEnd < m_ids->size())
                StartNext();
        }
        const auto found = m_blobs.find(id);
        if (found == m_blobs.end()) {
            m_repository.LoadBlob({BlobType::Data, id}, m_single);
            return m_single;
        }
        if (found->second.failure)
            std::rethrow_exception(found->second.failure);
        return *found->second.content;
    }

private:
    void StartNext()
    {
        std::vector<Id> window;
        std::unordered_set<Id, Repo::IdHash> known;
        for (std::uint64_t bytes = 0; m_nextEnd < m_ids->size() && bytes < BatchBytes; ++m_nextEnd) {
            const Id& id = (*m_ids)[m_nextEnd];
            if ((!m_isUpToDate->empty() && (*m_isUpToDate)[m_nextEnd]) || !known.insert(id).second)
                continue;
            window.push_back(id);
            if (const auto place = m_repository.GetIndex().Find({BlobType::Data, id}))
                bytes += place->blob.plainLength;
        }
        m_next = m_loader.Start(std::move(window));
    }

    const Repo::Repository& m_repository;
    BlobLoader& m_loader;
    LoadedBlobs m_blobs;
    Repo::Bytes m_single;
    const std::vector<Id>* m_ids = nullptr;
    const std::vector<bool>* m_isUpToDate = nullptr;
    std::size_t m_windowEnd = 0; // of m_blobs
    std::size_t m_nextEnd = 0;   // of m_next
    std::future<LoadedBlobs> m_next;
};

SnapshotRestore::SnapshotRestore(const Repo::Repository& repository, std::optional<YDirectory> target,
                                 RestoreSettings settings, Report& report)
    : m_repository(repository), m_settings(std::move(settings)), m_report(report),
      m_cleaner([this](const std::string& path, bool isDirectory) { return Select(path, isDirectory); },
                [this](const std::string& path) {
                    ++m_totals.deleted;
                    Print("deleted", path, std::nullopt);
                },
                m_settings.isDryRun, report),
      m_loader(repository, WorkerCount(), BatchBytes), m_collected(std::make_unique<Batch>()),
      m_start(std::chrono::steady_clock::now()), m_shown(m_start)
{
    if (m_settings.isDryRun)
        m_dryTarget = std::move(target);
    else
        m_maker = std::make_unique<EntryMaker>(std::move(target.value()), report);
}

SnapshotRestore::~SnapshotRestore() = default;

void SnapshotRestore::Run(const Id& tree)
{
    if (m_settings.deletes) {
        if (const auto names = NamesOfTree(tree))
            CleanDirectory({}, "", *names);
    }
    WalkTree(
        m_repository, tree, "", [this](const std::string& path, Node& node) { return Visit(path, node); },
        [this](const std::string& path, const Krt::Exception::YError& error) {
            m_report.EntryFailed(Text(path), ReasonOf(error));
        });
    Drain();
    m_pending.clear();
    if (m_totals.files == 0 && !m_settings.includes.IsEmpty())
        m_report.Note("No entry matches the patterns, so nothing is restored");
    if (m_maker) {
        m_maker->GetTree().Finish();
        m_maker->GetTree().Sync();
    }
    if (m_settings.verifies && m_maker)
        Verify(tree);
}

Selection SnapshotRestore::Select(const std::string& path, bool isDirectory) const
{
    Selection selection{true, isDirectory};
    if (!m_settings.paths.empty()) {
        const auto& paths = m_settings.paths;
        selection.isSelected = std::any_of(paths.begin(), paths.end(),
                                           [&](const std::string& root) { return IsBelow(path, root); });
        selection.mayHaveSelected =
            isDirectory && (selection.isSelected ||
                            std::any_of(paths.begin(), paths.end(),
                                        [&](const std::string& root) { return IsBelow(root, path); }));
    }
    if (!m_settings.includes.IsEmpty()) {
        const Patterns::Result result = m_settings.includes.Match(path);
        selection.isSelected = selection.isSelected && result.matches;
        selection.mayHaveSelected = selection.mayHaveSelected && result.mayMatchBelow;
    }
    if (!m_settings.excludes.IsEmpty() && m_settings.excludes.Match(path).matches)
        selection = {};
    return selection;
}

Step SnapshotRestore::Visit(const std::string& path, Node& node)
{
    while (!m_pending.empty() && !path.starts_with(m_pending.back()->path + "/"))
        m_pending.pop_back();
    const bool isDirectory = node.type == NodeType::Directory;
    const Selection selection = Select(path, isDirectory);
    if (!selection.isSelected && !selection.mayHaveSelected)
        return Step::Past;
    if (node.type == NodeType::Socket) {
        m_report.Note(Text(path + ": A socket is not restored"));
        return Step::Past;
    }
    std::unique_ptr<Item> item;
    try {
        REPOSITORY_RAISE_UNLESS(node.type != NodeType::Unknown, Failure::Damaged,
                                "The type of the entry is not known: " << node.typeText.c_str());
        item = ItemOf(path, node);
    } catch (const Krt::Exception::YError& error) {
        RaiseIfInterrupted();
        m_report.EntryFailed(Text(path), ReasonOf(error));
        return isDirectory ? Step::Into : Step::Past;
    }
    if (!selection.isSelected) {
        item->isPending = true;
        if (item->names && Root() != nullptr)
            CleanDirectory(item->location, path, *item->names);
        m_pending.push_back(std::move(item));
        return Step::Into;
    }
    for (auto& pending : m_pending) {
        if (pending->isPending) {
            auto copy = std::make_unique<Item>();
            copy->path = pending->path;
            copy->location = pending->location;
            copy->recorded = pending->recorded;
            pending->isPending = false;
            Add(std::move(copy));
        }
    }
    Add(std::move(item));
    return selection.mayHaveSelected ? Step::Into : Step::Past;
}

std::unique_ptr<SnapshotRestore::Item> SnapshotRestore::ItemOf(const std::string& path, Node& node)
{
    auto item = std::make_unique<Item>();
    item->path = path;
    item->location = LocationOf(path);
    NoteWindows(node);
    std::string note;
    const auto metadata = RecordOf(node, path, note);
    if (!note.empty())
        m_report.Note(Text(path + ": " + note));
    item->recorded = RecordedEntryOf(*metadata);
    if (metadata->GetMetadataType() == Backup::File::VAM_UNIX_METADATA_TYPE) {
        item->recorded.attributes.write = TimeOf(node.mtime);
        item->recorded.attributes.access = TimeOf(node.atime);
    }
    if (LeaveOutForeignOwner(item->recorded.attributes) && !m_isOwnerNoted) {
        m_isOwnerNoted = true;
        m_report.Note("Owners are not restored by an ordinary user");
    }
    ChooseAttributes(item->recorded.attributes.extended);
    item->device = node.device;
    item->link = LinkKeyOf(node);
    item->links = node.links;
    item->linkTarget = std::move(node.linkTarget);
    if (node.type == NodeType::File)
        PlanFile(*item, node);
    else if (node.type != NodeType::Directory)
        PlanExisting(*item);
    else if (m_settings.deletes && node.subtree)
        item->names = NamesOfTree(*node.subtree);
    return item;
}

void SnapshotRestore::NoteWindows(const Node& node)
{
    for (const Repo::RawMember& attribute : node.genericAttributes) {
        if (m_noted.size() < 64 && m_noted.insert(attribute.key).second)
            m_report.Note(Text("Attributes of this kind are not restored: " + attribute.key));
    }
}

void SnapshotRestore::ChooseAttributes(Krt::File::ExtendedAttributeMap& attributes) const
{
    std::erase_if(attributes, [this](const auto& attribute) {
        const std::string path = "/" + attribute.first.Bytes();
        return (!m_settings.attributes.IsEmpty() && !m_settings.attributes.Match(path).matches) ||
               m_settings.excludedAttributes.Match(path).matches;
    });
}

void SnapshotRestore::PlanFile(Item& item, Node& node)
{
    try {
        REPOSITORY_RAISE_UNLESS(item.recorded.type == S_IFREG, Failure::Damaged,
                                "Its record is not that of a file");
        REPOSITORY_RAISE_UNLESS(node.content, Failure::Damaged, "The file has no list of blobs");
        item.content = std::move(*node.content);
        item.recorded.size = node.size;
        bool isComplete = true;
        std::uint64_t size = 0;
        for (const Id& id : item.content) {
            const auto place = m_repository.GetIndex().Find({BlobType::Data, id});
            isComplete = isComplete && place.has_value();
            size += place ? place->blob.plainLength : 0;
        }
        REPOSITORY_RAISE_UNLESS(!isComplete || size == node.size, Failure::Damaged,
                                "The size of the file is "
                                    << static_cast<unsigned long long>(node.size) << ", but its blobs have "
                                    << static_cast<unsigned long long>(size) << " bytes");
        PlanExisting(item);
        const bool isLater = item.link && m_planned.contains(*item.link); // becomes a hard link
        if (isComplete && !isLater && item.action == Item::Action::Update && S_ISREG(item.existing.st_mode))
            CompareContent(item, *ExistingParent(item.location));
    } catch (const Repo::RepositoryError&) {
        item.failure = std::current_exception();
    }
}

void SnapshotRestore::PlanExisting(Item& item)
{
    const YDirectory* const parent = ExistingParent(item.location);
    try {
        if (parent == nullptr || !parent->StatIfPresent(item.location.back(), item.existing))
            return;
    } catch (const Krt::Exception::YError&) {
        return; // the same call fails when the entry is created
    }
    const timespec& written = item.recorded.attributes.write;
    const timespec& existing = Krt::File::WriteTime(item.existing);
    if (S_ISDIR(item.existing.st_mode))
        return;
    const bool isKept = m_settings.overwrite == Overwrite::Never ||
                        (m_settings.overwrite == Overwrite::IfNewer && !IsEarlier(existing, written));
    item.action = isKept ? Item::Action::Skip : Item::Action::Update;
    if (item.action == Item::Action::Update && m_settings.overwrite == Overwrite::IfChanged &&
        S_ISREG(item.existing.st_mode) && item.recorded.type == S_IFREG &&
        static_cast<std::uint64_t>(item.existing.st_size) == item.recorded.size && IsSame(existing, written))
        item.action = Item::Action::KeepUnchanged;
}

// Finds the parts of the content that the file that exists has at the same offset.
void SnapshotRestore::CompareContent(Item& item, const YDirectory& parent)
{
    try {
        const Krt::Util::YUnxHandle file = parent.OpenFile(item.location.back());
        const struct stat status = Krt::File::Stat(file);
        if (FileId(status) != FileId(item.existing) || !S_ISREG(status.st_mode))
            return;
        Repo::Bytes buffer;
        std::uint64_t offset = 0;
        for (const Id& id : item.content) {
            RaiseIfInterrupted();
            const auto place = m_repository.GetIndex().Find({BlobType::Data, id});
            if (!place) {
                item.isUpToDate.clear();
                return;
            }
            const std::uint64_t length = place->blob.plainLength;
            const bool fits = offset + length <= static_cast<std::uint64_t>(status.st_size);
            if (fits)
                buffer.resize(length);
            item.isUpToDate.push_back(fits &&
                                      Krt::File::Read(file, offset, length, buffer.data()) == length &&
                                      Id::Of(buffer) == id);
            offset += length;
        }
        if (offset == static_cast<std::uint64_t>(status.st_size) &&
            std::find(item.isUpToDate.begin(), item.isUpToDate.end(), false) == item.isUpToDate.end())
            item.action = Item::Action::KeepUnchanged;
    } catch (const Krt::Exception::YError&) {
        RaiseIfInterrupted();
        item.isUpToDate.clear(); // it can't be read, so all is loaded
    }
}

const YDirectory* SnapshotRestore::Root() const
{
    if (m_maker)
        return &m_maker->GetTree().GetRoot();
    return m_dryTarget ? &*m_dryTarget : nullptr;
}

// The directory of the location, if it exists.
const YDirectory* SnapshotRestore::ExistingParent(const TargetLocation& location)
{
    const YDirectory* const root = Root();
    if (root == nullptr || location.size() == 1)
        return root;
    const auto directories = std::span(location).first(location.size() - 1);
    if (!m_isExistingParentKnown || !std::equal(directories.begin(), directories.end(),
                                                m_existingLocation.begin(), m_existingLocation.end())) {
        m_existingParent.reset();
        m_existingLocation.assign(directories.begin(), directories.end());
        m_isExistingParentKnown = true;
        try {
            m_existingParent = root->OpenBelow(directories);
        } catch (const Krt::Exception::YError&) {
            // missing, or not a directory: that is found when it is created
        }
    }
    return m_existingParent ? &*m_existingParent : nullptr;
}

std::optional<std::unordered_set<std::string>> SnapshotRestore::NamesOfTree(const Id& tree) const
{
    std::unordered_set<std::string> names;
    try {
        m_repository.VisitTree(tree, [&names](Node& node) {
            names.insert(node.name);
            return true;
        });
    } catch (const Repo::RepositoryError&) {
        return std::nullopt; // the walk reports it
    }
    return names;
}

void SnapshotRestore::Add(std::unique_ptr<Item> item)
{
    ++m_totals.files;
    if (item->recorded.type == S_IFREG)
        m_totals.bytes += item->recorded.size;
    const bool isFirst = !item->link || m_planned.try_emplace(*item->link, 0).second;
    if (isFirst && item->link && HasOtherContent(m_planned, *item->link))
        m_report.Note(Text(item->path + OtherContentNote));
    if (!m_maker) {
        Content none(m_repository, m_loader, {});
        Write(*item, none);
        return;
    }
    std::uint64_t bytes = 0;
    std::vector<Id> ids;
    const bool isLoaded = item->action == Item::Action::Restore || item->action == Item::Action::Update;
    for (std::size_t i = 0; isLoaded && isFirst && !item->failure && i < item->content.size(); ++i) {
        if (!item->isUpToDate.empty() && item->isUpToDate[i])
            continue;
        const auto place = m_repository.GetIndex().Find({BlobType::Data, item->content[i]});
        bytes += place ? place->blob.plainLength : 0;
        ids.push_back(item->content[i]);
    }
    if (bytes > BatchBytes) {
        Drain();
        Content content(m_repository, m_loader, {});
        content.Begin(item->content, item->isUpToDate);
        Write(*item, content);
        return;
    }
    Batch& batch = *m_collected;
    batch.bytes += bytes;
    batch.memory += ItemMemory + item->path.size() * 3 + item->content.size() * sizeof(Id);
    batch.ids.insert(batch.ids.end(), ids.begin(), ids.end());
    batch.items.push_back(std::move(item));
    if (batch.bytes >= BatchBytes || batch.memory >= BatchMemory)
        Turn();
}

// The collected batch begins to load, and the one before is written.
void SnapshotRestore::Turn()
{
    LoadedBlobs loaded;
    if (m_loading)
        loaded = m_loading->blobs.get();
    const std::unique_ptr<Batch> written = std::move(m_loading);
    // The loader takes one batch at a time, and a large file is loaded when no batch is.
    if (!m_collected->items.empty()) {
        m_loading = std::move(m_collected);
        m_loading->blobs = m_loader.Start(m_loading->ids);
        m_collected = std::make_unique<Batch>();
    }
    if (!written)
        return;
    Content content(m_repository, m_loader, std::move(loaded));
    for (const auto& item : written->items) {
        RaiseIfInterrupted();
        Write(*item, content);
    }
}

void SnapshotRestore::Drain()
{
    Turn();
    Turn();
}

void SnapshotRestore::Write(Item& item, Content& content)
{
    const YString path = Text(item.path);
    const auto refused = [&] {
        return m_maker && !m_maker->GetRefused().empty();
    };
    if (!m_failedDirectory.empty() && item.path.starts_with(m_failedDirectory)) {
        NoteUnverified(item.path);
        return;
    }
    try {
        if (m_maker)
            m_maker->GetRefused().clear();
        if (item.failure)
            std::rethrow_exception(item.failure);
        if (item.action == Item::Action::Skip) {
            NoteUnverified(item.path);
        } else {
            KRT_RAISE_UNLESS(!item.recorded.isReparsePoint || item.recorded.type == S_IFREG,
                             ErrorCode::NotSupported,
                             "A reparse point is not restored: its record does not contain its target");
            MakeRoom(item);
            if (item.recorded.type == S_IFDIR)
                WriteDirectory(item);
            else if (!KeepUnchanged(item))
                WriteOther(item, content);
        }
        if (m_maker && item.action != Item::Action::Skip)
            m_maker->Count(path, item.recorded.type);
        if (!refused())
            Done(item);
    } catch (const Krt::Exception::YError& error) {
        NoteUnverified(item.path);
        if (item.recorded.type == S_IFDIR)
            m_failedDirectory = item.path + "/";
        if (m_maker)
            m_maker->Failed(path, error);
        else
            m_report.EntryFailed(path, ReasonOf(error));
    }
    m_report.Progress(m_totals.files, m_totals.bytesRestored);
    PrintStatus();
}

// Returns the parent directory of an entry that is written. In a dry run it is null if it does not exist.
const YDirectory* SnapshotRestore::ParentOf(const Item& item)
{
    return m_maker ? &m_maker->GetTree().ParentOf(item.location) : ExistingParent(item.location);
}

// A directory and an entry of another type don't replace each other, unless --delete removes what exists.
void SnapshotRestore::MakeRoom(const Item& item)
{
    const YDirectory* const parent = ParentOf(item);
    const YString& name = item.location.back();
    struct stat existing
    {};
    if (parent == nullptr || !parent->StatIfPresent(name, existing) ||
        S_ISDIR(existing.st_mode) == (item.recorded.type == S_IFDIR) ||
        (m_settings.deletes && m_cleaner.Remove(*parent, name, item.path)))
        return;
    const char* const hint = m_settings.deletes ? "" : "; --delete replaces it";
    KRT_RAISE_UNLESS(!S_ISDIR(existing.st_mode), ErrorCode::InvalidState,
                     "There is a directory at its path" << hint);
    KRT_RAISE(ErrorCode::InvalidState,
              (S_ISLNK(existing.st_mode) ? "There is a symlink instead of a directory: "
                                         : "There is an entry that is not a directory: ")
                  << name << "; nothing below it is restored" << hint);
}

void SnapshotRestore::WriteDirectory(Item& item)
{
    const YDirectory* const parent = ParentOf(item);
    const YString& name = item.location.back();
    struct stat existing
    {};
    if (parent != nullptr && parent->StatIfPresent(name, existing) && S_ISDIR(existing.st_mode) &&
        HasAttributes(Krt::File::YEntry(*parent, name), existing, item.recorded.attributes, false))
        item.action = Item::Action::KeepUnchanged;
    if (m_maker)
        m_maker->GetTree().MakeDirectory(item.location, item.recorded.attributes);
    if (item.names)
        CleanDirectory(item.location, item.path, *item.names);
}

void SnapshotRestore::CleanDirectory(const TargetLocation& location, const std::string& path,
                                     const std::unordered_set<std::string>& kept)
{
    const YDirectory* const root = Root();
    if (root == nullptr)
        return;
    if (location.empty()) {
        m_cleaner.Clean(*root, path, kept);
        return;
    }
    std::optional<YDirectory> directory;
    try {
        directory = root->OpenBelow(location);
    } catch (const Krt::Exception::YError&) {
        return; // it does not exist, or is not a directory
    }
    m_cleaner.Clean(*directory, path, kept);
}

// Returns false if the entry has to be created. What exists is kept if it is equal, or a file whose
// attributes alone differ. That does not apply to a file with another name, which may be outside of the
// target, nor to one with further extended attributes.
bool SnapshotRestore::KeepUnchanged(Item& item)
{
    if (item.action != Item::Action::KeepUnchanged && item.action != Item::Action::Update)
        return false;
    const YDirectory* const found = ParentOf(item);
    const YString& name = item.location.back();
    struct stat now
    {};
    if (found == nullptr || !found->StatIfPresent(name, now) || FileId(now) != FileId(item.existing) ||
        (now.st_mode & S_IFMT) != item.recorded.type)
        return false;
    const YDirectory& parent = *found;
    if (const auto first = item.link ? m_linked.find(*item.link) : m_linked.end(); first != m_linked.end()) {
        if (FileId(now) != first->second.file)
            return false;
        item.action = Item::Action::KeepUnchanged;
        CountLink(item);
        return true;
    }
    const Attributes& attributes = item.recorded.attributes;
    if (!S_ISREG(now.st_mode)) {
        const bool isSameThing = S_ISLNK(now.st_mode) ? parent.ReadSymbolicLink(name) == Text(item.linkTarget)
                                                      : S_ISFIFO(now.st_mode) || now.st_rdev == item.device;
        if (!isSameThing || !HasAttributes(Krt::File::YEntry(parent, name), now, attributes, false))
            return false;
        item.action = Item::Action::KeepUnchanged;
    } else if (item.action != Item::Action::KeepUnchanged || !KeepFile(item, parent.OpenFile(name))) {
        return false;
    }
    if (item.link)
        NoteLink(item, FileId(now));
    return true;
}

// Gives the file its attributes, unless it is no longer the one that was compared.
bool SnapshotRestore::KeepFile(const Item& item, const Krt::Util::YUnxHandle& file)
{
    const struct stat now = Krt::File::Stat(file);
    if (FileId(now) != FileId(item.existing) || !S_ISREG(now.st_mode) ||
        now.st_size != item.existing.st_size ||
        !IsSame(Krt::File::ChangeTime(now), Krt::File::ChangeTime(item.existing)))
        return false;
    const Krt::File::YEntry entry(file);
    const Attributes& attributes = item.recorded.attributes;
    if (HasAttributes(entry, now, attributes, now.st_nlink == 1))
        return true;
    const std::list<YString> names = entry.ListExtendedAttributes();
    const bool hasMore = std::any_of(names.begin(), names.end(), [&](const YString& each) {
        return !attributes.extended.contains(each) && !each.Bytes().starts_with("system.") &&
               each != YString("security.selinux");
    });
    if (now.st_nlink != 1 || hasMore)
        return false;
    if (m_maker)
        Apply(attributes, file, m_maker->GetRefused());
    return true;
}

// The first name of a file with several links exists. It is forgotten after the last one.
void SnapshotRestore::NoteLink(const Item& item, const FileId& file)
{
    if (item.links > 1)
        m_linked.insert_or_assign(*item.link, LinkedFile{item.location, file});
    CountLink(item);
}

void SnapshotRestore::CountLink(const Item& item)
{
    const auto planned = m_planned.find(*item.link);
    if (planned == m_planned.end() || ++planned->second < item.links)
        return;
    m_planned.erase(planned);
    m_linked.erase(*item.link);
}

void SnapshotRestore::NoteUnverified(const std::string& path)
{
    if (m_settings.verifies)
        m_unverified.insert(path);
}

void SnapshotRestore::WriteOther(Item& item, Content& content)
{
    const bool isEqual = item.action == Item::Action::KeepUnchanged;
    item.action = item.action == Item::Action::Restore ? item.action : Item::Action::Update;
    if (!m_maker) {
        if (item.link && m_linked.contains(*item.link))
            CountLink(item);
        else if (item.link)
            NoteLink(item, {}); // no name that exists is one of the new file
        return;
    }
    const YDirectory& parent = m_maker->GetTree().ParentOf(item.location);
    if (isEqual && item.isUpToDate.empty())
        CompareContent(item, parent);
    item.action = item.action == Item::Action::Restore ? item.action : Item::Action::Update;
    NewEntry entry{.recorded = item.recorded, .location = item.location};
    entry.linkTarget = Text(item.linkTarget);
    entry.device = item.device;
    const auto first = item.link ? m_linked.find(*item.link) : m_linked.end();
    entry.first = first != m_linked.end() ? &first->second : nullptr;
    entry.writeContent = [&](const Krt::Util::YUnxHandle& file) {
        SparseWriter writer(file);
        std::optional<Krt::Util::YUnxHandle> old;
        Repo::Bytes part;
        for (std::size_t i = 0; i < item.content.size(); ++i) {
            RaiseIfInterrupted();
            const Id& id = item.content[i];
            bool isOld = false;
            if (!item.isUpToDate.empty() && item.isUpToDate[i]) {
                if (!old)
                    old.emplace(parent.OpenFile(item.location.back()));
                part.resize(m_repository.GetIndex().Find({BlobType::Data, id})->blob.plainLength);
                isOld = S_ISREG(Krt::File::Stat(*old).st_mode) &&
                        Krt::File::Read(*old, writer.GetSize(), part.size(), part.data()) == part.size() &&
                        Id::Of(part) == id;
            }
            writer.Append(isOld ? part : content.Get(i, id));
            m_report.Progress(m_totals.files, m_totals.bytesRestored + writer.GetSize());
        }
        REPOSITORY_RAISE_UNLESS(writer.GetSize() == item.recorded.size, Failure::Damaged,
                                "The blobs of the file have another size than the file");
        writer.Finish();
    };
    const std::optional<FileId> made = m_maker->Make(entry);
    if (item.link && made)
        NoteLink(item, *made);
    else if (item.link)
        CountLink(item);
}

void SnapshotRestore::Done(const Item& item)
{
    const bool isFile = item.recorded.type == S_IFREG;
    const unsigned long long size = isFile ? item.recorded.size : 0;
    const bool isSkipped = item.action == Item::Action::Skip || item.action == Item::Action::KeepUnchanged;
    ++(isSkipped ? m_totals.skipped : m_totals.restored);
    (isSkipped ? m_totals.bytesSkipped : m_totals.bytesRestored) += size;
    if (isSkipped && !m_settings.isVerbose)
        return;
    const bool isKept = item.action == Item::Action::Skip && !m_settings.isJson; // restic has no such word
    const char* const action = isKept                                          ? "skipped"
                               : isSkipped                                     ? "unchanged"
                               : item.action == Item::Action::Update && isFile ? "updated"
                                                                               : "restored";
    Print(action, item.path, isFile ? std::optional(size) : std::nullopt);
}

void SnapshotRestore::Print(const char* action, const std::string& path,
                            std::optional<unsigned long long> size)
{
    if (!m_settings.isVerbose && !m_settings.isDryRun)
        return;
    if (m_settings.isJson) {
        std::string json =
            R"({"message_type":"verbose_status","action":")" + std::string(action) + R"(","item":)";
        Repo::JsonWriter(json).String(path);
        m_report.Out() << PrintableJson(json + ",\"size\":" + std::to_string(size.value_or(0)) + "}") << "\n";
        m_report.Out().Flush();
        return;
    }
    std::string line = action;
    line.resize(10, ' ');
    line += Printable(path) + (size ? " with size " + SizeText(*size) : "");
    m_report.Out() << line << "\n";
    m_report.Out().Flush();
}

std::string SnapshotRestore::TotalsJson(const char* type) const
{
    std::string json;
    Repo::JsonWriter writer(json);
    const auto number = [&writer](const char* key, unsigned long long value) {
        writer.Key(key);
        writer.Number(value);
    };
    writer.BeginObject();
    writer.Key("message_type");
    writer.String(type);
    const auto elapsed = std::chrono::steady_clock::now() - m_start;
    number("seconds_elapsed", static_cast<unsigned long long>(
                                  std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()));
    if (type == std::string_view("status")) {
        const double done = static_cast<double>(m_totals.bytesRestored + m_totals.bytesSkipped);
        char text[64];
        std::snprintf(text, sizeof(text), "%.6f",
                      m_totals.bytes == 0 ? 0 : done / static_cast<double>(m_totals.bytes));
        writer.Key("percent_done");
        writer.Raw(text);
    }
    number("total_files", m_totals.files);
    number("files_restored", m_totals.restored);
    number("files_skipped", m_totals.skipped);
    number("files_deleted", m_totals.deleted);
    number("total_bytes", m_totals.bytes);
    number("bytes_restored", m_totals.bytesRestored);
    number("bytes_skipped", m_totals.bytesSkipped);
    writer.EndObject();
    return json;
}

void SnapshotRestore::PrintStatus()
{
    if (!m_settings.isJson || m_settings.isQuiet)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now - m_shown < StatusInterval)
        return;
    m_shown = now;
    m_report.Out() << TotalsJson("status") << "\n";
    m_report.Out().Flush();
}

void SnapshotRestore::PrintSummary()
{
    constexpr const char* Done = "The restore is done";
    if (m_settings.isJson) {
        m_report.Summary(Done, TotalsJson("summary") + "\n");
        return;
    }
    if (m_settings.isQuiet)
        return;
    const auto elapsed = std::chrono::steady_clock::now() - m_start;
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(elapsed).count();
    const bool isAll = m_totals.restored == m_totals.files && m_totals.bytesRestored == m_totals.bytes;
    std::string text = m_settings.isDryRun ? "Summary: Would restore " : "Summary: Restored ";
    text += std::to_string(m_totals.restored) + (isAll ? "" : " / " + std::to_string(m_totals.files)) +
            " files/dirs (" + SizeText(m_totals.bytesRestored) +
            (isAll ? "" : " / " + SizeText(m_totals.bytes)) + ") in " +
            DurationText(static_cast<unsigned long long>(seconds));
    if (m_totals.skipped != 0)
        text += ", skipped " + std::to_string(m_totals.skipped) + " files/dirs " +
                SizeText(m_totals.bytesSkipped);
    if (m_totals.deleted != 0)
        text += ", deleted " + std::to_string(m_totals.deleted) + " files/dirs";
    if (m_report.GetFailed() != 0)
        text += ", " + std::to_string(m_report.GetFailed()) + " failed";
    m_report.Summary(Done, text + "\n");
}

// What the walk before has reported is not reported again.
void SnapshotRestore::Verify(const Id& tree)
{
    m_isExistingParentKnown = false;
    WalkTree(
        m_repository, tree, "",
        [this](const std::string& path, Node& node) {
            const bool isDirectory = node.type == NodeType::Directory;
            const Selection selection = Select(path, isDirectory);
            if (selection.isSelected && node.type == NodeType::File && !m_unverified.contains(path))
                VerifyFile(path, node);
            return selection.mayHaveSelected ? Step::Into : Step::Past;
        },
        [](const std::string&, const Krt::Exception::YError&) {});
}

void SnapshotRestore::VerifyFile(const std::string& path, const Node& node)
{
    try {
        const TargetLocation location = LocationOf(path);
        const YDirectory* const parent = ExistingParent(location);
        KRT_RAISE_UNLESS(parent != nullptr, ErrorCode::NotFound,
                         "Not verified: its directory can't be opened");
        const Krt::Util::YUnxHandle file = parent->OpenFile(location.back());
        const struct stat status = Krt::File::Stat(file);
        bool isEqual = S_ISREG(status.st_mode) && static_cast<std::uint64_t>(status.st_size) == node.size &&
                       node.content;
        Repo::Bytes part;
        std::uint64_t offset = 0;
        for (std::size_t i = 0; isEqual && i < node.content->size(); ++i) {
            RaiseIfInterrupted();
            const auto place = m_repository.GetIndex().Find({BlobType::Data, (*node.content)[i]});
            part.resize(place ? place->blob.plainLength : 0);
            isEqual = place && Krt::File::Read(file, offset, part.size(), part.data()) == part.size() &&
                      Id::Of(part) == (*node.content)[i];
            offset += part.size();
        }
        KRT_RAISE_UNLESS(isEqual, ErrorCode::InvalidState,
                         "Verified, and its content is not that of the snapshot");
    } catch (const Krt::Exception::YError& error) {
        RaiseIfInterrupted();
        m_report.EntryFailed(Text(path), ReasonOf(error));
    }
}

} // namespace Agent
