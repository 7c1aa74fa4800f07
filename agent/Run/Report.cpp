#include "agent/Run/Report.h"

#include "agent/Run/Output.h"
#include "agent/Run/Text.h"

#include "Krt/JSON/YTextWriter.h"
#include "Krt/Log/LogSite.h"

#include <algorithm>
#include <sstream>

namespace Agent {

using Krt::YString;
using std::chrono::steady_clock;

namespace {

double SecondsSince(steady_clock::time_point start)
{
    return std::chrono::duration<double>(steady_clock::now() - start).count();
}

} // namespace

Report::Report()
    : m_isTerminal(IsErrorTerminal()), m_sharesTerminal(m_isTerminal && OutputWidth() != 0),
      m_start(steady_clock::now()), m_part(m_start), m_clock(m_isTerminal)
{}

Report::~Report()
{
    EraseProgress();
    try {
        m_output.Flush(); // what a run that failed has found before
    } catch (const std::exception&) {
        // It has already failed for another reason.
    }
    m_output.ContinueAfterLoss({});
}

void Report::EntryFailed(const YString& path, const YString& reason)
{
    ++m_failed;
    ReportFailure(path, reason);
}

void Report::RepositoryFailed(const YString& part, const YString& reason)
{
    ++m_repositoryFailures;
    ReportFailure(part, reason);
}

void Report::ReportFailure(const YString& path, const YString& reason)
{
    KRT_LOG_FREE(Krt::MessageType::General, "Failed: " << path << ": " << reason);
    if (!m_usesJson) {
        Line(Printable(path) + ": " + Printable(reason));
        return;
    }
    std::string json = R"({"message_type":"error","error":{"message":)";
    Krt::JSON::YTextWriter(json).String(reason.Bytes());
    json += "}";
    if (!m_work.empty()) {
        json += R"(,"during":)";
        Krt::JSON::YTextWriter(json).String(m_work);
    }
    json += R"(,"item":)";
    Krt::JSON::YTextWriter(json).String(path.Bytes());
    PrintJsonNote(json + "}");
}

void Report::Note(const YString& text)
{
    KRT_LOG_FREE(Krt::MessageType::General, text);
    Line(Printable(text));
}

void Report::JsonNote(const std::string& json)
{
    KRT_LOG_FREE(Krt::MessageType::General, json.c_str());
    PrintJsonNote(json);
}

void Report::PrintJsonNote(const std::string& json)
{
    EraseProgress();
    PrintError(PrintableJson(json) + "\n");
}

void Report::Error(const YString& text, int exitCode)
{
    KRT_LOG_FREE(Krt::MessageType::General, "Error: " << text);
    if (m_usesJson) {
        std::string json =
            R"({"message_type":"exit_error","code":)" + std::to_string(exitCode) + R"(,"message":)";
        Krt::JSON::YTextWriter(json).String(text.Bytes());
        PrintJsonNote(json + "}");
        return;
    }
    Line("error: " + Printable(text));
}

void Report::NoteLocation(const YString& location)
{
    m_hasLocations = m_hasLocations || (!m_location.IsEmpty() && m_location != location);
    m_location = m_hasLocations ? YString() : location;
}

void Report::BeginPart()
{
    m_hasParts = true;
    RestartProgress();
}

void Report::PrintProgress(const ProgressFacts& facts)
{
    const double seconds = SecondsSince(m_part);
    if (m_usesJson)
        return PrintJsonNote(ProgressJson(facts, seconds));
    const std::string text = ProgressText(facts, seconds);
    if (!m_isTerminal)
        return Line(ProgressLine(text, facts.current, 0));
    if (m_sharesTerminal && m_output.IsInLine())
        return;
    // The last column stays free, since some terminals continue on the next line.
    PrintError("\r\033[K" + ProgressLine(text, facts.current, std::max(ErrorWidth(), 2u) - 1));
    m_isProgressShown = true;
}

std::string Report::GetDuration() const
{
    return DurationText(static_cast<unsigned long long>(SecondsSince(m_start)));
}

void Report::Finish()
{
    if (m_hasParts && !m_usesJson && !m_isQuiet)
        Summary("The work is done", "finished in " + GetDuration() + "\n");
}

void Report::LogSummary(const std::string& text)
{
    for (std::istringstream lines(text); !lines.eof();) {
        std::string line;
        std::getline(lines, line);
        if (!line.empty())
            KRT_LOG_FREE(Krt::MessageType::General, line.c_str());
    }
}

void Report::Summary(const std::string& done, const std::string& text)
{
    LogSummary(text);
    try {
        if (m_dropsOutput) {
            Out().Flush();
            if (m_isOutputLost)
                return PrintError(text);
            m_output.ContinueAfterLoss({}); // if the summary is lost, the text is that of other commands
        }
        Out() << text;
        m_output.Flush();
    } catch (const OutputError& error) {
        m_isOutputLost = true;
        Note(YString(done + ", but its summary is lost: " + error.what()));
    }
}

void Report::GoOnWithoutOutput(LostOutput printed)
{
    m_dropsOutput = printed == LostOutput::Summary;
    m_output.ContinueAfterLoss(
        [this](const OutputError& error) {
            m_isOutputLost = true;
            Note(YString(std::string(error.what()) + ". The work goes on, and its " +
                         (m_dropsOutput ? "summary" : "output") + " follows here"));
        },
        m_dropsOutput);
}

void Report::EraseLine()
{
    PrintError("\r\033[K");
    m_isProgressShown = false;
}

void Report::Line(const std::string& text)
{
    EraseProgress();
    PrintError("kbagent: " + text + "\n");
}

} // namespace Agent
