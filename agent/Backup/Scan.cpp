#include "agent/Backup/Scan.h"

#include "agent/Run/Interrupt.h"

#include "Backup/File/Unix/File.h"

#include "Krt/File/File.h"
#include "Krt/Log/LogSite.h"

namespace Agent {

Scan::Scan(const Job& job, const EntryFilter& filter, const std::optional<struct stat>& skipped)
    : m_walker(job.rules, job.roots, *this)
{
    m_walker.Filter(filter, job.named);
    if (skipped)
        m_walker.Skip(*skipped);
    m_thread = std::thread([this] { Run(); });
}

Scan::~Scan()
{
    m_isEnding = true;
    m_thread.join();
}

ScanTotals Scan::Get() const
{
    const bool isComplete = m_isComplete;
    return {m_files, m_bytes, isComplete, m_seconds};
}

void Scan::Run()
{
    const auto begin = std::chrono::steady_clock::now();
    try {
        m_walker.Run();
    } catch (const std::exception& error) {
        KRT_LOG_FREE(Krt::MessageType::General, "The scan has failed: " << error.what());
        return;
    }
    if (IsCancelled())
        return;
    m_seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();
    m_isComplete = true;
}

bool Scan::OnSelected(const WalkedEntry& entry)
{
    if (entry.IsDirectory())
        return !entry.IsBoundary() && Backup::File::IsFollowableDirectoryFromKrtAttributes(
                                          entry.path, Krt::File::AttributeDirectory);
    const struct stat& status = entry.Status();
    if (S_ISREG(status.st_mode)) {
        ++m_files;
        m_bytes += static_cast<std::uint64_t>(status.st_size);
    }
    return false;
}

bool Scan::IsCancelled()
{
    return m_isEnding || IsInterrupted();
}

} // namespace Agent
