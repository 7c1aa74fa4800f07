#pragma once

/// @file
/// Logging statements. Without a logger, or with the channel disabled, the message is not computed.
///
///     KRT_LOG(MessageType::FileIo, "Read " << count << " bytes from file " << m_path);  in member functions
///     KRT_LOG_FREE(MessageType::Volume, "Determining volume path name for path " << path);  elsewhere

#include "Krt/Log/LogPrefix.h"
#include "Krt/Log/YLog.h"

namespace Krt::Log {

class YLogContext;

/// One message on the calling thread's stream. If an exception interrupts a message, it is dropped. A
/// message that is logged while an outer one is being built is written first and does not affect the outer
/// one.
class KRT_API YLogLine
{
public:
    /// Begins a message on the channel.
    explicit YLogLine(unsigned int type);
    ~YLogLine();
    YLogLine(const YLogLine&) = delete;
    YLogLine& operator=(const YLogLine&) = delete;
    /// The stream for the message, which ends with Modifiers::EndLine.
    YStream& Stream();

private:
    YLogContext& m_context;
    std::string m_outer; // what an outer message has so far
    unsigned int m_outerType;
};

/// Returns true if a message on the channel would be written. Costs two loads. Any thread.
inline bool IsLogged(unsigned int type)
{
    return GetGlobalLogger() != nullptr && GetGlobalRegistrar()->IsMessageEnabled(type);
}

} // namespace Krt::Log

/// Logs a message on the channel after `prefix`. The streamed text is evaluated only if it is logged. Any
/// thread.
#define KRT_LOG_WITH_PREFIX(type, prefix, ...)                                                               \
    do {                                                                                                     \
        if (::Krt::Log::IsLogged(type)) {                                                                    \
            ::Krt::Log::YLogLine krtLogLine(type);                                                           \
            krtLogLine.Stream() << (prefix).CStr() << __VA_ARGS__ << ::Krt::Modifiers::EndLine;              \
        }                                                                                                    \
    } while (false)

/// Logs a message with the prefix of the object's class; see KRT_LOG_WITH_PREFIX.
#define KRT_LOG(type, ...) KRT_LOG_WITH_PREFIX(type, ::Krt::Log::GetLogPrefix(*this), __VA_ARGS__)

/// Logs a message with the prefix of the channel's name; see KRT_LOG_WITH_PREFIX.
#define KRT_LOG_FREE(type, ...)                                                                              \
    KRT_LOG_WITH_PREFIX(                                                                                     \
        type,                                                                                                \
        ::Krt::Log::GetLogPrefix<::Krt::YString>(::Krt::Util::Camelify(::Krt::Log::TypeToString(type))),     \
        __VA_ARGS__)
