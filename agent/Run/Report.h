// Report: what a running command reports to the user.
// - failures and notes go to standard error, a line each; progress too, on a terminal alone
// - what the command was asked for goes to standard output
// - failures, notes and the summary also go to the log, on the channel General
// All text is made printable, so the name of a file can't forge a line or steer the terminal. One thread at a
// time.
#pragma once

#include "agent/Run/Output.h"

#include "Krt/String/YString.h"

#include <chrono>
#include <functional>
#include <string>

namespace Agent {

/// What a run stored or made, for its summary.
struct EntryCounts
{
    unsigned long long files = 0;
    unsigned long long directories = 0;
    unsigned long long links = 0;
    unsigned long long others = 0;
    unsigned long long bytes = 0; ///< of contents

    unsigned long long Entries() const { return files + directories + links + others; }
    /// Counts an entry by the type in its st_mode word.
    void Add(unsigned int mode);
    /// "1 files, 2 directories, 0 links, 0 others".
    std::string ByKind() const;
};

class Report;

/// Copies content block by block: `copyBlock` copies at most `blockSize` bytes from the given offset on and
/// returns their number. Returns the number of bytes copied. Content that grows is followed only up to the
/// block that shows it, since it may grow for ever. Reports the progress, with what `counts` has already;
/// raises InvalidState if the user interrupts.
unsigned long long CopyContent(unsigned long long size, std::size_t blockSize, const EntryCounts& counts,
                               Report& report,
                               const std::function<std::size_t(unsigned long long offset)>& copyBlock);

class Report
{
public:
    Report();
    ~Report();
    Report(const Report&) = delete;
    Report& operator=(const Report&) = delete;

    /// An entry that could not be done, or not wholly. Counted.
    void EntryFailed(const Krt::YString& path, const Krt::YString& reason);
    unsigned long long GetFailed() const { return m_failed; }
    /// The answer to the question that the command was asked is no.
    void AnswerNo() { m_answersNo = true; }
    bool AnswersNo() const { return m_answersNo; }
    /// Reports what the user should know and what is not a failure.
    void Note(const Krt::YString& text);
    /// A JSON document on standard error, as a line.
    void JsonNote(const std::string& json);
    /// What ended the run. With UseJson, a JSON document that also has the exit code.
    void Error(const Krt::YString& text, int exitCode);
    /// The command prints JSON.
    void UseJson() { m_usesJson = true; }

    /// Cheap enough to be called for each entry and each block: prints now and then how far the work has got.
    void Progress(unsigned long long entries, unsigned long long bytes)
    {
        if (m_showsProgress)
            ShowProgress(entries, bytes);
    }
    /// Standard output. Erases the progress first, so that the output begins on a line of its own.
    Output& Out()
    {
        EraseProgress();
        return m_output;
    }
    /// Prints the outcome of work that is done, as lines of printable text. If it can't be written, the work
    /// is still done: `done`, which names it, is reported with the reason, and the run counts as incomplete.
    void Summary(const std::string& done, const std::string& text);
    /// Whether an entry failed or the summary was lost.
    bool IsIncomplete() const { return m_failed != 0 || m_isSummaryLost; }

private:
    void ShowProgress(unsigned long long entries, unsigned long long bytes);
    void EraseProgress()
    {
        if (m_lineStands)
            EraseLine();
    }
    void EraseLine();
    void Line(const std::string& text);

    Output m_output;
    unsigned long long m_failed = 0;
    bool m_answersNo = false;
    bool m_usesJson = false;
    bool m_isSummaryLost = false;
    bool m_showsProgress;
    bool m_lineStands = false; // of progress
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_shown;
};

} // namespace Agent
