#include "agent/Cli/CheckObserver.h"

#include "agent/Access/SnapshotChoice.h"

#include "Krt/Log/LogSite.h"

namespace Agent {

void CheckObserver::OnStage(const std::string& text)
{
    m_report.BeginPart();
    KRT_LOG_FREE(Krt::MessageType::General, text.c_str());
    if (m_isJson || m_isQuiet)
        return;
    m_report.Out() << text << "\n";
    m_report.Out().Flush();
}

void CheckObserver::OnError(const std::string& text)
{
    Print("error", text);
}

void CheckObserver::OnHint(const std::string& text)
{
    if (!m_isQuiet)
        Print("hint", text);
}

void CheckObserver::OnTouched(const Repo::StoredSnapshot& snapshot, const std::string& path,
                              const std::string& reason)
{
    Print("touched", DescribeSnapshot(snapshot) + ": " + path + ": " + reason);
}

void CheckObserver::OnProgress(const ProgressFacts& facts)
{
    if (*facts.unit != '\0') // otherwise the part has counted nothing; the next one answers a request
        m_report.Progress([&] { return facts; });
}

void CheckObserver::Print(const char* kind, const std::string& text)
{
    if (!m_isJson) {
        m_report.Note(Krt::YString(std::string_view(kind + (": " + text))));
        return;
    }
    std::string json;
    Repo::JsonWriter writer(json);
    writer.BeginObject();
    writer.Key("message_type");
    writer.String(kind);
    writer.Key("message");
    writer.String(text);
    writer.EndObject();
    m_report.JsonNote(json);
}

} // namespace Agent
