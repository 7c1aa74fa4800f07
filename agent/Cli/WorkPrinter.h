// WorkPrinter: prints the progress of long work on a repository.
#pragma once

#include "agent/Access/RepositoryOptions.h"
#include "agent/Prune/WorkObserver.h"
#include "agent/Run/Report.h"

#include <string>

namespace Agent {

/// With JSON, notes are documents on standard error that name the part of the work, and parts are not
/// printed. With --quiet, only notes are printed. Parts and notes are logged.
class WorkPrinter : public IWorkObserver
{
public:
    WorkPrinter(Report& report, const RepositoryOptions& options)
        : m_report(report), m_isJson(options.isJson), m_isQuiet(options.isQuiet)
    {}

    void OnStage(const std::string& text) override;
    void OnNote(const std::string& text) override;
    void OnProgress(std::uint64_t done, std::uint64_t total, const char* unit) override;

private:
    Report& m_report;
    const bool m_isJson;
    const bool m_isQuiet;
    std::string m_stage; // the current part
};

} // namespace Agent
