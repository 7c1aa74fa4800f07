#include "agent/Dump/DumpTarget.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/TemporaryName.h"

#include "Krt/Exception/Raise.h"

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <sys/stat.h>
#include <unistd.h>

namespace Agent {

using Krt::YString;
using Krt::File::FileId;
using Krt::File::YDirectory;
using Krt::Util::CallSystem;

namespace {

// A directory that the user can't read can't be made durable alone; some file systems, such as those of
// networks, can't do it for any.
void SyncDirectory(const YDirectory& directory, const std::string& file)
{
    // The handle of the directory only finds entries.
    const auto opened = Krt::Util::OwnAboveStandardStreams(CallSystem(
        [&] { return openat(directory.GetHandle().Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    int reason = opened.error;
    try {
        if (reason == 0)
            Krt::File::Sync(opened.value);
    } catch (const Krt::Exception::YError& error) {
        reason = error.GetOsError();
    }
    if (reason != 0 && reason != EACCES && reason != EINVAL && reason != ENOTSUP)
        KRT_RAISE_OS(reason, "Failed to make the name of the file durable: " << file.c_str());
}

} // namespace

DumpTarget::DumpTarget(const std::string& path, Report& report) : m_report(report), m_path(path)
{
    if (m_path.empty())
        return;
    struct stat existing
    {};
    bool exists = stat(m_path.c_str(), &existing) == 0;
    struct stat output
    {};
    if (exists && fstat(STDOUT_FILENO, &output) == 0 && FileId(existing) == FileId(output)) {
        // As with /dev/stdout: others may have written to it before.
        m_path.clear();
        return;
    }
    std::error_code failure;
    std::filesystem::path target = std::filesystem::absolute(m_path);
    std::error_code ignored;
    if (!exists && std::filesystem::is_symlink(target, ignored)) {
        existing = CreateLinked();
        exists = true;
    }
    if (exists)
        target = std::filesystem::canonical(target, failure); // a symlink to the file stays
    if (!failure && (!exists || S_ISREG(existing.st_mode)) && target.has_filename()) {
        m_name = YString(target.filename().string());
        try {
            CreateIn(target.parent_path().string(), exists ? &existing : nullptr);
            return;
        } catch (const Krt::Exception::YError& error) {
            const int number = error.GetOsError();
            if (!exists || (number != EACCES && number != EPERM && number != EROFS))
                throw;
        }
    }
    m_file = KRT_OS_VALUE(Krt::Util::OwnAboveStandardStreams(CallSystem([&] {
                              return open(m_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
                          })),
                          "Failed to create file: " << m_path.c_str());
}

DumpTarget::~DumpTarget()
{
    Discard();
}

void DumpTarget::Discard()
{
    try {
        struct stat now
        {};
        if (m_directory && !m_temporary.IsEmpty())
            m_directory->RemoveFile(m_temporary);
        if (m_directory && m_created && m_directory->StatIfPresent(m_name, now) &&
            FileId(now) == *m_created && now.st_size == 0)
            m_directory->RemoveFile(m_name);
    } catch (const Krt::Exception::YError&) {
        // the error that ended the dump is reported
    }
    m_directory.reset();
}

// Creates the missing file that a symlink names, and returns its status. The system decides whether the
// symlink may be followed. The file is empty until the dump is complete.
struct stat DumpTarget::CreateLinked()
{
    const auto file = KRT_OS_VALUE(Krt::Util::OwnAboveStandardStreams(CallSystem([&] {
                                       return open(m_path.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
                                   })),
                                   "Failed to create file: " << m_path.c_str());
    const struct stat status = Krt::File::Stat(file);
    m_created = FileId(status);
    return status;
}

void DumpTarget::CreateIn(const std::string& directory, const struct stat* existing)
{
    try {
        m_directory.emplace(YDirectory::OpenToSearch(directory.c_str()));
        const YString name = TemporaryName(".kbagent-dump-");
        m_file = m_directory->CreateFile(name);
        m_temporary = name;
    } catch (const Krt::Exception::YError& error) {
        Discard();
        if (error.GetType() != Krt::ExceptionType::OsError)
            throw;
        KRT_RAISE_OS(error.GetOsError(), "Failed to create a file in the directory of " << m_path.c_str());
    }
    // The mode could give others rights if the owner is another.
    if (existing == nullptr || fchown(m_file.Get(), existing->st_uid, existing->st_gid) != 0)
        return;
    try {
        KRT_SYSCALL(fchmod(m_file.Get(), existing->st_mode & 0777),
                    "Failed to set the mode of " << m_path.c_str());
    } catch (...) {
        Discard();
        throw;
    }
}

void DumpTarget::Write(Repo::ByteView bytes)
{
    RaiseIfInterrupted();
    if (m_path.empty()) {
        m_report.Out() << Repo::AsText(bytes);
        return;
    }
    while (!bytes.empty()) {
        const auto count = KRT_SYSCALL(write(m_file.Get(), bytes.data(), bytes.size()),
                                       "Failed to write file: " << m_path.c_str());
        bytes = bytes.subspan(static_cast<std::size_t>(count));
    }
}

void DumpTarget::Close()
{
    if (m_path.empty()) {
        m_report.Out().Flush();
        return;
    }
    if (m_directory)
        Krt::File::Sync(m_file);
    if (const int error = Krt::Util::TryCloseWritten(m_file))
        KRT_RAISE_OS(error, "Failed to write file: " << m_path.c_str());
    if (!m_directory)
        return;
    m_directory->Rename(m_temporary, *m_directory, m_name);
    const YDirectory directory = std::move(*m_directory);
    m_directory.reset();
    SyncDirectory(directory, m_path);
}

} // namespace Agent
