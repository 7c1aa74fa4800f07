#include "agent/Store/Store.h"

#include "agent/Store/Directories.h"
#include "agent/Store/Hex.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Util/Numbers.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <optional>

namespace Agent {

using Krt::YString;
using Krt::File::YDirectory;
using Krt::File::YPath;

namespace {

constexpr const char* MarkerName = "kbagent-store";
constexpr const char* MarkerText = "kbagent-store ";
constexpr unsigned int FormatVersion = 1;
constexpr std::size_t MarkerLimit = 64;

constexpr const char* ObjectsName = "objects";
constexpr const char* SnapshotsName = "snapshots";
constexpr const char* TemporariesName = "tmp";

// What the call opens; nothing where there is nothing.
template <class Call>
std::optional<YDirectory> IfPresent(Call open)
{
    try {
        return open();
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() != ENOENT)
            throw;
        return std::nullopt;
    }
}

std::optional<YDirectory> OpenIfPresent(const std::string& path)
{
    return IfPresent([&] { return YDirectory::OpenFollowing(YPath(path.c_str())); });
}

std::optional<YDirectory> OpenIfPresent(const YDirectory& store, const char* name)
{
    return IfPresent([&] { return store.OpenDirectory(name); });
}

YDirectory OpenFolder(const YDirectory& store, const std::string& path, const char* name)
{
    std::optional<YDirectory> folder = OpenIfPresent(store, name);
    KRT_RAISE_UNLESS(folder, Krt::ErrorCode::NotFound,
                     "The store " << path.c_str() << " is damaged: it has no " << name);
    return std::move(*folder);
}

YDirectory MakeStoreDirectory(const std::string& path)
{
    const std::size_t end = path.find_last_not_of('/') + 1;
    const std::size_t slash = path.rfind('/', end - 1);
    const std::size_t begin = slash == std::string::npos ? 0 : slash + 1;
    const std::string parent = begin == 0 ? "." : path.substr(0, begin);
    const YDirectory directory = YDirectory::OpenFollowing(YPath(parent.c_str()));
    MakeDirectoryUnlessThere(directory, YString(path.substr(begin, end - begin)));
    Krt::File::Sync(directory.GetHandle());
    return YDirectory::OpenFollowing(YPath(path.c_str()));
}

// Whether a marker stands here; raises for one of another format.
bool HasMarker(const YDirectory& directory, const YString& path)
{
    struct stat status;
    if (!directory.StatIfPresent(MarkerName, status))
        return false;
    char text[MarkerLimit + 1] = {};
    Krt::File::Read(directory.OpenFile(MarkerName), 0, MarkerLimit, text);
    YString version(text);
    KRT_RAISE_UNLESS(version.Find(MarkerText, 0, true) == 0, Krt::ErrorCode::InvalidArgument,
                     path << " is no store: its " << MarkerName << " is damaged");
    version =
        version.Mid(static_cast<unsigned int>(std::char_traits<char>::length(MarkerText)), YString::NotFound);
    version.TrimWhiteSpacesRight();
    KRT_RAISE_UNLESS(
        version == Krt::Util::NumberToString(FormatVersion, false), Krt::ErrorCode::InvalidArgument,
        path << " is a store of format " << version << "; this program knows format " << FormatVersion);
    return true;
}

bool IsEmpty(const YDirectory& directory)
{
    bool empty = true;
    directory.VisitEntries([&](const Krt::File::DirectoryEntry&) { return empty = false; });
    return empty;
}

// A directory may become a store if it holds nothing, or what an interrupted or a concurrent making left:
// empty folders. What lies in folders of these names is somebody's, and a run clears up its own.
bool IsFresh(const YDirectory& directory)
{
    static const std::array<YString, 3> Folders{ObjectsName, SnapshotsName, TemporariesName};
    bool fresh = true;
    directory.VisitEntries([&](const Krt::File::DirectoryEntry& entry) {
        fresh = entry.name == "lost+found" || entry.name.Find(MarkerName, 0, true) == 0 ||
                (std::find(Folders.begin(), Folders.end(), entry.name) != Folders.end() &&
                 IsEmpty(directory.OpenDirectory(entry.name)));
        return fresh;
    });
    return fresh;
}

// The marker comes last, so a store that has one is complete.
void Furnish(const YDirectory& directory)
{
    for (const char* name : {ObjectsName, SnapshotsName, TemporariesName})
        MakeDirectoryUnlessThere(directory, name);
    const YString temporary((std::string(MarkerName) + "." + RandomHex(8)).c_str());
    const std::string text = MarkerText + std::to_string(FormatVersion) + "\n";
    const Krt::Util::YUnxHandle file = directory.CreateFile(temporary);
    Krt::File::Write(file, 0, text.size(), text.data());
    Krt::File::Sync(file);
    directory.Rename(temporary, directory, MarkerName);
    Krt::File::Sync(directory.GetHandle());
}

} // namespace

