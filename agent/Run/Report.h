// Report: prints and logs what a command reports to the user.
// - Failures and notes go to standard error, one per line; so does the progress if it is a terminal.
// - The result of the command goes to standard output.
// - Failures, notes and the summary also go to the log, on the channel General.
// All text is made printable, so that the name of a file cannot forge a line or control the terminal. To be
// used by one thread at a time.
#pragma once

#include "agent/Run/Output.h"

#include "Krt/String/YString.h"

#include <chrono>
#include <functional>
#include <string>

namespace Agent {

class Report
{
public:
    Report();
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    /// Reports and counts an entry that failed, wholly or in part. With UseJson, prints a JSON document.
    void EntryFailed(const Krt::YString& path, const Krt::YString& reason);
    unsigned long long GetFailed() const { return m_failed; }
    /// Reports and counts a part of the repository that is damaged or can't be read. It is not an entry that
    /// failed, but its document is that of one.
    void RepositoryFailed(const Krt::YString& part, const Krt::YString& reason);
    unsigned long long GetRepositoryFailures() const { return m_repositoryFailures; }
    /// Records that the answer of the command is no.
    void AnswerNo() { m_answersNo = true; }
    bool AnswersNo() const { return m_answersNo; }
    /// Reports something that the user should know and that is not a failure.
    void Note(const Krt::YString& text);
    /// Prints a JSON document on standard error, as a line.
    void JsonNote(const std::string& json);
    /// Reports the error that ended the run. With UseJson, prints a JSON document that also has the exit
    /// code.
    void Error(const Krt::YString& text, int exitCode);
    /// The work in which entries fail, as in "restore", for JSON documents.
    void NameWork(const std::string& work) { m_work = work; }
    /// Notes the directory of the repository that the command uses. With several, there is none.
    void NoteLocation(const Krt::YString& location);
    /// The directory of the repository; empty if it is not known.
    const Krt::YString& GetLocation() const { return m_location; }
    /// The command prints JSON.
    void UseJson() { m_usesJson = true; }

    /// Prints from time to time how far the work has come. Cheap enough to be called for each entry and each
    /// block.
    void Progress(unsigned long long entries, unsigned long long bytes)
    {
        if (m_showsProgress)
            ShowProgress(entries, bytes);
    }
    /// Prints a line of printable text in place of the progress, from time to time as Progress does. `text`
    /// is called only if it is printed.
    void ProgressText(const std::function<std::string()>& text)
    {
        if (m_showsProgress)
            ShowProgress(text);
    }
    /// Returns standard output. Erases the progress first, so that the output begins on its own line.
    Output& Out()
    {
        EraseProgress();
        return m_output;
    }
    /// Prints the outcome of finished work, as lines of printable text. If it cannot be written, the work is
    /// still done: `done`, which names it, is reported with the reason, and the run counts as incomplete.
    void Summary(const std::string& done, const std::string& text);
    /// Returns true if an entry or a part of the repository failed, or the summary was lost.
    bool IsIncomplete() const { return m_failed != 0 || m_repositoryFailures != 0 || m_isSummaryLost; }

private:
    void ReportFailure(const Krt::YString& path, const Krt::YString& reason);
    void ShowProgress(unsigned long long entries, unsigned long long bytes);
    void ShowProgress(const std::function<std::string()>& text);
    void EraseProgress()
    {
        if (m_isProgressShown)
            EraseLine();
    }
    void EraseLine();
    void Line(const std::string& text);

    Output m_output;
    unsigned long long m_failed = 0;
    unsigned long long m_repositoryFailures = 0;
    bool m_answersNo = false;
    bool m_usesJson = false;
    std::string m_work;
    Krt::YString m_location;
    bool m_hasLocations = false; // several
    bool m_isSummaryLost = false;
    bool m_showsProgress;
    bool m_isProgressShown = false; // on the last line of the terminal
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_shown;
};

} // namespace Agent
