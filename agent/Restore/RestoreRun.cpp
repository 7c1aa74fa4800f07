#include "agent/Restore/RestoreRun.h"

#include "agent/Cli/Interrupt.h"
#include "agent/Cli/Text.h"
#include "agent/Restore/SparseWriter.h"

#include "Backup/Core/OpenSSL.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/YScope.h"

#if __has_include(<sys/sysmacros.h>)
#include <sys/sysmacros.h>
#endif

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YDirectory;
using Krt::File::YPath;

namespace {

// One name serves the whole run: an entry is made under it and then moved to its own.
YString TemporaryName()
{
    const Krt::Memory::YHeap<unsigned char> random = Backup::OpenSSL::RandomBytes(8);
    std::string name = ".kbagent-restore-";
    for (unsigned long i = 0; i < random.Size(); ++i)
        name += "0123456789abcdef"[random.Cast<unsigned char>()[i] & 0xF];
    return YString(name);
}

// Where the record's path goes below the target. A component that could lead out of it is refused.
Place PlaceOf(Backup::File::YMetadataBase& metadata)
{
    const Backup::YJobPath none;
    const Backup::YJobPath path = metadata.GetSanitizedNewPath(metadata.GetFilePath(0), none, none);
    KRT_RAISE_UNLESS(path.GetComponentCount() != 0, ErrorCode::InvalidArgument, "The record has no path");
    Place place;
    for (unsigned long i = 0; i < path.GetComponentCount(); ++i) {
        const YString& name = path.GetComponent(i).m_name;
        const bool isSafe = !name.IsEmpty() && name != "." && name != ".." &&
                            name.Bytes().find_first_of(std::string_view("/\0", 2)) == std::string::npos;
        KRT_RAISE_UNLESS(isSafe, ErrorCode::InvalidArgument,
                         "Refused: the path has a component that no file may have: \"" << name << "\"");
        place.push_back(name);
    }
    return place;
}

YPath PathOf(const Place& place)
{
    std::string text;
    for (const YString& name : place)
        text += "/" + name.Bytes();
    return YPath(YString(text));
}

} // namespace

RestoreRun::RestoreRun(const Store& store, YDirectory target, std::vector<YPath> paths, Report& report)
    : m_tree(std::move(target),
             [&report](const Place& directory, const std::vector<YString>& refused) {
                 for (const YString& reason : refused)
                     report.EntryFailed(PathOf(directory), reason);
             }),
      m_report(report), m_objects(store), m_temporary(TemporaryName())
{
    for (YPath& path : paths)
        m_paths.emplace_back(std::move(path), false);
}

void RestoreRun::Restore(const SnapshotEntry& entry)
{
    YString shown("an entry");
    try {
        const auto metadata = Backup::File::YMetadataBase::ConstructFromJson(entry.record);
        shown = metadata->GetFilePath(0).GetDisplayPath();
        const Place place = PlaceOf(*metadata);
        const YPath path = PathOf(place);
        shown = path;
        if (!IsWanted(path))
            return;
        m_refused.clear();
        Make(entry, metadata->AsUnixFileMetadata(), place);
        for (const YString& reason : m_refused)
            m_report.EntryFailed(path, reason);
        if (entry.readSize)
            m_report.EntryFailed(path, "restored as it was read, but it changed during the backup");
    } catch (const Krt::Exception::YError& error) {
        KRT_RAISE_UNLESS(!IsInterrupted(), ErrorCode::InvalidState, "Interrupted");
        m_report.EntryFailed(shown, ReasonOf(error));
    }
    m_report.Progress(m_counts.Entries(), m_counts.bytes);
}

void RestoreRun::Finish()
{
    m_tree.Finish();
    for (const auto& [path, matched] : m_paths) {
        if (!matched)
            m_report.EntryFailed(path, "The snapshot has no such entry");
    }
}

bool RestoreRun::IsWanted(const YPath& path)
{
    bool wanted = m_paths.empty();
    for (auto& [root, matched] : m_paths) {
        if (path.IsChildOf(root, true))
            wanted = matched = true;
    }
    return wanted;
}

