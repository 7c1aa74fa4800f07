#include "Krt/Log/YLog.h"

#include "Krt/Exception/Raise.h"
#include "Krt/Log/YLogContext.h"
#include "Krt/String/Printable.h"
#include "Krt/Util/Numbers.h"
#include "Krt/Util/YUnxHandle.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <new>

namespace Krt::Log {

namespace {

// The local time as text. All of it but the milliseconds is cached for the second, since computing it costs
// more than the rest of a line.
class Clock
{
public:
    // Valid until the next call.
    std::string_view Now()
    {
        using namespace std::chrono;
        const auto now = time_point_cast<milliseconds>(system_clock::now());
        const auto second = floor<seconds>(now);
        if (second != m_second || m_size == 0)
            Update(second);
        auto fraction = static_cast<int>((now - second).count());
        for (std::size_t i = FractionSize; i-- != 0; fraction /= 10)
            m_text[m_fraction + i] = static_cast<char>('0' + fraction % 10);
        return {m_text, m_size};
    }

private:
    static constexpr std::size_t FractionSize = 3;

    void Update(std::chrono::sys_seconds second)
    {
        const std::time_t time = std::chrono::system_clock::to_time_t(second);
        std::tm local{};
        localtime_r(&time, &local);
        m_fraction = std::strftime(m_text, sizeof m_text, "%Y-%m-%dT%H:%M:%S.", &local);
        char* const zone = m_text + m_fraction + FractionSize;
        const long minutes = local.tm_gmtoff / 60;
        const int zoneSize = std::snprintf(
            zone, m_text + sizeof m_text - zone, "%c%02d:%02d", minutes < 0 ? '-' : '+',
            static_cast<int>(std::labs(minutes) / 60 % 100), static_cast<int>(std::labs(minutes) % 60));
        m_size = m_fraction + FractionSize + static_cast<std::size_t>(zoneSize);
        m_second = second;
    }

    std::chrono::sys_seconds m_second{};
    std::size_t m_fraction = 0; // where the milliseconds begin
    std::size_t m_size = 0;     // 0 before the first call
    char m_text[48] = "";
};

std::string_view LevelOf(unsigned int type)
{
    return type == MessageType::General ? " INFO " : " TRACE ";
}

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

class YLog::Impl
{
public:
    // The lock is held from the time of a line to its end, so that the lines are in the order of their times.
    mutable Thread::AnnotatedMutex mutex;
    Util::YUnxHandle file KRT_GUARDED_BY(mutex);
    bool copyToConsole KRT_GUARDED_BY(mutex) = false;
    bool wholeLines KRT_GUARDED_BY(mutex) = false;
    std::atomic<unsigned long long> dropped{0};

    // Returns true if the line was written. Makes it in `memory`.
    bool WriteLine(unsigned int type, std::string_view text, std::string& memory)
    {
        const bool isMade = MakeLine(text, memory);
        const Thread::AnnotatedLock lock(mutex);
        if (file.IsEmpty() || !isMade)
            return false;
        const std::string_view line = Stamped(type, memory);
        if (copyToConsole)
            WriteOnce(STDERR_FILENO, line);
        const ssize_t written = WriteOnce(file.Get(), line);
        if (written == static_cast<ssize_t>(line.size()))
            return true;
        if (written > 0 && wholeLines)
            TakeBack(written);
        return false;
    }

private:
    static constexpr std::size_t StampRoom = 64; // for the time and the level

    // Makes the line after its time and level, which need the lock. Returns false if there is no memory for
    // it.
    static bool MakeLine(std::string_view text, std::string& line)
    {
        try {
            line.assign(StampRoom, ' ');
            String::AppendPrintable(line, text); // so that a file's name can't forge a line
            line += '\n';
            return true;
        } catch (const std::bad_alloc&) {
            return false;
        }
    }

    // Puts the time and the level before the line, in its room for them. Returns the whole line.
    std::string_view Stamped(unsigned int type, std::string& line) KRT_REQUIRES(mutex)
    {
        const std::string_view time = m_clock.Now();
        const std::string_view level = LevelOf(type);
        const std::size_t begin = StampRoom - level.size() - time.size();
        level.copy(line.data() + begin + time.size(), level.size());
        time.copy(line.data() + begin, time.size());
        return std::string_view(line).substr(begin);
    }

    // One call, since the appended pieces of several processes may alternate.
    static ssize_t WriteOnce(int descriptor, std::string_view line)
    {
        return Util::CallSystem([&] { return write(descriptor, line.data(), line.size()); }).value;
    }

    // An appending write leaves the offset after what it wrote. If the file has grown since, it is left
    // unchanged.
    void TakeBack(ssize_t count) const KRT_REQUIRES(mutex)
    {
        const int descriptor = file.Get();
        const off_t end = lseek(descriptor, 0, SEEK_CUR);
        if (end < count || lseek(descriptor, 0, SEEK_END) != end)
            return;
        if (!Util::CallSystem([&] { return ftruncate(descriptor, end - count); }))
            return; // the partial line stays, and still counts as dropped
    }

    Clock m_clock KRT_GUARDED_BY(mutex);
};

YLog::YLog() : m_impl(std::make_unique<Impl>()) {}

YLog::~YLog() = default;

void YLog::Open(Param param)
{
    const Thread::AnnotatedLock lock(m_impl->mutex);
    m_impl->file.Close();
    // A FIFO without a reader in place of the log would block every thread that logs.
    constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK;
    m_impl->file =
        KRT_OS_VALUE(Util::OpenHandle(param.path.CStr(), flags, 0640), "Failed to open log: " << param.path);
    m_impl->copyToConsole = param.copyToConsole;
    m_impl->wholeLines = param.wholeLines;
}

void YLog::Close()
{
    const Thread::AnnotatedLock lock(m_impl->mutex);
    m_impl->file.Close();
}

bool YLog::IsOpen() const
{
    const Thread::AnnotatedLock lock(m_impl->mutex);
    return !m_impl->file.IsEmpty();
}

unsigned long long YLog::GetDroppedCount() const
{
    return m_impl->dropped.load(std::memory_order_relaxed);
}

YStream& YLog::GetThreadSpecificContext()
{
    return YLogContext::OfThread(*this);
}

void YLog::Write(unsigned int type, const YString& message)
{
    std::string memory;
    Write(type, message.Bytes(), memory);
}

void YLog::Write(unsigned int type, std::string_view message, std::string& memory)
{
    if (message.ends_with('\n'))
        message.remove_suffix(1);
    if (!m_impl->WriteLine(type, message, memory))
        m_impl->dropped.fetch_add(1, std::memory_order_relaxed);
}

namespace Detail {
constinit std::atomic<YLog*> g_logger{nullptr};
constinit GlobalRegistrar g_registrar;
} // namespace Detail

void InstallGlobalLogger()
{
    if (GetGlobalLogger() != nullptr)
        return;
    // Never destroyed, so that a message may come from the destructor of any static object.
    auto log = std::make_unique<YLog>();
    YLog* none = nullptr;
    if (Detail::g_logger.compare_exchange_strong(none, log.get(), std::memory_order_acq_rel))
        log.release();
}

} // namespace Krt::Log