Store::Store(const std::string& path, YDirectory directory)
    : m_path(path.c_str()), m_directory(std::move(directory)),
      m_objects(OpenFolder(m_directory, path, ObjectsName)),
      m_snapshots(OpenFolder(m_directory, path, SnapshotsName)),
      m_temporaries(OpenIfPresent(m_directory, TemporariesName))
{}

Store Store::Open(const std::string& path)
{
    std::optional<YDirectory> directory = OpenIfPresent(path);
    KRT_RAISE_UNLESS(directory, Krt::ErrorCode::NotFound, "There is no store at " << path.c_str());
    KRT_RAISE_UNLESS(HasMarker(*directory, path.c_str()), Krt::ErrorCode::InvalidArgument,
                     path.c_str() << " is no store: it has no " << MarkerName);
    return Store(path, std::move(*directory));
}

Store Store::OpenOrCreate(const std::string& path)
{
    std::optional<YDirectory> directory = OpenIfPresent(path);
    if (!directory)
        directory = MakeStoreDirectory(path);
    if (!HasMarker(*directory, path.c_str())) {
        if (IsFresh(*directory))
            Furnish(*directory);
        else // a store whose making ended meanwhile has a marker before it has anything else
            KRT_RAISE_UNLESS(HasMarker(*directory, path.c_str()), Krt::ErrorCode::InvalidArgument,
                             path.c_str() << " is no store: it has no " << MarkerName << " and isn't empty");
    }
    // Empty between runs, so copies of a store may lack it.
    MakeDirectoryUnlessThere(*directory, TemporariesName);
    return Store(path, std::move(*directory));
}

std::vector<std::string> Store::ListSnapshots() const
{
    std::vector<std::string> ids;
    m_snapshots.VisitEntries([&](const Krt::File::DirectoryEntry& entry) {
        ids.push_back(entry.name.Bytes());
        return true;
    });
    std::sort(ids.begin(), ids.end());
    return ids;
}

std::string Store::FindSnapshot(const std::string& wanted) const
{
    const std::vector<std::string> ids = ListSnapshots();
    if (wanted == "latest") {
        KRT_RAISE_UNLESS(!ids.empty(), Krt::ErrorCode::NotFound, m_path << " has no snapshots");
        return ids.back();
    }
    const auto first = std::lower_bound(ids.begin(), ids.end(), wanted);
    const bool found = first != ids.end() && !wanted.empty() && first->starts_with(wanted);
    KRT_RAISE_UNLESS(found, Krt::ErrorCode::NotFound, m_path << " has no snapshot " << wanted.c_str());
    const bool unique = *first == wanted || first + 1 == ids.end() || !first[1].starts_with(wanted);
    KRT_RAISE_UNLESS(unique, Krt::ErrorCode::InvalidArgument,
                     "Several snapshots begin with " << wanted.c_str());
    return *first;
}

} // namespace Agent
