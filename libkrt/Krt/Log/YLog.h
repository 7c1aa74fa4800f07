// The process's log: one file, written line by line by any number of threads, and the registrar that knows
// which channels are enabled. Sites use the macros of Krt/Log/LogSite.h.
#pragma once

#include "Krt/File/YPath.h"
#include "Krt/Log/MessageType.h"
#include "Krt/Log/YStream.h"
#include "Krt/Thread/ThreadSafety.h"

#include <atomic>
#include <memory>
#include <vector>

namespace Krt::Log {

/// What a logging site needs of a logger.
class KRT_API YLogBase
{
public:
    virtual ~YLogBase() = default;
    /// The calling thread's own stream. Text up to Modifiers::EndLine becomes one message; the next starts
    /// empty.
    virtual YStream& GetThreadSpecificContext() = 0;
};

/// A log file. Any number of threads write; the control thread opens and closes.
class KRT_API YLog : public YLogBase
{
public:
    /// How to open a log.
    struct Param
    {
        /// The file, with the defaults below.
        explicit Param(const File::YPath& logPath) : path(logPath) {}
        File::YPath path;           ///< where the lines go
        bool copyToConsole = false; ///< also write each line to standard error
        bool wholeLines = false;    ///< take back the part of a line that a full disk has cut short
    };

    /// Closed.
    YLog();
    ~YLog() override;
    YLog(const YLog&) = delete;
    YLog& operator=(const YLog&) = delete;

    /// Opens the file for appending with mode 0640, not through a symbolic link; a missing parent is an
    /// error. Never waits for a FIFO's reader: without one that is an error, too. Raises the operating
    /// system's error and leaves the log closed. A log that is open is closed first.
    void Open(Param param);
    /// Ends the log if one is open. Messages of threads meanwhile are dropped and counted.
    void Close();
    /// Whether messages are written at this moment.
    bool IsOpen() const;
    /// Messages dropped, while closed or because a write failed, since this object was made.
    unsigned long long GetDroppedCount() const;
    YStream& GetThreadSpecificContext() override;
    /// Appends one line to the file: local time in ISO 8601 with milliseconds and zone, the channel's level
    /// ("INFO" for General, "TRACE" for others) and the message, each behind a blank. A line end at the
    /// message's end is left out; inside, what is not printable is escaped as Krt/String/Printable.h tells,
    /// so a message is one line that steers nothing.
    /// Doesn't raise: what can't be written is dropped and counted. Any thread.
    void Write(unsigned int type, const YString& message);

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// The enabled channels.
class KRT_API YRegistrar
{
public:
    constexpr YRegistrar() = default;
    YRegistrar(const YRegistrar&) = delete;
    YRegistrar& operator=(const YRegistrar&) = delete;

    /// Lock-free, from any thread.
    bool IsMessageEnabled(unsigned int type) const
    {
        return (m_enabled.load(std::memory_order_relaxed) & BitOf(type)) != 0;
    }
    /// The channel's name, such as "FileIo"; a number without a channel is given in decimal.
    YString TypeToString(unsigned int type) const;
    /// Replaces the set of enabled channels. Blanks around a name don't count; names that no channel has are
    /// kept and match nothing.
    void SetEnabledMessages(const std::vector<YString>& channels);
    /// The names as they were set.
    std::vector<YString> GetEnabledMessages() const;

private:
    // A channel's place in the set of enabled ones; nothing for a number without a channel. A site's channel
    // is a constant, so that its bit is one too.
    static constexpr unsigned int BitOf(unsigned int type)
    {
        switch (type) {
        case MessageType::Runtime:
            return 1U << 0;
        case MessageType::Volume:
            return 1U << 1;
        case MessageType::General:
            return 1U << 2;
        case MessageType::FileStat:
            return 1U << 3;
        case MessageType::FileIo:
            return 1U << 4;
        case MessageType::FileInfo:
            return 1U << 5;
        case MessageType::FileClose:
            return 1U << 6;
        case MessageType::SelectionBuild:
            return 1U << 7;
        case MessageType::SelectionQuery:
            return 1U << 8;
        default:
            return 0;
        }
    }

    std::atomic<unsigned int> m_enabled{0};
    mutable Thread::AnnotatedMutex m_mutex;
    // A pointer, null for none, so that the process's registrar needs no code to begin its life.
    std::unique_ptr<std::vector<YString>> m_names KRT_GUARDED_BY(m_mutex);
};

namespace Detail {
// Usable from the first static constructor to the last static destructor of the process.
union GlobalRegistrar {
    constexpr GlobalRegistrar() : registrar() {}
    ~GlobalRegistrar() {}
    YRegistrar registrar;
};
extern KRT_API GlobalRegistrar g_registrar;
extern KRT_API std::atomic<YLog*> g_logger;
} // namespace Detail

/// Makes the process's logger, closed; a second call does nothing. Nothing else creates one.
KRT_API void InstallGlobalLogger();
/// Null until InstallGlobalLogger.
inline YLog* GetGlobalLogger()
{
    return Detail::g_logger.load(std::memory_order_acquire);
}
/// Always usable; starts with no channel enabled.
inline YRegistrar* GetGlobalRegistrar()
{
    return &Detail::g_registrar.registrar;
}
/// As the registrar's operations.
inline bool IsMessageEnabled(unsigned int type)
{
    return GetGlobalRegistrar()->IsMessageEnabled(type);
}
inline YString TypeToString(unsigned int type)
{
    return GetGlobalRegistrar()->TypeToString(type);
}

} // namespace Krt::Log
