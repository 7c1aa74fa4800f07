#include "agent/Run/Report.h"

#include "agent/Run/Output.h"
#include "agent/Run/Text.h"

#include "Krt/JSON/YTextWriter.h"
#include "Krt/Log/LogSite.h"

#include <cstdio>
#include <sstream>

namespace Agent {

using Krt::YString;
using std::chrono::steady_clock;

Report::Report() : m_showsProgress(IsErrorTerminal()), m_start(steady_clock::now()), m_shown(m_start) {}

Report::~Report()
{
    EraseProgress();
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
    JsonNote(json + "}");
}

void Report::Note(const YString& text)
{
    KRT_LOG_FREE(Krt::MessageType::General, text);
    Line(Printable(text));
}

void Report::JsonNote(const std::string& json)
{
    EraseProgress();
    std::fputs((PrintableJson(json) + "\n").c_str(), stderr);
}

void Report::Error(const YString& text, int exitCode)
{
    KRT_LOG_FREE(Krt::MessageType::General, "Error: " << text);
    if (m_usesJson) {
        std::string json =
            R"({"message_type":"exit_error","code":)" + std::to_string(exitCode) + R"(,"message":)";
        Krt::JSON::YTextWriter(json).String(text.Bytes());
        JsonNote(json + "}");
        return;
    }
    Line("error: " + Printable(text));
}

void Report::NoteLocation(const YString& location)
{
    m_hasLocations = m_hasLocations || (!m_location.IsEmpty() && m_location != location);
    m_location = m_hasLocations ? YString() : location;
}

void Report::ShowProgress(unsigned long long entries, unsigned long long bytes)
{
    ShowProgress([&] {
        const double seconds = std::chrono::duration<double>(steady_clock::now() - m_start).count();
        const auto rate = static_cast<unsigned long long>(static_cast<double>(bytes) / seconds);
        return std::to_string(entries) + " entries, " + ShortSize(bytes) + ", " + ShortSize(rate) + "/s";
    });
}

void Report::ShowProgress(const std::function<std::string()>& text)
{
    static constexpr std::chrono::milliseconds Interval{200};
    const steady_clock::time_point now = steady_clock::now();
    if (now - m_shown < Interval)
        return;
    m_shown = now;
    std::fputs(("\r\033[K" + text()).c_str(), stderr);
    m_isProgressShown = true;
}

void Report::Summary(const std::string& done, const std::string& text)
{
    for (std::istringstream lines(text); !lines.eof();) {
        std::string line;
        std::getline(lines, line);
        if (!line.empty())
            KRT_LOG_FREE(Krt::MessageType::General, line.c_str());
    }
    try {
        Out() << text;
        m_output.Flush();
    } catch (const OutputError& error) {
        m_isSummaryLost = true;
        Note(YString(done + ", but its summary is lost: " + error.what()));
    }
}

void Report::EraseLine()
{
    std::fputs("\r\033[K", stderr);
    m_isProgressShown = false;
}

void Report::Line(const std::string& text)
{
    EraseProgress();
    std::fputs(("kbagent: " + text + "\n").c_str(), stderr);
}

} // namespace Agent
