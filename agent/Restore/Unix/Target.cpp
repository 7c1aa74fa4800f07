#include "agent/Restore/Target.h"

#include "agent/Run/FileGuard.h"
#include "agent/Run/Unix/NamesAhead.h"
#include "agent/Run/Unix/Users.h"
#include "agent/Store/Directories.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Status.h"

#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

namespace Agent {

using Krt::ErrorCode;
using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;

namespace {

constexpr uid_t Root = 0;
constexpr int MostLinks = 40; // as many as the kernel follows

class Way
{
public:
    Way(const std::string& path, const YDirectory& store, Report& report)
        : m_path(path), m_store(store.Stat()), m_report(report), m_user(geteuid()),
          m_guards(m_user == Root && AreThereOtherUsers())
    {}
    YDirectory Go();

private:
    struct Level
    {
        YDirectory directory; // to search
        YString name;
        std::string path; // nothing for "/"
        struct stat status;
        bool isShared; // others can write there
        bool isInStore;

        bool IsSticky() const { return (status.st_mode & S_ISVTX) != 0; }
    };

    void Enter(YDirectory directory, const YString& name, const std::string& path);
    void Pass(const YString& name);
    void Follow(const YString& name, const std::string& path, const struct stat& link);
    YDirectory OpenLast() const;
    void TellOfOthers() const;
    void CheckStore() const;
    void Refuse(bool isRefused, const std::string& reason) const;

    const std::string m_path;
    const FileId m_store;
    Report& m_report;
    const uid_t m_user;
    const bool m_guards;
    NamesAhead m_ahead;
    std::vector<Level> m_levels; // from "/" on
    int m_links = 0;
};

YDirectory Way::Go()
{
    Enter(YDirectory::OpenToSearch("/"), "", "");
    m_ahead.Push(std::filesystem::absolute(m_path).string());
    while (!m_ahead.IsEmpty()) {
        const std::string name = m_ahead.Take();
        if (name != "..")
            Pass(YString(name));
        else if (m_levels.size() > 1)
            m_levels.pop_back();
    }
    CheckStore();
    YDirectory target = OpenLast();
    if (m_guards)
        TellOfOthers();
    return target;
}

void Way::Enter(YDirectory directory, const YString& name, const std::string& path)
{
    const struct stat status = directory.Stat();
    const bool isInStore = FileId(status) == m_store || (!m_levels.empty() && m_levels.back().isInStore);
    if (m_guards && !m_levels.empty())
        Refuse(m_levels.back().isShared && status.st_uid != Root &&
                   status.st_uid != m_levels.back().status.st_uid,
               path + " belongs to the user " + std::to_string(status.st_uid) +
                   ", and others can write to its directory");
    const bool isShared = m_guards && CanOthersWrite(path.empty() ? "/" : path, status);
    m_levels.push_back({std::move(directory), name, path, status, isShared, isInStore});
}

void Way::Pass(const YString& name)
{
    const YDirectory& parent = m_levels.back().directory;
    const std::string path = m_levels.back().path + "/" + name.Bytes();
    struct stat status
    {};
    if (!parent.StatIfPresent(name, status)) {
        CheckStore();
        MakeDirectoryUnlessThere(parent, name, 0777);
    } else if (S_ISLNK(status.st_mode)) {
        return Follow(name, path, status);
    }
    // What took its place meanwhile is no link, and is looked at by its descriptor.
    Enter(parent.OpenDirectoryToSearch(name), name, path);
}

// Nobody else can put another link in the place of one that passes here, save the directory's own user.
void Way::Follow(const YString& name, const std::string& path, const struct stat& link)
{
    const Level& here = m_levels.back();
    Refuse(link.st_uid != Root && link.st_uid != m_user,
           path + " is a link that belongs to the user " + std::to_string(link.st_uid));
    const bool isKept =
        here.status.st_uid == Root && (!here.isShared || (here.IsSticky() && link.st_nlink == 1));
    Refuse(m_guards && !isKept, path + " is a link, and others can write to its directory");
    Refuse(++m_links > MostLinks, path + " leads through too many links");
    const std::string target = here.directory.ReadSymbolicLink(name).Bytes();
    if (target.starts_with('/'))
        m_levels.erase(m_levels.begin() + 1, m_levels.end());
    m_ahead.Push(target);
}

// For what takes more than searching.
YDirectory Way::OpenLast() const
{
    const Level& last = m_levels.back();
    YDirectory opened = m_levels.size() == 1
                            ? YDirectory::Open("/")
                            : m_levels[m_levels.size() - 2].directory.OpenDirectory(last.name);
    Refuse(FileId(opened.Stat()) != FileId(last.status), last.path + " was replaced meanwhile");
    return opened;
}

void Way::TellOfOthers() const
{
    for (auto level = m_levels.begin(); level + 1 != m_levels.end(); ++level) {
        if (level->isShared && !level->IsSticky())
            m_report.Note(YString(level->path +
                                  " can be written to by others, who may put something else in the "
                                  "place of what is restored there"));
    }
}

void Way::CheckStore() const
{
    if (m_levels.back().isInStore)
        KRT_RAISE_AS("OpenTarget", Krt::MessageType::General, ErrorCode::InvalidArgument,
                     m_path.c_str() << " is the store itself or lies in it; nothing is restored there");
}

void Way::Refuse(bool isRefused, const std::string& reason) const
{
    if (isRefused)
        KRT_RAISE_AS("OpenTarget", Krt::MessageType::General, ErrorCode::InvalidState,
                     "The target " << m_path.c_str() << " is refused: " << reason.c_str());
}

} // namespace

YDirectory OpenTarget(const std::string& path, const YDirectory& store, Report& report)
{
    try {
        return Way(path, store, report).Go();
    } catch (const Krt::Exception::YError& error) {
        if (error.GetType() != Krt::ExceptionType::OsError)
            throw;
        // It names the one component that it is about.
        KRT_RAISE_OS(error.GetOsError(), "Can't restore to " << path.c_str() << ": " << error.GetMessage());
    }
}

} // namespace Agent
