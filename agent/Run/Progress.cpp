#include "agent/Run/Progress.h"

#include "agent/Run/Interrupt.h"
#include "agent/Run/Text.h"

#include "Krt/Environment/Process.h"
#include "Krt/JSON/YTextWriter.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <string_view>

namespace Agent {

using std::chrono::milliseconds;
using std::chrono::steady_clock;

namespace {

constexpr milliseconds OnTerminals{100};
constexpr milliseconds Elsewhere{30000};

// The part that is done, from 0 to 1; nothing if there are no totals.
std::optional<double> PartOf(const ProgressFacts& facts)
{
    const std::uint64_t total = facts.totalBytes != 0 ? facts.totalBytes : facts.totalItems;
    const std::uint64_t done = facts.totalBytes != 0 ? facts.bytes : facts.items;
    if (total == 0)
        return std::nullopt;
    return std::min(1.0, static_cast<double>(done) / static_cast<double>(total));
}

unsigned long long Whole(double number)
{
    return static_cast<unsigned long long>(number);
}

// Returns a bound of the columns of the character that begins with the byte: wide characters have two.
unsigned int ColumnsOf(unsigned char byte)
{
    constexpr unsigned char FirstContinuation = 0x80, FirstLead = 0xC0, FirstWideLead = 0xE1;
    if (byte >= FirstContinuation && byte < FirstLead)
        return 0;
    return byte >= FirstWideLead ? 2 : 1;
}

unsigned int ColumnsOf(std::string_view text)
{
    unsigned int columns = 0;
    for (const char byte : text)
        columns += ColumnsOf(static_cast<unsigned char>(byte));
    return columns;
}

// Removes whole characters from the end.
std::string CutTo(std::string text, unsigned int columns)
{
    unsigned int used = 0;
    for (std::size_t i = 0; i < text.size(); ++i) {
        used += ColumnsOf(static_cast<unsigned char>(text[i]));
        if (used > columns) {
            text.resize(i);
            break;
        }
    }
    return text;
}

std::optional<milliseconds> RequestedInterval()
{
    for (const char* const name : {"KBAGENT_PROGRESS_FPS", "RESTIC_PROGRESS_FPS"}) {
        const char* const text = Krt::Environment::IsPrivilegeRaised() ? nullptr : std::getenv(name);
        if (text == nullptr || *text == '\0')
            continue;
        char* end = nullptr;
        const double timesPerSecond = std::strtod(text, &end);
        constexpr double fewest = 1.0 / (24 * 60 * 60);
        if (*end != '\0' || !std::isfinite(timesPerSecond) || timesPerSecond <= 0)
            return std::nullopt;
        return milliseconds(Whole(1000 / std::max(timesPerSecond, fewest)));
    }
    return std::nullopt;
}

} // namespace

std::string ProgressText(const ProgressFacts& facts, double seconds)
{
    const std::optional<double> part = PartOf(facts);
    std::string text = "[" + DurationText(Whole(seconds)) + "] ";
    if (part)
        text += std::to_string(Whole(100 * *part)) + "%  ";
    text += std::to_string(facts.items);
    if (facts.totalItems != 0)
        text += " / " + std::to_string(facts.totalItems);
    if (*facts.unit != '\0')
        text += std::string(" ") + facts.unit;
    if (facts.bytes != 0 || facts.totalBytes != 0) {
        text += ", " + ShortSize(facts.bytes);
        if (facts.totalBytes != 0)
            text += " / " + ShortSize(facts.totalBytes);
        text += ", " + ShortSize(Whole(static_cast<double>(facts.bytes) / std::max(seconds, 0.001))) + "/s";
    }
    if (part && *part > 0 && *part < 1)
        text += ", " + DurationText(Whole(seconds * (1 - *part) / *part)) + " left";
    return text;
}

std::string ProgressLine(const std::string& text, const std::string& path, unsigned int columns)
{
    constexpr std::string_view Between = "  ", Ellipsis = "...";
    const std::string shown = Printable(path);
    if (columns == 0)
        return text + (shown.empty() ? "" : std::string(Between) + shown);
    const unsigned int used = ColumnsOf(text) + static_cast<unsigned int>(Between.size());
    if (shown.empty() || used + 2 * Ellipsis.size() > columns)
        return CutTo(text, columns);
    const unsigned int left = columns - used;
    unsigned int width = ColumnsOf(shown);
    if (width <= left)
        return text + std::string(Between) + shown;
    std::size_t begin = 0;
    while (begin < shown.size() &&
           (width + Ellipsis.size() > left || ColumnsOf(static_cast<unsigned char>(shown[begin])) == 0))
        width -= ColumnsOf(static_cast<unsigned char>(shown[begin++]));
    return text + std::string(Between) + std::string(Ellipsis) + shown.substr(begin);
}

std::string ProgressJson(const ProgressFacts& facts, double seconds)
{
    std::string json = R"({"message_type":"status","seconds_elapsed":)" + std::to_string(Whole(seconds));
    const auto number = [&json](const char* key, std::uint64_t value) {
        if (value != 0)
            json += std::string(",\"") + key + "\":" + std::to_string(value);
    };
    if (const std::optional<double> part = PartOf(facts))
        json += ",\"percent_done\":" + std::to_string(*part);
    number("total_items", facts.totalItems);
    number("items_done", facts.items);
    number("total_bytes", facts.totalBytes);
    number("bytes_done", facts.bytes);
    if (!facts.current.empty()) {
        json += ",\"current_files\":[";
        Krt::JSON::YTextWriter(json).String(facts.current);
        json += "]";
    }
    return json + "}";
}

ProgressClock::ProgressClock(bool isTerminal)
    : m_usual(isTerminal ? OnTerminals : Elsewhere), m_requested(RequestedInterval()),
      m_last(steady_clock::now())
{}

void ProgressClock::LeaveTerminal()
{
    m_usual = Elsewhere;
}

bool ProgressClock::IsDue(milliseconds usual)
{
    const steady_clock::time_point now = steady_clock::now();
    const bool isDue = (m_requested || !m_isQuiet) && now - m_last >= m_requested.value_or(usual);
    if (!TakeProgressRequest() && !isDue)
        return false;
    m_last = now;
    return true;
}

} // namespace Agent
