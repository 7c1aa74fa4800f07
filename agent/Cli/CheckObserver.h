// CheckObserver: prints what a check of a repository finds.
#pragma once

#include "agent/Inspect/RepositoryCheck.h"

namespace Agent {

/// With JSON, errors and hints are documents on standard error, as restic prints them.
class CheckObserver : public ICheckObserver
{
public:
    CheckObserver(Report& report, const RepositoryOptions& options)
        : m_report(report), m_isJson(options.isJson), m_isQuiet(options.isQuiet)
    {}

    void OnStage(const std::string& text) override;
    void OnError(const std::string& text) override;
    void OnHint(const std::string& text) override;
    void OnTouched(const Repo::StoredSnapshot& snapshot, const std::string& path,
                   const std::string& reason) override;
    /// Prints a hint on what to do about errors, also with --quiet.
    void Advise(const std::string& text) { Print("hint", text); }
    void OnProgress(const ProgressFacts& facts) override;

private:
    void Print(const char* kind, const std::string& text);

    Report& m_report;
    const bool m_isJson;
    const bool m_isQuiet;
};

} // namespace Agent
