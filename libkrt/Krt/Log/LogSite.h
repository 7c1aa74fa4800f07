// The logging statement. With no logger, or with the channel disabled, nothing of the message is computed.
//     KRT_LOG(MessageType::FileIo, "Read " << count << " bytes from file " << m_path);   in a member function
//     KRT_LOG_FREE(MessageType::Volume, "Determining volume path name for path " << path);   elsewhere
#pragma once

#include "Krt/Log/LogPrefix.h"
#include "Krt/Log/YLog.h"

namespace Krt::Log {

class YLogContext;

/// One message on the calling thread's stream. A message that an exception cuts short is dropped; one that is
/// logged while an outer one is being built comes out first and leaves the outer one whole.
class KRT_API YLogLine
{
public:
    /// Begins a message on the channel.
    explicit YLogLine(unsigned int type);
    ~YLogLine();
    YLogLine(const YLogLine&) = delete;
    YLogLine& operator=(const YLogLine&) = delete;
    /// Where the message is written, up to Modifiers::EndLine.
    YStream& Stream();

private:
    YLogContext& m_context;
    std::string m_outer; // what an outer message has so far
    unsigned int m_outerType;
};

/// Whether a message on the channel would be written: two loads. Any thread.
inline bool IsLogged(unsigned int type)
{
    return GetGlobalLogger() != nullptr && GetGlobalRegistrar()->IsMessageEnabled(type);
}

} // namespace Krt::Log

/// One message on the channel; the text is streamed, and computed only if it is logged. Any thread.
#define KRT_LOG_WITH_PREFIX(type, prefix, ...)                                                               \
    do {                                                                                                     \
        if (::Krt::Log::IsLogged(type)) {                                                                    \
            ::Krt::Log::YLogLine krtLogLine(type);                                                           \
            krtLogLine.Stream() << (prefix).CStr() << __VA_ARGS__ << ::Krt::Modifiers::EndLine;              \
        }                                                                                                    \
    } while (false)

/// The same behind the prefix of the object's class.
#define KRT_LOG(type, ...) KRT_LOG_WITH_PREFIX(type, ::Krt::Log::GetLogPrefix(*this), __VA_ARGS__)

/// The same behind the channel's name.
#define KRT_LOG_FREE(type, ...)                                                                              \
    KRT_LOG_WITH_PREFIX(                                                                                     \
        type,                                                                                                \
        ::Krt::Log::GetLogPrefix<::Krt::YString>(::Krt::Util::Camelify(::Krt::Log::TypeToString(type))),     \
        __VA_ARGS__)
