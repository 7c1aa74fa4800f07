#include "agent/Restore/ItemWriter.h"

#include "agent/Restore/SparseWriter.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/File.h"
#include "Krt/File/YEntry.h"

#include <algorithm>
#include <cstdint>

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;
using Repo::BlobType;
using Repo::Id;
using Action = RestoreItem::Action;

namespace {

YString Text(std::string_view text)
{
    return YString(text);
}

// Some file systems have only 32 bits for a time, and others little more.
bool IsFar(const timespec& time)
{
    return time.tv_sec < INT32_MIN || time.tv_sec > INT32_MAX;
}

// The old content of a file that is replaced, opened when the first part of it is needed.
class OldContent
{
public:
    OldContent(const YDirectory& parent, const YString& name) : m_parent(parent), m_name(name) {}

    // Reads a part, and returns true if it still has the id.
    bool Read(std::uint64_t offset, const Id& id, Repo::Bytes& part)
    {
        if (!m_file)
            m_file.emplace(m_parent.OpenFile(m_name));
        return S_ISREG(Krt::File::Stat(*m_file).st_mode) &&
               Krt::File::Read(*m_file, offset, part.size(), part.data()) == part.size() &&
               Id::Of(part) == id;
    }

private:
    const YDirectory& m_parent;
    const YString& m_name;
    std::optional<Krt::Util::YUnxHandle> m_file;
};

} // namespace

void ItemWriter::Write(RestoreItem& item, FileBlobs& blobs)
{
    EntryMaker* const maker = m_state.maker.get();
    const YString path = Text(item.path);
    if (!m_failedDirectory.empty() && item.path.starts_with(m_failedDirectory)) {
        NoteUnverified(item.path);
        return;
    }
    try {
        if (maker != nullptr)
            maker->GetRefused().clear();
        if (item.failure)
            std::rethrow_exception(item.failure);
        if (item.action != Action::Skip)
            Make(item, blobs);
        if (item.action == Action::Skip)
            NoteUnverified(item.path);
        else if (maker != nullptr)
            maker->Count(path);
        if (maker == nullptr || maker->GetRefused().empty())
            m_state.progress.CountDone(item);
    } catch (const Krt::Exception::YError& error) {
        NoteUnverified(item.path);
        if (item.recorded.type == S_IFDIR)
            m_failedDirectory = item.path + "/";
        if (maker != nullptr)
            maker->Failed(path, error);
        else
            m_state.report.EntryFailed(path, ReasonOf(error));
    }
    m_state.progress.ShowProgress(item.path);
}

void ItemWriter::Make(RestoreItem& item, FileBlobs& blobs)
{
    const bool hasContent = item.recorded.type == S_IFREG && item.recorded.size != 0;
    KRT_RAISE_UNLESS(!item.recorded.isReparsePoint || hasContent, ErrorCode::NotSupported,
                     "A reparse point is not restored: its record does not contain its target");
    KRT_RAISE_UNLESS(item.recorded.type != S_IFLNK || !item.linkTarget.empty(), ErrorCode::InvalidState,
                     "The snapshot has no target for the symlink");
    const std::optional<struct stat> existing = MakeRoom(item);
    if (item.action == Action::Skip)
        return;
    if (item.recorded.type == S_IFDIR)
        MakeDirectory(item, existing);
    else {
        PlanUnseen(item, existing);
        if (!KeepUnchanged(item))
            MakeOther(item, blobs);
    }
    NoteOtherTimes(item);
}

// Returns the parent directory of an entry that is written. In a dry run it is null if it does not exist.
const YDirectory* ItemWriter::ParentOf(const RestoreItem& item)
{
    return m_state.maker ? &m_state.maker->GetTree().ParentOf(item.location)
                         : m_state.existing.ParentOf(item.location);
}

