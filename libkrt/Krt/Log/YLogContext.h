// A thread's own stream on the log: what ends with Modifiers::EndLine becomes one message.
#pragma once

#include "Krt/Log/YStream.h"

#include <string>
#include <utility>

namespace Krt::Log {

class YLog;

class YLogContext final : public YStream
{
public:
    YLogContext();
    /// The calling thread's, whose messages go to `log` from now on. It lives as long as the thread, and is
    /// made again for whoever still logs while the thread's objects are destroyed.
    static YLogContext& OfThread(YLog& log);

    /// Sets the channel of the message, which is General unless told; returns the one before.
    unsigned int SetType(unsigned int type) { return std::exchange(m_type, type); }
    /// Puts this text in the place of the unfinished message, which is returned.
    std::string ExchangeText(std::string text);

    /// Hands the text to the log and to the signal's slots, and begins the next message empty.
    void FlushInternal() override;

private:
    YLog* m_log = nullptr;
    unsigned int m_type;
};

} // namespace Krt::Log
