#include "agent/Restore/Target.h"

#include "agent/Run/Unix/SecurePathWalk.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Status.h"

#include <algorithm>
#include <cerrno>
#include <optional>

namespace Agent {

using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;

namespace {

constexpr uid_t Root = 0;

class TargetWalk : public SecurePathWalk
{
public:
    TargetWalk(const std::string& path, const YDirectory* repository)
        : SecurePathWalk("OpenTarget", "The target", path)
    {
        if (repository != nullptr)
            m_repository = FileId(repository->Stat());
    }
    YDirectory Open();
    void ReportSharedDirectories(Report& report) const;

private:
    void CheckDirectory(const Directory& entered) const override;
    void CheckOther(const Entry& entry) const override;
    bool CreateMissing(const Entry& entry) override;
    YDirectory OpenLast() const;
    void CheckRepository() const;

    std::optional<FileId> m_repository;
};

YDirectory TargetWalk::Open()
{
    Walk();
    CheckRepository();
    return OpenLast();
}

// In a directory that others can write to, a third user may have moved a directory there.
void TargetWalk::CheckDirectory(const Directory& entered) const
{
    if (!GetDirectories().empty())
        Refuse(GetCurrent().isShared && entered.status.st_uid != Root &&
                   entered.status.st_uid != GetCurrent().status.st_uid,
               entered.path + " belongs to the user " + std::to_string(entered.status.st_uid) +
                   ", and others can write to its directory");
}

void TargetWalk::CheckOther(const Entry& entry) const
{
    KRT_RAISE_OS(ENOTDIR, "Failed to open directory: " << entry.name);
}

bool TargetWalk::CreateMissing(const Entry& entry)
{
    CheckRepository();
    try {
        GetCurrent().directory.MakeDirectory(entry.name, 0777);
    } catch (const Krt::Exception::YError& error) {
        if (error.GetOsError() != EEXIST) // another process may have made it
            throw;
    }
    return true;
}

// Opens the directory for reading, which is more than searching.
YDirectory TargetWalk::OpenLast() const
{
    const std::vector<Directory>& all = GetDirectories();
    YDirectory opened = all.size() == 1 ? YDirectory::Open("/")
                                        : all[all.size() - 2].directory.OpenDirectory(all.back().name);
    Refuse(FileId(opened.Stat()) != FileId(all.back().status), all.back().path + " was replaced meanwhile");
    return opened;
}

void TargetWalk::ReportSharedDirectories(Report& report) const
{
    const std::vector<Directory>& all = GetDirectories();
    for (auto parent = all.begin(); parent + 1 != all.end(); ++parent) {
        if (parent->isShared && !parent->IsSticky())
            report.Note(YString(parent->path + " can be written to by others, who may put something else in "
                                               "the place of what is restored there"));
    }
}

void TargetWalk::CheckRepository() const
{
    const auto isRepository = [this](const Directory& each) {
        return m_repository && FileId(each.status) == *m_repository;
    };
    if (std::any_of(GetDirectories().begin(), GetDirectories().end(), isRepository))
        KRT_RAISE_AS("OpenTarget", Krt::MessageType::General, Krt::ErrorCode::InvalidArgument,
                     GetPath().c_str()
                         << " is the repository itself or a folder in it; nothing is restored there");
}

} // namespace

YDirectory OpenTarget(const std::string& path, const YDirectory* repository, Report& report)
{
    try {
        TargetWalk walk(path, repository);
        YDirectory target = walk.Open();
        walk.ReportSharedDirectories(report);
        return target;
    } catch (const Krt::Exception::YError& error) {
        if (error.GetType() != Krt::ExceptionType::OsError)
            throw;
        // It names the one component that it is about.
        KRT_RAISE_OS(error.GetOsError(), "Can't restore to " << path.c_str() << ": " << error.GetMessage());
    }
}

} // namespace Agent