void RestoreRun::Make(const SnapshotEntry& entry, const Metadata& metadata, const Place& place)
{
    if (metadata.IsDirectoryForRestore()) {
        m_tree.MakeDirectory(place, AttributesOf(metadata));
        ++m_counts.directories;
        return;
    }
    const YDirectory& parent = m_tree.ParentOf(place);
    struct stat standing
    {};
    KRT_RAISE_UNLESS(!parent.StatIfPresent(place.back(), standing) || !S_ISDIR(standing.st_mode),
                     ErrorCode::InvalidState, "A directory stands in its place");
    // Renaming one name of a file to another one does nothing, so a further name's temporary may stay, too.
    bool isMoved = false;
    const Krt::Util::YScope cleanUp([&] {
        if (!isMoved)
            parent.RemoveFile(m_temporary);
    });
    const bool isLinked = MakeHardLink(entry, place, m_temporary);
    if (!isLinked && S_ISREG(metadata.GetModeFlags()))
        MakeFile(entry, metadata, parent, m_temporary);
    else if (!isLinked)
        MakeOther(entry, metadata, parent, m_temporary);
    parent.Rename(m_temporary, parent, place.back());
    isMoved = !isLinked;
    if (!isLinked && entry.hardLinkGroup != 0)
        Remember(entry, place);
    Count(metadata.GetModeFlags());
}

// Links the entry to the first name of its file, if that was restored and is still the same file. Otherwise
// the caller makes a file of its own.
bool RestoreRun::MakeHardLink(const SnapshotEntry& entry, const Place& place, const YString& temporary)
{
    const auto found = m_linked.find(entry.hardLinkGroup);
    if (entry.hardLinkGroup == 0 || found == m_linked.end())
        return false;
    const LinkedFile& first = found->second;
    const YDirectory& parent = m_tree.ParentOf(place);
    try {
        m_tree.MakeHardLink(first.place, place, temporary);
        const struct stat made = parent.Stat(temporary);
        if (made.st_dev == first.device && made.st_ino == first.inode)
            return true;
        parent.RemoveFile(temporary);
        m_refused.emplace_back(
            "restored as a file of its own, since another entry took its first name's place");
    } catch (const Krt::Exception::YError& error) {
        m_refused.push_back(YString("restored as a file of its own, since it could not be linked: ") +
                            ReasonOf(error));
    }
    return false;
}

void RestoreRun::MakeFile(const SnapshotEntry& entry, const Metadata& metadata, const YDirectory& parent,
                          const YString& name)
{
    const Krt::Util::YUnxHandle file = parent.CreateFile(name);
    WriteContent(entry, metadata, file);
    Apply(AttributesOf(metadata), file, m_refused);
}

void RestoreRun::WriteContent(const SnapshotEntry& entry, const Metadata& metadata,
                              const Krt::Util::YUnxHandle& file)
{
    KRT_RAISE_UNLESS(entry.content.has_value(), ErrorCode::InvalidState,
                     "The snapshot has no content for the file");
    m_objects.Open(*entry.content, entry.readSize.value_or(metadata.GetFileSize()));
    SparseWriter writer(file);
    for (auto block = m_objects.Next(); !block.empty(); block = m_objects.Next()) {
        writer.Append(block);
        m_report.Progress(m_counts.Entries(), m_counts.bytes + writer.GetSize());
        KRT_RAISE_UNLESS(!IsInterrupted(), ErrorCode::InvalidState, "Interrupted");
    }
    writer.Finish();
    m_counts.bytes += writer.GetSize();
}

void RestoreRun::MakeOther(const SnapshotEntry& entry, const Metadata& metadata, const YDirectory& parent,
                           const YString& name)
{
    const unsigned int type = metadata.GetModeFlags() & S_IFMT;
    switch (type) {
    case S_IFLNK:
        parent.MakeSymbolicLink(name,
                                entry.linkTarget ? *entry.linkTarget : metadata.GetSymbolicLinkTarget());
        break;
    case S_IFIFO:
        parent.MakeFifo(name, 0600);
        break;
    case S_IFCHR:
    case S_IFBLK:
        KRT_RAISE_UNLESS(entry.device.has_value(), ErrorCode::InvalidState,
                         "The snapshot has no device numbers");
        parent.MakeDevice(name, type | 0600, makedev(entry.device->major, entry.device->minor));
        break;
    default:
        KRT_RAISE(ErrorCode::NotSupported, "An entry of this kind is not restored");
    }
    Apply(AttributesOf(metadata), parent, name, type == S_IFLNK, m_refused);
}

void RestoreRun::Remember(const SnapshotEntry& entry, const Place& place)
{
    const struct stat made = m_tree.ParentOf(place).Stat(place.back());
    m_linked.insert_or_assign(entry.hardLinkGroup, LinkedFile{place, made.st_dev, made.st_ino});
}

void RestoreRun::Count(unsigned int mode)
{
    if (S_ISREG(mode))
        ++m_counts.files;
    else if (S_ISLNK(mode))
        ++m_counts.links;
    else
        ++m_counts.others;
}

} // namespace Agent
