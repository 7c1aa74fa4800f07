// WorkPrinter: prints the progress of long work on a repository.
#pragma once

#include "agent/Access/RepositoryOptions.h"
#include "agent/Prune/WorkObserver.h"
#include "agent/Run/Report.h"

#include <chrono>

namespace Agent {

/// With JSON, only notes are printed, as documents on standard error. With --quiet, only notes are printed.
class WorkPrinter : public IWorkObserver
{
public:
    WorkPrinter(Report& report, const RepositoryOptions& options)
        : m_report(report), m_isJson(options.isJson), m_isQuiet(options.isQuiet)
    {}

    void OnStage(const std::string& text) override;
    void OnNote(const std::string& text) override;
    void OnProgress(std::uint64_t done, std::uint64_t total) override;

private:
    Report& m_report;
    const bool m_isJson;
    const bool m_isQuiet;
    std::chrono::steady_clock::time_point m_start; // of the current part
};

} // namespace Agent
