#include "agent/Import/ImportRun.h"

#include "agent/Access/TreeWalk.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Status.h"

#include <sys/stat.h>

namespace Agent {

using Backup::File::YMetadataBase;
using Krt::ErrorCode;
using Krt::YString;
using Repo::Node;
using Repo::NodeType;

namespace {

// The first name of a file has its record. The others have a copy unless all copies need more memory.
constexpr std::size_t CopiesLimit = 1 << 20;
// Tops that a snapshot names. Of more, only the root is named.
constexpr std::size_t MostTops = 1000;
// Bytes of a path that is shown. Of a record with a longer one, only the line is shown.
constexpr std::size_t LongestShown = 4096;

std::string Shown(const Backup::YJobPath& path, unsigned long long line)
{
    const std::string text = ShownPath(path).Bytes();
    const std::string position = "line " + std::to_string(line);
    return text.size() > LongestShown ? position : text + " (" + position + ")";
}

} // namespace

ImportRun::ImportRun(const Repo::Repository& repository, Repo::BlobSaver& saver, Report& report,
                     ContentFolder contents, SnapshotBuildOptions options)
    : m_report(report), m_contents(std::move(contents)),
      m_build(repository, saver, report, std::move(options))
{
    m_directories.push_back({m_build.GetRoot()});
}

void ImportRun::Import(YMetadataBase& metadata, unsigned long long line)
{
    m_build.Tick();
    std::string shown = "line " + std::to_string(line);
    try {
        CheckHasPath(metadata);
        static_cast<void>(RestoredPath(metadata, 0));
        shown = Shown(metadata.GetFilePath(0), line);
        Take(metadata, shown, line);
    } catch (const Krt::Exception::YError& error) {
        RaiseIfInterrupted();
        if (m_build.HasFailed())
            throw;
        m_report.EntryFailed(YString(shown), ReasonOf(error));
    }
}

// Raises for a record that is left out, before anything of it is entered.
void ImportRun::Take(YMetadataBase& metadata, const std::string& shown, unsigned long long line)
{
    const TargetLocation location = TargetLocationOf(metadata, 0);
    Taken taken{ImportedEntryOf(metadata), {}, shown};
    const NodeType type = taken.entry.node.type;
    CheckFree(location, type == NodeType::Directory);
    if (type == NodeType::Directory) {
        TakeDirectory(location, std::move(taken.entry));
        return;
    }
    Krt::Util::YUnxHandle file;
    if (type == NodeType::File) {
        file = m_contents.Open(metadata);
        if (!file.IsEmpty() && !S_ISREG(Krt::File::Stat(file).st_mode))
            file.Close();
        KRT_RAISE_UNLESS(!file.IsEmpty() || taken.entry.mayLackContent, ErrorCode::NotFound,
                         "Not stored: the contents have no file for it (links are not followed)");
    }
    Claim(location, taken.names);
    for (unsigned long i = 1; i < metadata.GetFilePathCount(); ++i) {
        try {
            Claim(TargetLocationOf(metadata, i), taken.names);
        } catch (const Krt::Exception::YError& error) {
            m_report.EntryFailed(YString(Shown(metadata.GetFilePath(i), line)), ReasonOf(error));
        }
    }
    if (taken.names.size() > 1) { // restic takes entries of the same inode and device for hard links
        taken.entry.node.links = taken.names.size();
        taken.entry.node.inode = ++m_linked;
        taken.entry.node.deviceId = 1;
    }
    if (type == NodeType::File) {
        AddFile(std::move(taken), std::move(file));
    } else {
        m_others += taken.names.size();
        AddNodes(taken);
    }
}

void ImportRun::TakeDirectory(const TargetLocation& location, ImportedEntry entry)
{
    Directory& directory = m_directories[Enter(location, location.size())];
    directory.hasRecord = true;
    entry.node.name = location.back().Bytes();
    AddMember(entry, PathOf(location).Bytes(), entry.node);
    directory.build->SetNode(std::move(entry.node), "");
}

// Raises InvalidArgument if an entry can't be at the location, because of an earlier one.
void ImportRun::CheckFree(const TargetLocation& location, bool isDirectory) const
{
    // Readers count the root and the entry's own tree, too.
    KRT_RAISE_UNLESS(location.size() < DepthLimit, ErrorCode::InvalidArgument,
                     "Refused: the path has " << static_cast<unsigned int>(DepthLimit)
                                              << " components or more");
    std::size_t at = 0;
    for (std::size_t i = 0; i < location.size(); ++i) {
        const auto& entries = m_directories[at].entries;
        const auto found = entries.find(location[i].Bytes());
        if (found == entries.end())
            return;
        at = found->second;
        KRT_RAISE_UNLESS(at != NotDirectory, ErrorCode::InvalidArgument,
                         "Refused: an earlier record has the path "
                             << PathOf({location.begin(), location.begin() + static_cast<long>(i) + 1}));
    }
    KRT_RAISE_UNLESS(isDirectory, ErrorCode::InvalidArgument, "Refused: earlier records are below its path");
    KRT_RAISE_UNLESS(!m_directories[at].hasRecord, ErrorCode::InvalidArgument,
                     "Refused: an earlier record has the path " << PathOf(location));
}

// Returns the index of the directory that the first `count` components name, which is made if it is missing.
std::size_t ImportRun::Enter(const TargetLocation& location, std::size_t count)
{
    std::size_t at = 0;
    for (std::size_t i = 0; i < count; ++i) {
        const std::string& name = location[i].Bytes();
        Directory& directory = m_directories[at];
        const auto [found, isNew] = directory.entries.try_emplace(name, m_directories.size());
        at = found->second;
        if (isNew) {
            m_directories.push_back({m_build.AddDirectory(directory.build, name)});
            m_directories.back().build->SetNode(PlainDirectory(name), "");
        }
    }
    return at;
}

// Enters an entry that is not a directory.
void ImportRun::Claim(const TargetLocation& location, std::vector<Name>& names)
{
    CheckFree(location, false);
    Directory& directory = m_directories[Enter(location, location.size() - 1)];
    directory.entries.emplace(location.back().Bytes(), NotDirectory);
    directory.build->Announce();
    names.push_back({directory.build, PathOf(location).Bytes()});
}

void ImportRun::AddFile(Taken taken, Krt::Util::YUnxHandle file)
{
    std::string path = taken.names.front().path;
    LinkedContents::Completion onDone = [this,
                                         taken = std::move(taken)](const StoredContent& content) mutable {
        FileDone(taken, content);
    };
    if (file.IsEmpty()) {
        onDone({});
        return;
    }
    const struct stat status = Krt::File::Stat(file);
    if (LinkedContents::MayHave(status))
        onDone = m_links.Join(status, std::move(onDone));
    if (onDone)
        m_build.AddContent({std::make_shared<const Krt::Util::YUnxHandle>(std::move(file)), std::move(path),
                            std::move(onDone)});
}

// Completes the nodes of a file. Any thread.
void ImportRun::FileDone(Taken& taken, const StoredContent& content)
{
    if (!content.failure.empty()) {
        m_build.Post(taken.shown, content.failure, true);
        for (const Name& name : taken.names)
            DirectoryBuild::Drop(name.directory);
        return;
    }
    if (content.isChanged)
        m_build.Post(taken.shown, "The file changed while it was read", false);
    Node& node = taken.entry.node;
    node.size = content.size;
    node.content = content.blobs;
    if (content.size != taken.entry.size)
        m_build.Post(taken.shown,
                     "The content has " + std::to_string(content.size) + " bytes instead of " +
                         std::to_string(taken.entry.size),
                     true);
    StoredItem item{"", Change::New, SecondsSince(content.begin), content.added, content.packed};
    for (const Name& name : taken.names) {
        m_build.CountFile(Change::New, content.size);
        if (!m_build.ReportsStored())
            continue;
        item.path = name.path;
        m_build.PostStored(item);
        item.dataAdded = item.dataPacked = 0; // they count for the first name
    }
    AddNodes(taken);
}

// Any thread.
void ImportRun::AddNodes(Taken& taken)
{
    Node& node = taken.entry.node;
    const bool areCopied = taken.entry.record.size() * taken.names.size() <= CopiesLimit;
    for (const Name& name : taken.names) {
        node.name = name.path.substr(name.path.rfind('/') + 1);
        node.unknown.clear();
        if (areCopied || &name == &taken.names.front())
            AddMember(taken.entry, name.path, node);
        DirectoryBuild::Add(name.directory, node);
    }
}

std::optional<Repo::Id> ImportRun::Finish()
{
    for (const auto& [name, index] : m_directories.front().entries)
        m_tops.push_back("/" + name);
    if (m_tops.size() > MostTops)
        m_tops = {"/"};
    for (; !m_directories.empty(); m_directories.pop_back()) {
        m_build.Tick();
        Directory& directory = m_directories.back();
        if (!directory.hasRecord)
            directory.build->SetNeedsEntries();
        DirectoryBuild::Close(std::move(directory.build));
    }
    return m_build.Finish();
}

SnapshotCounts ImportRun::Complete(SnapshotCounts counts) const
{
    counts.others = m_others;
    return counts;
}

} // namespace Agent
