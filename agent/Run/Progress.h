// Progress: how far work has come, as one line of text, and when that line is due.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace Agent {

/// How far work has come. What is not known is 0 or empty.
struct ProgressFacts
{
    std::uint64_t items = 0; ///< that are done
    std::uint64_t totalItems = 0;
    const char* unit = "";   ///< what items are, as in "files"
    std::uint64_t bytes = 0; ///< that are done
    std::uint64_t totalBytes = 0;
    std::string current = {}; ///< the path in work; not made printable
};

/// The line without the path, as in "[0:12] 42%  21 / 50 files, 1.2 GiB / 3.0 GiB, 100.0 MiB/s, 0:18 left".
std::string ProgressText(const ProgressFacts& facts, double seconds);
/// The line with the path, of at most `columns` columns: the beginning of the path is left out, then the end
/// of the text. With 0 columns, all of both.
std::string ProgressLine(const std::string& text, const std::string& path, unsigned int columns);
/// The document of type "status" for work that has none of its own.
std::string ProgressJson(const ProgressFacts& facts, double seconds);

/// Decides when progress is due: 10 times a second on a terminal, every 30 seconds elsewhere. The variable
/// KBAGENT_PROGRESS_FPS, or RESTIC_PROGRESS_FPS, is a number of times a second in place of that, and the only
/// one with --quiet. SIGUSR1 asks for the progress at once.
class ProgressClock
{
public:
    explicit ProgressClock(bool isTerminal);

    /// The command prints only what was asked for.
    void BeQuiet() { m_isQuiet = true; }
    /// Progress is not one line that is replaced, so it is due as without a terminal.
    void LeaveTerminal();
    /// Returns true if the user has set how often progress is due.
    bool IsRequested() const { return m_requested.has_value(); }
    /// Returns true if progress is due, which then counts as printed. Cheap enough to be called for each
    /// entry and each block.
    bool IsDue() { return IsDue(m_usual); }
    /// IsDue for documents, which have another usual interval.
    bool IsDue(std::chrono::milliseconds usual);

private:
    std::chrono::milliseconds m_usual;
    std::optional<std::chrono::milliseconds> m_requested;
    bool m_isQuiet = false;
    std::chrono::steady_clock::time_point m_last;
};

} // namespace Agent