// A directory and an entry of another type don't replace each other, unless --delete removes what exists.
// What the user wants to keep is skipped: the planner did not see it if its directory was not readable, or if
// it is new. Returns the status of what exists then.
std::optional<struct stat> ItemWriter::MakeRoom(RestoreItem& item)
{
    const YDirectory* const parent = ParentOf(item);
    const YString& name = item.location.back();
    struct stat existing
    {};
    if (parent == nullptr || !parent->StatIfPresent(name, existing))
        return std::nullopt;
    if (!S_ISDIR(existing.st_mode) && item.recorded.type != S_IFDIR &&
        IsKept(m_state.settings.overwrite, existing, item)) {
        item.action = Action::Skip;
        return existing;
    }
    if (S_ISDIR(existing.st_mode) == (item.recorded.type == S_IFDIR))
        return existing;
    if (m_state.settings.deletes && m_state.cleaner.Remove(*parent, name, item.path))
        return std::nullopt;
    const char* const hint = m_state.settings.deletes ? "" : "; --delete replaces it";
    KRT_RAISE_UNLESS(!S_ISDIR(existing.st_mode), ErrorCode::InvalidState,
                     "There is a directory at its path" << hint);
    KRT_RAISE(ErrorCode::InvalidState,
              (S_ISLNK(existing.st_mode) ? "There is a symlink instead of a directory: "
                                         : "There is an entry that is not a directory: ")
                  << name << "; nothing below it is restored" << hint);
}

// Plans an entry in a directory that had no rights for its owner. The blobs of a small file were loaded
// already.
void ItemWriter::PlanUnseen(RestoreItem& item, const std::optional<struct stat>& existing)
{
    if (!m_state.maker || !item.isUnseen || !existing)
        return;
    item.existing = *existing;
    ChooseAction(m_state.settings.overwrite, item);
    if (item.action == Action::Update && S_ISREG(item.existing.st_mode) && item.recorded.type == S_IFREG &&
        m_state.links.FirstOf(item) == nullptr)
        CompareContent(m_state.repository.GetIndex(), *ParentOf(item), item);
}

void ItemWriter::MakeDirectory(RestoreItem& item, const std::optional<struct stat>& existing)
{
    if (existing && S_ISDIR(existing->st_mode) &&
        HasStorableAttributes(*ParentOf(item), item.location.back(), *existing, item.recorded.attributes,
                              m_state.maker != nullptr))
        item.action = Action::KeepUnchanged;
    if (m_state.maker)
        m_state.maker->GetTree().MakeDirectory(item.location, item.recorded.attributes);
    if (item.names)
        m_state.cleaner.Clean(m_state.existing.GetRoot(), item.location, item.path, *item.names);
}

void ItemWriter::MakeOther(RestoreItem& item, FileBlobs& blobs)
{
    const bool isEqual = item.action == Action::KeepUnchanged;
    item.action = item.action == Action::Restore ? item.action : Action::Update;
    if (!m_state.maker) {
        if (item.link && m_state.links.FirstOf(item) != nullptr)
            m_state.links.Count(item);
        else if (item.link)
            m_state.links.NoteFirst(item, {}); // no name that exists is one of the new file
        return;
    }
    const YDirectory& parent = m_state.maker->GetTree().ParentOf(item.location);
    if (isEqual && item.isUpToDate.empty())
        CompareContent(m_state.repository.GetIndex(), parent, item);
    item.action = item.action == Action::Restore ? item.action : Action::Update;
    NewEntry entry{.recorded = item.recorded, .location = item.location};
    entry.linkTarget = Text(item.linkTarget);
    entry.device = item.device;
    entry.hasOtherNames = item.link.has_value();
    entry.first = m_state.links.FirstOf(item);
    entry.writeContent = [&](const Krt::Util::YUnxHandle& file) {
        WriteContent(item, parent, blobs, file);
    };
    const std::optional<FileId> made = m_state.maker->Make(entry);
    if (item.link && made)
        m_state.links.NoteFirst(item, *made);
    else if (item.link)
        m_state.links.Count(item);
}

