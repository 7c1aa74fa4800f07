#include "Krt/Log/YLog.h"
#include "Krt/Util/Numbers.h"

namespace Krt::Log {

namespace {

struct Channel
{
    unsigned int type;
    const char* name;
};

constexpr Channel channels[] = {
    {MessageType::Runtime, "Runtime"},
    {MessageType::Volume, "Volume"},
    {MessageType::General, "General"},
    {MessageType::FileStat, "FileStat"},
    {MessageType::FileIo, "FileIo"},
    {MessageType::FileInfo, "FileInfo"},
    {MessageType::FileClose, "FileClose"},
    {MessageType::SelectionBuild, "SelectionBuild"},
    {MessageType::SelectionQuery, "SelectionQuery"},
};

} // namespace

YString YRegistrar::TypeToString(unsigned int type) const
{
    for (const Channel& channel : channels) {
        if (channel.type == type)
            return YString(channel.name);
    }
    return Util::NumberToString<unsigned int>(type, false);
}

void YRegistrar::SetEnabledMessages(const std::vector<YString>& names)
{
    unsigned int enabled = 0;
    for (YString name : names) {
        name.TrimWhiteSpacesLeft();
        name.TrimWhiteSpacesRight();
        for (const Channel& channel : channels) {
            if (name == channel.name)
                enabled |= BitOf(channel.type);
        }
    }
    auto kept = std::make_unique<std::vector<YString>>(names);
    const Thread::AnnotatedLock lock(m_mutex);
    m_names = std::move(kept);
    m_enabled.store(enabled, std::memory_order_relaxed);
}

std::vector<YString> YRegistrar::GetEnabledMessages() const
{
    const Thread::AnnotatedLock lock(m_mutex);
    return m_names ? *m_names : std::vector<YString>();
}

namespace Detail {
constinit GlobalRegistrar g_registrar;
}

} // namespace Krt::Log
