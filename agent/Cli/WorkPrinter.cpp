#include "agent/Cli/WorkPrinter.h"

#include "agent/Repository/Json.h"
#include "agent/Run/Text.h"

#include "Krt/Log/LogSite.h"

namespace Agent {

void WorkPrinter::OnStage(const std::string& text)
{
    m_stage = text;
    m_report.BeginPart();
    KRT_LOG_FREE(Krt::MessageType::General, text.c_str());
    if (m_isJson || m_isQuiet)
        return;
    m_report.Out() << Printable(text) << "\n";
    m_report.Out().Flush();
}

void WorkPrinter::OnNote(const std::string& text)
{
    if (!m_isJson) {
        KRT_LOG_FREE(Krt::MessageType::General, text.c_str());
        m_report.Out() << Printable(text) << "\n";
        m_report.Out().Flush(); // before errors
        return;
    }
    std::string json;
    Repo::JsonWriter writer(json);
    writer.BeginObject();
    writer.Key("message_type");
    writer.String("note");
    writer.Key("message");
    writer.String(text);
    writer.Key("during");
    writer.String(m_stage);
    writer.EndObject();
    m_report.JsonNote(json);
}

void WorkPrinter::OnProgress(std::uint64_t done, std::uint64_t total, const char* unit)
{
    m_report.Progress([&] { return ProgressFacts{.items = done, .totalItems = total, .unit = unit}; });
}

} // namespace Agent
