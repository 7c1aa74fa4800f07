#include "testing/LogCapture.h"

#include "Krt/Log/YLog.h"

#include <sstream>

namespace Testing {

namespace {

// Returns the text after the first `count` blanks.
std::string Behind(const std::string& line, int count)
{
    std::size_t position = 0;
    while (count-- > 0) {
        position = line.find(' ', position);
        if (position == std::string::npos)
            return line;
        ++position;
    }
    return line.substr(position);
}

} // namespace

LogCapture::LogCapture(const std::vector<std::string>& channels)
{
    Krt::Log::InstallGlobalLogger();
    Krt::Log::GetGlobalLogger()->Close();
    Krt::Log::GetGlobalLogger()->Open(Krt::Log::YLog::Param(Krt::File::YPath((m_directory / "log").c_str())));
    std::vector<Krt::YString> names;
    for (const std::string& channel : channels)
        names.emplace_back(channel.c_str());
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages(names);
}

LogCapture::~LogCapture()
{
    Krt::Log::GetGlobalRegistrar()->SetEnabledMessages({});
    Krt::Log::GetGlobalLogger()->Close();
}

std::vector<std::string> LogCapture::Lines() const
{
    std::istringstream text(ReadFile(m_directory / "log"));
    std::vector<std::string> lines;
    for (std::string line; std::getline(text, line);)
        lines.push_back(Behind(line, 2));
    return lines;
}

std::vector<std::string> LogCapture::Texts() const
{
    std::vector<std::string> texts;
    for (const std::string& line : Lines())
        texts.push_back(Behind(line, 1));
    return texts;
}

std::string LogCapture::Text() const
{
    std::string text;
    for (const std::string& each : Texts())
        text += each + "\n";
    return text;
}

} // namespace Testing
