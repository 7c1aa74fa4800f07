#include "agent/Backup/BackupRun.h"

#include "agent/Run/Interrupt.h"

#include "Krt/Exception/Raise.h"
#include "Krt/File/Unix/Status.h"

#include <sys/stat.h>

namespace Agent {

using Backup::File::YFile;
using Krt::ErrorCode;
using Krt::YString;
using Krt::File::YPath;

namespace {

constexpr std::size_t BufferSize = 1 << 20;
constexpr int MaxLooks = 5;

// Returns true if the status is that of the entry that the library opened, or saw if it opened nothing.
bool IsSameEntry(const YFile& file, const struct stat& status)
{
    // An inode number may have been freed and reused.
    return file.GetModeFlags() == status.st_mode && file.GetUID() == status.st_uid &&
           file.GetGID() == status.st_gid &&
           file.GetLastChangedTime() == static_cast<unsigned long long>(status.st_ctime) &&
           (!file.IsRegularFile() || file.GetInode() == status.st_ino);
}

} // namespace

BackupRun::BackupRun(StoreSession& session, SnapshotWriter& snapshot, Report& report, bool verbose)
    : m_snapshot(snapshot), m_report(report), m_verbose(verbose), m_objects(session), m_buffer(BufferSize)
{}

bool BackupRun::OnSelected(const WalkedEntry& entry)
{
    const struct stat status = Open(entry);
    if (S_ISSOCK(status.st_mode))
        KRT_RAISE(ErrorCode::NotSupported, "A socket is not stored");
    bool followable = false;
    const auto metadata =
        Backup::File::YMetadataBase::ConstructFromFile(m_file, [&](YPath path, bool mayDescend) {
            followable = mayDescend;
            return Backup::YJobPath::FromFilePath(Backup::YJobPath(), std::move(path), mayDescend);
        });
    Capture(entry, status, metadata->AsUnixFileMetadata());
    m_file.Close();
    m_counts.Add(status.st_mode);
    m_report.Progress(m_counts.Entries(), m_counts.bytes);
    return followable;
}

// Opens the entry and returns its whole status, of which the library keeps only a part. Another process may
// replace the entry between the two calls, so they are repeated until both see the same entry.
struct stat BackupRun::Open(const WalkedEntry& entry)
{
    for (int looks = 1;; ++looks) {
        try {
            m_file.OpenEntry(entry.parent, entry.name, entry.path);
        } catch (const Krt::Exception::YError& error) {
            // Opening a regular file fails with these errors if it has been replaced by a symlink, or by a
            // socket or a missing device.
            if ((error.GetOsError() != ELOOP && error.GetOsError() != ENXIO) || looks == MaxLooks)
                throw;
            continue;
        }
        const struct stat status = m_file.IsRegularFile() ? Krt::File::Stat(m_file.GetHandle())
                                   : looks == 1           ? entry.Status()
                                                          : entry.parent.Stat(entry.name);
        if (IsSameEntry(m_file, status))
            return status;
        KRT_RAISE_UNLESS(looks < MaxLooks, ErrorCode::InvalidState,
                         "The entry was replaced while it was read");
    }
}

void BackupRun::Capture(const WalkedEntry& entry, const struct stat& status,
                        const Backup::File::YUnixFileMetadata& metadata)
{
    m_record.clear();
    metadata.StringifyTo(m_record);
    EntryFacts facts;
    if (S_ISCHR(status.st_mode) || S_ISBLK(status.st_mode))
        facts.device = DeviceNumbers{static_cast<unsigned int>(major(status.st_rdev)),
                                     static_cast<unsigned int>(minor(status.st_rdev))};
    if (S_ISLNK(status.st_mode)) {
        YString target = entry.parent.ReadSymbolicLink(entry.name);
        if (target != metadata.GetSymbolicLinkTarget())
            facts.linkTarget = std::move(target);
    }

    const bool isLinked = HardLinks::MayHave(status);
    const HardLinks::File* const known = isLinked ? m_hardLinks.Find(status, m_file.GetSize()) : nullptr;
    if (known != nullptr) {
        facts.hardLinkGroup = known->group;
        facts.content = known->content;
        facts.readSize = known->readSize;
    } else {
        if (S_ISREG(status.st_mode))
            ReadContent(entry, facts);
        if (isLinked)
            facts.hardLinkGroup = m_hardLinks.Add(status, m_file.GetSize(), facts);
    }
    m_snapshot.Add(m_record, facts);
    if (known != nullptr)
        m_hardLinks.Seen(status);
}

void BackupRun::ReadContent(const WalkedEntry& entry, EntryFacts& facts)
{
    const unsigned long long size = m_file.GetSize();
    m_objects.Begin();
    const auto total = CopyContent(size, BufferSize, m_counts, m_report, [this](unsigned long long) {
        const unsigned int count = m_file.Read(m_buffer.data(), BufferSize);
        m_objects.Append(m_buffer.data(), count);
        return count;
    });
    facts.content = m_objects.Finish();
    m_counts.bytes += total;
    if (total != size) {
        facts.readSize = total;
        Krt::YStream reason{YString()};
        reason << "The file changed while it was read: " << total << " bytes instead of " << size;
        m_report.EntryFailed(entry.path, reason);
    }
}

void BackupRun::OnExcluded(const YPath& path)
{
    ++m_counts.excluded;
    if (m_verbose)
        m_report.Note(YString("excluded: ") + path);
}

void BackupRun::OnMountNotEntered(const YPath& path)
{
    m_report.Note(YString("mount point not entered: ") + path);
}

void BackupRun::OnMountEntered(const YPath& path)
{
    m_report.Note(YString(path) +
                  " is a mount point that a walk would not enter; it is entered since it was named");
}

void BackupRun::OnLinkTaken(const YPath& path)
{
    m_report.Note(YString("Warning: ") + path +
                  " is a link, which is stored itself; for what it leads to, the job must name that path");
}

void BackupRun::OnStoreSkipped(const YPath& path)
{
    m_report.Note(YString(path) + " is the store itself or lies in it, and is left out");
}

void BackupRun::OnFailed(const YPath& path, const YString& reason)
{
    // An interrupt by the user is not a failure of the entry that was being read.
    if (!IsInterrupted())
        m_report.EntryFailed(path, reason);
}

bool BackupRun::IsCancelled()
{
    return IsInterrupted();
}

} // namespace Agent
