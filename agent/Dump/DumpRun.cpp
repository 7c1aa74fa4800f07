#include "agent/Dump/DumpRun.h"

#include "agent/Access/Workers.h"
#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Exception/Raise.h"

namespace Agent {

using Krt::YString;
using Repo::BlobType;
using Repo::Node;
using Repo::NodeType;

DumpRun::DumpRun(const Repo::Repository& repository, DumpTarget& target, Report& report)
    : m_repository(repository), m_target(target), m_report(report), m_reader(repository, WorkerCount())
{}

void DumpRun::WriteFile(const FoundEntry& file)
{
    KRT_RAISE_UNLESS(file.node.content, Krt::ErrorCode::InvalidState,
                     YString(std::string_view(file.path)) << ": The file has no list of blobs");
    static_cast<void>(SizeOf(file.node));
    m_reader.Read(*file.node.content, [&](Repo::ByteView content) {
        m_bytes += content.size();
        ShowProgress(file.path);
        m_target.Write(content);
    });
    m_target.Close();
}

void DumpRun::WriteDirectory(const FoundEntry& directory, ArchiveFormat format)
{
    const std::string path = directory.path == "/" ? "" : directory.path;
    REPOSITORY_RAISE_UNLESS(directory.node.subtree, Repo::Failure::Damaged,
                            YString(std::string_view(directory.path)) << ": The directory has no tree");
    bool hasFailed = false;
    Archive archive(format, [this](Repo::ByteView bytes) { m_target.Write(bytes); });
    WalkTree(
        m_repository, *directory.node.subtree, path,
        [&](const std::string& entry, Node& node) {
            Add(archive, entry, node, format);
            return Step::Into;
        },
        [&](const std::string& entry, const Krt::Exception::YError& error) {
            m_report.EntryFailed(YString(std::string_view(entry)), ReasonOf(error));
            hasFailed = true;
        });
    REPOSITORY_RAISE_UNLESS(m_entries != 0 || !hasFailed, Repo::Failure::Damaged,
                            YString(std::string_view(directory.path)) << ": None of its entries can be read");
    archive.Close();
    m_target.Close();
}

void DumpRun::Add(Archive& archive, const std::string& path, const Node& node, ArchiveFormat format)
{
    std::string name = path.substr(1);
    std::string* first = nullptr;
    std::string linkTarget;
    const bool mayBeLink = format == ArchiveFormat::Tar && node.type == NodeType::File;
    if (const auto key = mayBeLink ? LinkKeyOf(node) : std::nullopt) {
        first = &m_linked[*key];
        linkTarget = *first;
        if (linkTarget.empty() && HasOtherContent(m_linked, *key))
            m_report.Note(YString(path + OtherContentNote));
    }
    bool hasBegun = false;
    try {
        REPOSITORY_RAISE_UNLESS(node.type != NodeType::Unknown, Repo::Failure::Damaged,
                                "The type of the entry is not known: " << node.typeText.c_str());
        archive.Begin(node.type == NodeType::Directory ? name + "/" : name, node, SizeOf(node), linkTarget);
        hasBegun = true;
        if (first != nullptr && first->empty())
            *first = name;
        if (linkTarget.empty() && node.content)
            AddContent(archive, path, node);
    } catch (const Krt::Exception::YError& error) {
        RaiseIfInterrupted();
        if (error.GetType() == Krt::ExceptionType::OsError && error.GetOsError() != 0 &&
            dynamic_cast<const Repo::RepositoryError*>(&error) == nullptr)
            throw; // the target can't be written
        if (first != nullptr && *first == name)
            first->clear(); // the next name gets the content, if that can be read
        m_report.EntryFailed(YString(std::string_view(path)),
                             ReasonOf(error) + (hasBegun ? "; the archive contains zeros in place of the rest"
                                                         : "; the archive does not contain it"));
    }
    archive.End();
    ++m_entries;
    ShowProgress(path);
}

void DumpRun::AddContent(Archive& archive, const std::string& path, const Node& node)
{
    m_reader.Read(*node.content, [&](Repo::ByteView content) {
        m_bytes += content.size();
        ShowProgress(path);
        archive.Write(content);
    });
}

void DumpRun::ShowProgress(const std::string& path)
{
    m_report.Progress([&] {
        return ProgressFacts{.items = m_entries, .unit = "entries", .bytes = m_bytes, .current = path};
    });
}

// An archive needs the size before the content. Raises Damaged if the blobs have another one than the file.
std::uint64_t DumpRun::SizeOf(const Node& node) const
{
    std::uint64_t size = 0;
    if (node.type != NodeType::File || !node.content)
        return size;
    for (const Repo::Id& id : *node.content) {
        const auto found = m_repository.GetIndex().Find({BlobType::Data, id});
        REPOSITORY_RAISE_UNLESS(found, Repo::Failure::Missing,
                                "The index does not have blob " << id.ToHex().c_str());
        size += found->blob.plainLength;
    }
    REPOSITORY_RAISE_UNLESS(size == node.size, Repo::Failure::Damaged,
                            "The size of the file is " << node.size << ", but its blobs have "
                                                       << static_cast<unsigned long long>(size) << " bytes");
    return size;
}

} // namespace Agent
