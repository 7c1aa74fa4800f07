#include "agent/Cli/WorkPrinter.h"

#include "agent/Repository/Json.h"
#include "agent/Run/Text.h"

namespace Agent {

void WorkPrinter::OnStage(const std::string& text)
{
    m_start = std::chrono::steady_clock::now();
    if (m_isJson || m_isQuiet)
        return;
    m_report.Out() << Printable(text) << "\n";
    m_report.Out().Flush();
}

void WorkPrinter::OnNote(const std::string& text)
{
    if (!m_isJson) {
        m_report.Out() << Printable(text) << "\n";
        return;
    }
    std::string json;
    Repo::JsonWriter writer(json);
    writer.BeginObject();
    writer.Key("message_type");
    writer.String("note");
    writer.Key("message");
    writer.String(text);
    writer.EndObject();
    m_report.JsonNote(json);
}

void WorkPrinter::OnProgress(std::uint64_t done, std::uint64_t total)
{
    if (m_isJson || m_isQuiet)
        return;
    m_report.ProgressText([&] {
        const auto passed = std::chrono::steady_clock::now() - m_start;
        const double seconds = std::chrono::duration<double>(passed).count();
        std::string text = "[" + DurationText(static_cast<unsigned long long>(seconds)) + "] ";
        if (total == 0)
            return text + std::to_string(done);
        text +=
            std::to_string(100 * done / total) + "%  " + std::to_string(done) + " / " + std::to_string(total);
        if (done != 0 && done < total)
            text += "  " +
                    DurationText(static_cast<unsigned long long>(seconds * static_cast<double>(total - done) /
                                                                 static_cast<double>(done))) +
                    " left";
        return text;
    });
}

} // namespace Agent