// Writes the blobs of the file, and takes those that are up to date from the file that is replaced.
void ItemWriter::WriteContent(const RestoreItem& item, const YDirectory& parent, FileBlobs& blobs,
                              const Krt::Util::YUnxHandle& file)
{
    SparseWriter writer(file);
    OldContent old(parent, item.location.back());
    Repo::Bytes part;
    for (std::size_t i = 0; i < item.content.size(); ++i) {
        RaiseIfInterrupted();
        const Id& id = item.content[i];
        bool isOld = false;
        if (!item.isUpToDate.empty() && item.isUpToDate[i]) {
            part.resize(m_state.repository.GetIndex().Find({BlobType::Data, id})->blob.plainLength);
            isOld = old.Read(writer.GetSize(), id, part);
        }
        writer.Append(isOld ? Repo::ByteView(part) : blobs.Get(i, id));
        m_state.progress.ShowProgress(item.path, writer.GetSize());
    }
    REPOSITORY_RAISE_UNLESS(writer.GetSize() == item.recorded.size, Repo::Failure::Damaged,
                            "The blobs of the file have another size than the file");
    writer.Finish();
}

// Returns false if the entry has to be created. What exists is kept if it is equal, or a file whose
// attributes alone differ. That does not apply to a file with another name, which may be outside of the
// target, nor to one with further extended attributes.
bool ItemWriter::KeepUnchanged(RestoreItem& item)
{
    if (item.action != Action::KeepUnchanged && item.action != Action::Update)
        return false;
    const YDirectory* const parent = ParentOf(item);
    const YString& name = item.location.back();
    struct stat now
    {};
    if (parent == nullptr || !parent->StatIfPresent(name, now) || FileId(now) != FileId(item.existing) ||
        (now.st_mode & S_IFMT) != item.recorded.type)
        return false;
    if (const LinkedFile* const first = m_state.links.FirstOf(item); first != nullptr) {
        if (FileId(now) != first->file)
            return false;
        item.action = Action::KeepUnchanged;
        m_state.links.Count(item);
        return true;
    }
    if (!S_ISREG(now.st_mode)) {
        if (!KeepOther(item, *parent, now))
            return false;
        item.action = Action::KeepUnchanged;
    } else if (item.action != Action::KeepUnchanged || !KeepFile(item, parent->OpenFile(name))) {
        return false;
    }
    if (item.link)
        m_state.links.NoteFirst(item, FileId(now));
    return true;
}

// Returns true if the symlink, FIFO or device, which has this status, is equal.
bool ItemWriter::KeepOther(const RestoreItem& item, const YDirectory& parent, const struct stat& now)
{
    const YString& name = item.location.back();
    const bool isSameThing =
        S_ISLNK(now.st_mode)
            ? parent.ReadSymbolicLink(name) == Text(item.linkTarget)
            : S_ISFIFO(now.st_mode) || static_cast<std::uint64_t>(now.st_rdev) == item.device;
    return isSameThing &&
           HasStorableAttributes(parent, name, now, item.recorded.attributes, m_state.maker != nullptr);
}

// Gives the file its attributes, unless it is no longer the one that was compared.
bool ItemWriter::KeepFile(const RestoreItem& item, const Krt::Util::YUnxHandle& file)
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
    if (m_state.maker)
        Apply(attributes, file, m_state.maker->GetRefused());
    return true;
}

// The system sets a time that the file system can't store to the nearest one that it can, and reports
// nothing.
void ItemWriter::NoteOtherTimes(const RestoreItem& item)
{
    const timespec& access = item.recorded.attributes.access;
    const timespec& write = item.recorded.attributes.write;
    if (!m_state.maker || (!IsFar(access) && !IsFar(write)))
        return;
    const YDirectory& parent = *ParentOf(item);
    const YString& name = item.location.back();
    if (item.recorded.type == S_IFDIR) {
        try {
            Krt::File::YEntry(parent, name).SetTimes(access, write);
        } catch (const Krt::Exception::YError&) {
            return; // it is reported when the restore leaves the directory, and sets the times again
        }
    }
    const struct stat status = parent.Stat(name);
    const bool isOther = (IsFar(access) && Krt::File::AccessTime(status).tv_sec != access.tv_sec) ||
                         (IsFar(write) && Krt::File::WriteTime(status).tv_sec != write.tv_sec);
    if (isOther && m_noted.insert(status.st_dev).second)
        m_state.report.Note(Text(item.path + ": The file system can't store this time, and sets the nearest "
                                             "one that it can. Other such entries are not reported"));
}

void ItemWriter::NoteUnverified(const std::string& path)
{
    if (m_state.settings.verifies)
        m_state.unverified.insert(path);
}

} // namespace Agent
