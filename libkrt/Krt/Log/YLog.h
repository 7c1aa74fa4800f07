// The process's log: one file, written line by line by any number of threads, and the registrar that knows
// which channels are enabled. Sites use the macros of Krt/Log/LogSite.h.
#pragma once

#include "Krt/File/YPath.h"
#include "Krt/Log/YStream.h"

#include <memory>

namespace Krt::Log {

/// What a logging site needs of a logger.
class KRT_API YLogBase
{
public:
    virtual ~YLogBase() = default;
    /// The calling thread's own stream. Text up to Modifiers::EndLine becomes one message; the next starts empty.
    virtual YStream& GetThreadSpecificContext() = 0;
};

class KRT_API YLog : public YLogBase
{
public:
    /// How to open a log.
    struct Param
    {
        explicit Param(const File::YPath& logPath) : path(logPath) {}
        File::YPath path;
        bool copyToConsole = false; ///< also write each line to standard error
        bool wholeLines = false;    ///< write a message in one piece, never part of a line
    };

    YLog();
    ~YLog() override;
    YLog(const YLog&) = delete;
    YLog& operator=(const YLog&) = delete;

    /// Opens the file for appending with mode 0640, not through a symbolic link; a missing parent is an error.
    /// Raises the operating system's error and leaves the log closed.
    void Open(Param param);
    /// Ends the log if one is open. Messages of threads meanwhile are dropped and counted.
    void Close();
    bool IsOpen() const;
    /// Messages dropped, while closed or because a write failed, since this object was made.
    unsigned long long GetDroppedCount() const;
    YStream& GetThreadSpecificContext() override;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// The enabled channels.
class KRT_API YRegistrar
{
public:
    YRegistrar();
    ~YRegistrar();
    /// Lock-free, from any thread.
    bool IsMessageEnabled(unsigned int type) const;
    /// The channel's name, such as "FileIo"; a number without a channel is given in decimal.
    YString TypeToString(unsigned int type) const;
    /// Replaces the set of enabled channels. Names that no channel has are kept and match nothing.
    void SetEnabledMessages(const std::vector<YString>& channels);
    std::vector<YString> GetEnabledMessages() const;

private:
    class Impl;
    std::unique_ptr<Impl> m_impl;
};

/// Makes the process's logger, closed; a second call does nothing. Nothing else creates one.
KRT_API void InstallGlobalLogger();
/// Null until InstallGlobalLogger.
KRT_API YLog* GetGlobalLogger();
/// Always usable; starts with no channel enabled.
KRT_API YRegistrar* GetGlobalRegistrar();
KRT_API bool IsMessageEnabled(unsigned int type);
KRT_API YString TypeToString(unsigned int type);

} // namespace Krt::Log
