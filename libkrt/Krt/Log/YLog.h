#pragma once

/// @file
/// The process's log: one file, to which any number of threads write line by line, and the registrar of the
/// enabled channels. Code logs with the macros of Krt/Log/LogSite.h.

#include "Krt/File/YPath.h"
#include "Krt/Log/MessageType.h"
#include "Krt/Log/YStream.h"
#include "Krt/Thread/ThreadSafety.h"

#include <atomic>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace Krt::Log {

class YLogContext;

/// The interface of a logger for the logging macros.
class KRT_API YLogBase
{
public:
    virtual ~YLogBase() = default;
    /// The calling thread's own stream. Text up to Modifiers::EndLine becomes one message; the next message
    /// starts empty.
    virtual YStream& GetThreadSpecificContext() = 0;
};

/// A log file. Any number of threads write to it; the control thread opens and closes it.
class KRT_API YLog : public YLogBase
{
public:
    /// The parameters of Open.
    struct Param
    {
        /// Logs to `logPath`, with the defaults below.
        explicit Param(const File::YPath& logPath) : path(logPath) {}
        File::YPath path;           ///< path of the log file
        bool copyToConsole = false; ///< also write each line to standard error
        bool wholeLines = false;    ///< remove the part of a line that a full disk has cut short
    };

    /// A closed log.
    YLog();
    ~YLog() override;
    YLog(const YLog&) = delete;
    YLog& operator=(const YLog&) = delete;

    /// Opens the file for appending with mode 0640, not through a symlink. A missing parent directory is an
    /// error, and so is a FIFO without a reader, for which it does not wait. Raises the operating system's
    /// error and leaves the log closed. An open log is closed first.
    void Open(Param param);
    /// Closes the log if it is open. Messages that other threads log while it is closed are dropped and
    /// counted.
    void Close();
    /// Returns true if messages are written now.
    bool IsOpen() const;
    /// The number of messages dropped since construction, because the log was closed or a write failed.
    unsigned long long GetDroppedCount() const;
    YStream& GetThreadSpecificContext() override;
    /// Appends one line to the file: local time in ISO 8601 with milliseconds and zone, the level and the
    /// message, separated by blanks. The level is "INFO" for General and "TRACE" for other channels. A line
    /// end at the end of the message is removed. Other unprintable characters are escaped by
    /// String::AppendPrintable, so a message is always one line without control characters. Does not raise:
    /// a message that cannot be written is dropped and counted. Any thread.
    void Write(unsigned int type, const YString& message);

private:
    friend class YLogContext;
    class Impl;

    // Does what Write does. `memory` is used for the line; a caller that keeps it saves allocations.
    KRT_HIDDEN void Write(unsigned int type, std::string_view message, std::string& memory);

    std::unique_ptr<Impl> m_impl;
};

/// The set of enabled channels.
class KRT_API YRegistrar
{
public:
    constexpr YRegistrar() = default;
    YRegistrar(const YRegistrar&) = delete;
    YRegistrar& operator=(const YRegistrar&) = delete;

    /// Returns true if the channel is enabled. Lock-free; any thread.
    bool IsMessageEnabled(unsigned int type) const
    {
        return (m_enabled.load(std::memory_order_relaxed) & BitOf(type)) != 0;
    }
    /// Returns the channel's name, such as "FileIo", or the number in decimal if it is not a channel.
    YString TypeToString(unsigned int type) const;
    /// Replaces the set of enabled channels. Blanks around a name are ignored. Unknown names are kept and
    /// have no effect.
    void SetEnabledMessages(const std::vector<YString>& channels);
    /// Returns the names passed to SetEnabledMessages.
    std::vector<YString> GetEnabledMessages() const;

private:
    // A channel's bit in the set of enabled ones; 0 for a number that is not a channel. A site's channel is a
    // constant, and so is its bit.
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
    // A pointer, nullptr for no names, so that the process's registrar is initialized without code.
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

/// Creates the process's logger, closed; a second call does nothing. The logger is created only here.
KRT_API void InstallGlobalLogger();
/// The process's logger; nullptr before InstallGlobalLogger.
inline YLog* GetGlobalLogger()
{
    return Detail::g_logger.load(std::memory_order_acquire);
}
/// The process's registrar, which exists always and starts without enabled channels.
inline YRegistrar* GetGlobalRegistrar()
{
    return &Detail::g_registrar.registrar;
}
/// Calls YRegistrar::IsMessageEnabled of the process's registrar.
inline bool IsMessageEnabled(unsigned int type)
{
    return GetGlobalRegistrar()->IsMessageEnabled(type);
}
/// Calls YRegistrar::TypeToString of the process's registrar.
inline YString TypeToString(unsigned int type)
{
    return GetGlobalRegistrar()->TypeToString(type);
}

} // namespace Krt::Log
