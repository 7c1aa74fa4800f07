// RestoreProgress: counts what a restore from a repository does, and prints it: entries, status and summary,
// as text or as the JSON documents of restic.
#pragma once

#include "agent/Restore/RestoreItem.h"
#include "agent/Restore/RestoreSettings.h"
#include "agent/Run/Report.h"

#include <chrono>

namespace Agent {

class RestoreProgress
{
public:
    /// Begins to measure the time of the restore. `settings` and `report` outlive this object.
    RestoreProgress(const RestoreSettings& settings, Report& report);

    /// An entry of the snapshot will be restored or kept.
    void CountFound(const RestoreItem& item);
    /// The entry was restored or kept, which is printed if it was asked for.
    void CountDone(const RestoreItem& item);
    /// An entry of the target was removed, which is printed if it was asked for.
    void CountDeleted(const std::string& path);
    /// A file of this size was read again, and is that of the snapshot.
    void CountVerified(unsigned long long size);
    /// A file could not be read again.
    void CountUnverified() { ++m_totals.unverified; }
    bool HasFoundNothing() const { return m_totals.files == 0; }

    /// Prints how far the restore has come when that is due, `more` bytes of the current file included. Cheap
    /// enough to be called for each entry and each block.
    void ShowProgress(const std::string& path, unsigned long long more = 0);
    /// Prints how far the verification has come when that is due, `more` bytes of the current file included.
    void ShowVerification(const std::string& path, unsigned long long more);
    /// Prints what was done.
    void PrintSummary();

private:
    struct Totals
    {
        unsigned long long files = 0, restored = 0, skipped = 0, deleted = 0;
        unsigned long long bytes = 0, bytesRestored = 0, bytesSkipped = 0;
        unsigned long long created = 0, replaced = 0, present = 0; // of those restored; dry runs only
        unsigned long long bytesCreated = 0, bytesReplaced = 0;
        unsigned long long verified = 0, unverified = 0, bytesVerified = 0;
    };

    void CountForeseen(const RestoreItem& item, unsigned long long size);
    void Print(const char* action, const std::string& path, std::optional<unsigned long long> size);
    std::string SummaryText() const;
    std::string ForeseenText() const;
    std::string TotalsJson(const char* type) const;

    const RestoreSettings& m_settings;
    Report& m_report;
    Totals m_totals;
    std::chrono::steady_clock::time_point m_start;
};

} // namespace Agent
