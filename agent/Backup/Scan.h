// Scan: counts what a walk selects, on a thread of its own, so that the progress of a backup has totals.
#pragma once

#include "agent/Walk/Roots.h"
#include "agent/Walk/Walker.h"

#include <atomic>
#include <chrono>
#include <optional>
#include <thread>

namespace Agent {

/// What a scan has found.
struct ScanTotals
{
    std::uint64_t files = 0;
    std::uint64_t bytes = 0; ///< of the files
    bool isComplete = false; ///< the scan has ended
    double seconds = 0;      ///< how long it took; 0 until it has ended
};

/// Final: its thread calls virtual functions until the destructor has joined it.
class Scan final : private IWalkVisitor
{
public:
    /// Begins. The job and the filter outlive the scan. The directory with the status `skipped`, if any, is
    /// left out. What can't be read is not counted, and reported by the backup itself.
    Scan(const Job& job, const EntryFilter& filter, const std::optional<struct stat>& skipped);
    /// Ends it, if it is not complete.
    ~Scan() override;

    /// What was found so far. Any thread.
    ScanTotals Get() const;

private:
    void Run();

    bool OnSelected(const WalkedEntry& entry) override;
    void OnExcluded(const Krt::File::YPath&) override {}
    void OnMountNotEntered(const Krt::File::YPath&) override {}
    void OnMountEntered(const Krt::File::YPath&) override {}
    void OnLinkTaken(const Krt::File::YPath&) override {}
    void OnSkipped(const Krt::File::YPath&) override {}
    void OnFailed(const Krt::File::YPath&, const Krt::YString&) override {}
    bool IsCancelled() override;

    Walker m_walker;
    std::atomic<std::uint64_t> m_files{0};
    std::atomic<std::uint64_t> m_bytes{0};
    std::atomic<double> m_seconds{0}; // set when the scan has ended
    std::atomic<bool> m_isComplete{false};
    std::atomic<bool> m_isEnding{false};
    std::thread m_thread;
};

} // namespace Agent
