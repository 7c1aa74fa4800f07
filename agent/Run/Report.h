// Report: prints and logs what a command reports to the user.
// - Failures and notes go to standard error, one per line.
// - So does the progress. On a terminal it is one line, which is erased before anything else is printed.
// - The result of the command goes to standard output.
// - Failures, notes and the summary also go to the log, on the channel General.
// All text is made printable, so that the name of a file cannot forge a line or control the terminal. To be
// used by one thread at a time.
#pragma once

#include "agent/Run/Output.h"
#include "agent/Run/Progress.h"

#include "Krt/String/YString.h"

#include <chrono>
#include <string>

namespace Agent {

/// What goes to standard error if standard output can't be written.
enum class LostOutput
{
    All,
    Summary ///< the other lines may be one for each entry
};

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
    /// Prints a JSON document on standard error, as a line, and logs it.
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
    void UseJson()
    {
        m_usesJson = true;
        m_clock.LeaveTerminal();
    }
    /// The command prints only what was asked for, which the progress is with SIGUSR1 and
    /// KBAGENT_PROGRESS_FPS.
    void BeQuiet()
    {
        m_isQuiet = true;
        m_clock.BeQuiet();
    }

    /// The log is copied to standard error, so the progress consists of lines, also on a terminal.
    void PrintProgressAsLines()
    {
        m_isTerminal = false;
        m_clock.LeaveTerminal();
    }

    /// A part of long work begins, to which progress refers from now on.
    void BeginPart();
    /// Progress refers to the time from now on. For a part of work whose summary has the duration.
    void RestartProgress() { m_part = std::chrono::steady_clock::now(); }
    /// Prints how far the work has come when that is due; see ProgressClock. Cheap enough to be called for
    /// each entry and each block. `facts` returns ProgressFacts, and is called only if they are printed.
    template <class Facts>
    void Progress(const Facts& facts)
    {
        if (m_clock.IsDue())
            PrintProgress(facts());
    }
    /// Returns true if a command that prints documents of its own for the progress has to print one. `usual`
    /// is the usual time between two.
    bool IsStatusDue(std::chrono::milliseconds usual) { return m_clock.IsDue(usual); }
    /// Returns true if the user watches the progress, so that totals are worth counting.
    bool IsProgressWatched() const { return (m_isTerminal && !m_isQuiet) || m_clock.IsRequested(); }
    /// Returns standard output. Erases the progress first, so that the output begins on its own line.
    Output& Out()
    {
        EraseProgress();
        return m_output;
    }
    /// Prints the outcome of finished work, as lines of printable text. If it cannot be written, the work is
    /// still done: `done`, which names it, is reported with the reason, and the run counts as incomplete.
    void Summary(const std::string& done, const std::string& text);
    /// Prints and logs lines of printable text that say what was done.
    void PrintAndLog(const std::string& text)
    {
        LogSummary(text);
        Out() << text;
        m_output.Flush();
    }
    /// Logs the lines of a summary that is not printed.
    void LogSummary(const std::string& text);
    /// Prints how long the run took, if the command has not said so in a summary: after work of several
    /// parts.
    void Finish();
    /// How long the run took, as in "1:02".
    std::string GetDuration() const;
    /// The command does work in several steps. From now on, standard output that can't be written does not
    /// stop it halfway: that is reported, the rest of the output or its summary goes to standard error, and
    /// the run counts as incomplete.
    void GoOnWithoutOutput(LostOutput printed = LostOutput::All);
    /// Returns true if an entry or a part of the repository failed, or output was lost.
    bool IsIncomplete() const { return m_failed != 0 || m_repositoryFailures != 0 || m_isOutputLost; }

private:
    void ReportFailure(const Krt::YString& path, const Krt::YString& reason);
    void PrintProgress(const ProgressFacts& facts);
    void PrintJsonNote(const std::string& json);
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
    bool m_isOutputLost = false;
    bool m_dropsOutput = false;  // except for the summary, once output is lost
    bool m_isTerminal;           // standard error
    const bool m_sharesTerminal; // standard output is a terminal, too
    bool m_isQuiet = false;
    bool m_hasParts = false;
    bool m_isProgressShown = false; // on the last line of the terminal
    const std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_part; // begin of the part
    ProgressClock m_clock;
};

} // namespace Agent
